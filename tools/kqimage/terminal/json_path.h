// Paths in JSON. A path can be any bytes, and JSON holds UTF-8 alone: where a path is none, a
// second key tells its bytes, so that it is never lost.
#ifndef KQIMAGE_TERMINAL_JSON_PATH_H
#define KQIMAGE_TERMINAL_JSON_PATH_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kqimage {

// Sets object[key], and where path is not UTF-8 object[key + "Hex"] to its bytes as hexadecimal
// digits; what is not UTF-8 is then replaced in the first.
void AddPath(nlohmann::ordered_json& object, const std::string& key, const std::string& path);

// A list of objects with the key "file".
nlohmann::ordered_json JsonPaths(const std::vector<std::string>& paths);

}  // namespace kqimage

#endif
