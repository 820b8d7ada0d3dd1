#include "tests/support/document_dump.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace kqtest {

std::string RenderDump(const std::vector<std::uint8_t>& file) {
  std::string dump;
  const std::vector<std::uint8_t> zeros(16);
  std::vector<std::uint8_t> previous;
  bool starred = false;
  for (std::size_t at = 0; at < file.size(); at += 16) {
    const std::vector<std::uint8_t> line(file.begin() + static_cast<std::ptrdiff_t>(at),
                                         file.begin() + static_cast<std::ptrdiff_t>(at + 16));
    const bool repeat = line == previous;
    if (line != zeros && repeat && !starred) dump += "*\n";
    starred = line != zeros && repeat;
    if (line != zeros && !repeat) {
      char text[32];
      std::snprintf(text, sizeof text, "%04zx ", at);
      dump += text;
      for (std::uint8_t byte : line) {
        std::snprintf(text, sizeof text, " %02x", byte);
        dump += text;
      }
      dump += "\n";
    }
    previous = line;
  }
  return dump;
}

std::string DumpInDocument(const std::string& path) {
  std::ifstream document(path);
  std::ostringstream text;
  text << document.rdbuf();
  const std::string all = text.str();
  const std::string opening = "```hexdump\n";
  const std::size_t start = all.find(opening);
  if (start == std::string::npos) return "no dump in the document";
  const std::size_t first = start + opening.size();
  return all.substr(first, all.find("```", first) - first);
}

}  // namespace kqtest
