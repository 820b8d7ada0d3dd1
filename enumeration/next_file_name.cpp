#include <sys/stat.h>

#include <cstdio>

#include "enumeration/ascii_case.h"
#include "enumeration/enumerated_file.h"
#include "enumeration/file_name_tag.h"
#include "enumeration/file_names.h"
#include "enumeration/full_path.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

constexpr std::size_t kExtensionLength = 3;
constexpr std::size_t kExtensionWithPoint = 4;
constexpr std::size_t kShortestName = 5;
constexpr std::uint32_t kLargestPaddedNumber = 999;

// The character before the extension is not looked at, so it need not be a point.
bool HasSeriesExtension(std::string_view name) {
  if (name.size() < kShortestName) return false;
  const std::string_view extension = name.substr(name.size() - kExtensionLength);
  return EqualsInAnyCase(extension, "twf") || EqualsInAnyCase(extension, "twi");
}

std::string NumberText(std::uint32_t number) {
  // As a signed number: one beyond 31 bits shows with a minus sign.
  char text[16];
  std::snprintf(text, sizeof text, number <= kLargestPaddedNumber ? "%03d" : "%d",
                static_cast<std::int32_t>(number));
  return text;
}

// The name behind the given one in its series.
std::string NextName(const std::string& name, const char* tag) {
  NumberedTag found;
  std::string next;
  if (Failed(FindNumberedTag(name.c_str(), tag, &found))) {
    const std::size_t stemLength = name.size() - kExtensionWithPoint;
    next = name.substr(0, stemLength) + tag + NumberText(1) + name.substr(stemLength);
  } else {
    next = std::string(name.c_str(), found.start) + tag + NumberText(found.number + 1) +
           (found.start + found.length);
  }
  // What is written next is an increment, also behind a full image. The other letters keep their
  // case.
  next.back() = 'i';
  return next;
}

bool IsTaken(const std::string& path) {
  struct stat64 found;
  return stat64(path.c_str(), &found) == 0 && !S_ISDIR(found.st_mode) && !S_ISBLK(found.st_mode) &&
         !S_ISLNK(found.st_mode);
}

}  // namespace

KQStatus NextFileNameFrom(const char* path, const char* tag, std::string* nextPath) {
  FullPath current;
  KQ_RETURN_IF_FAILED(ResolveFullPath(path, &current));
  do {
    if (!HasSeriesExtension(current.name)) return KQ_FAIL(kInvalidParameter);
    current.name = NextName(current.name, tag);
    *nextPath = current.directory + current.name;
  } while (IsTaken(*nextPath));
  *nextPath = std::string(PlainPath(*nextPath));
  return Success();
}

}  // namespace kq
