#include "enumeration/file_name_tag.h"

#include <cstdlib>

#include "enumeration/ascii_case.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

constexpr std::size_t kTagLength = 2;

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

// Stops at the text's NUL, which equals no character of a tag.
bool BeginsWithTag(const char* text, const char* tag) {
  return ToLowerAscii(text[0]) == ToLowerAscii(tag[0]) &&
         ToLowerAscii(text[1]) == ToLowerAscii(tag[1]);
}

}  // namespace

KQStatus FindNumberedTag(const char* name, const char* tag, NumberedTag* found) {
  *found = NumberedTag();
  if (name == nullptr) return KQ_FAIL(kInvalidParameter);
  for (const char* place = name; *place != '\0'; ++place) {
    if (!BeginsWithTag(place, tag)) continue;
    const char* const digits = place + kTagLength;
    const char* end = digits;
    while (IsDigit(*end)) ++end;
    if (end == digits || (*end != '-' && *end != '.')) continue;
    found->start = place;
    found->length = static_cast<std::uint32_t>(end - place);
    // strtol stops at the hyphen or the point. It stops at the largest number, too: the number of a
    // tag with many digits has little to do with them, and need not.
    found->number = static_cast<std::uint32_t>(std::strtol(digits, nullptr, 10));
    return Success();
  }
  return KQ_FAIL(kFileNotFound);
}

}  // namespace kq
