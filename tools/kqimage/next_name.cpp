#include "kqimage/next_name.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>

#include "kqimage/failure.h"
#include "kqimage/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kMaxDigits = 9;  // a longer number is taken for a part of the stem

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// A name without its extension, in front of and behind the number of its "-i" tag.
struct NumberedName {
  std::string before;  // ends in "-i"
  std::string behind;
  std::uint64_t number = 0;
};

NumberedName SplitName(const std::string& stem) {
  for (std::size_t tag = 0; tag + 2 < stem.size(); ++tag) {
    if (stem[tag] != '-' || (stem[tag + 1] != 'i' && stem[tag + 1] != 'I')) continue;
    std::size_t end = tag + 2;
    std::uint64_t number = 0;
    while (end < stem.size() && IsDigit(stem[end]) && end - tag - 2 < kMaxDigits) {
      number = number * 10 + static_cast<std::uint64_t>(stem[end] - '0');
      ++end;
    }
    const bool isNumber = end > tag + 2;
    if (isNumber && (end == stem.size() || stem[end] == '-' || stem[end] == '.')) {
      return {stem.substr(0, tag) + "-i", stem.substr(end), number};
    }
  }
  return {stem + "-i", "", 0};
}

}  // namespace

bool HasExtension(const std::string& path, std::string_view extension) {
  if (path.size() < extension.size()) return false;
  return std::equal(extension.begin(), extension.end(), path.end() - std::ssize(extension),
                    [](char a, char b) {
                      return std::tolower(static_cast<unsigned char>(a)) ==
                             std::tolower(static_cast<unsigned char>(b));
                    });
}

std::string NextIncrementPath(const std::string& image) {
  if (!HasExtension(image, ".twf") && !HasExtension(image, ".twi")) {
    throw UsageFailure(fmt::format(
        "no name can be derived from {}, which ends in neither .twf nor .twi: name the new image",
        Printable(image)));
  }
  const std::filesystem::path path(image);
  const NumberedName name = SplitName(path.stem().string());
  for (std::uint64_t number = name.number + 1;; ++number) {
    std::string next =
        (path.parent_path() / fmt::format("{}{:03}{}.twi", name.before, number, name.behind))
            .string();
    struct stat status = {};
    if (lstat(next.c_str(), &status) != 0) return next;
  }
}

}  // namespace kqimage
