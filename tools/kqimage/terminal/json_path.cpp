#include "kqimage/terminal/json_path.h"

#include <cstdint>
#include <span>

#include "kqimage/terminal/text.h"

namespace kqimage {

void AddPath(nlohmann::ordered_json& object, const std::string& key, const std::string& path) {
  object[key] = path;
  if (Utf16Units(path)) return;
  object[key + "Hex"] =
      HexText(std::span(reinterpret_cast<const std::uint8_t*>(path.data()), path.size()));
}

nlohmann::ordered_json JsonPaths(const std::vector<std::string>& paths) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const std::string& path : paths) {
    nlohmann::ordered_json entry;
    AddPath(entry, "file", path);
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace kqimage
