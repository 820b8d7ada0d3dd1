// Upper and lower case of ASCII letters alone: what an extension or a tag is must not depend on the
// process's locale.
#ifndef KQ_ENUMERATION_ASCII_CASE_H
#define KQ_ENUMERATION_ASCII_CASE_H

#include <algorithm>
#include <string_view>

namespace kq {

constexpr char ToLowerAscii(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

constexpr bool EqualsInAnyCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return ToLowerAscii(x) == ToLowerAscii(y); });
}

}  // namespace kq

#endif
