// The 16-byte identifiers of images, image sets and snapshot sets.
#ifndef KQ_ENUMERATION_IDENTIFIER_H
#define KQ_ENUMERATION_IDENTIFIER_H

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kq {

// As it stands in the file: the mixed byte order of a Windows GUID.
using Identifier = std::array<std::uint8_t, 16>;

// A base's ParentImageId, and a snapshot set that nobody has set.
inline bool IsZero(const Identifier& identifier) { return identifier == Identifier{}; }

// The key of the maps by identifier, such as {33221100-5544-7766-8899-AABBCCDDEEFF} for the bytes
// 00 11 22 ... FF: always 38 characters, upper case. They stand in the key itself: a search in a
// big catalogue spends its time on fetching keys.
class IdentifierText {
 public:
  explicit IdentifierText(const Identifier& identifier);

  std::string_view view() const { return {characters_.data(), characters_.size()}; }
  friend bool operator<(const IdentifierText& a, const IdentifierText& b) {
    return std::memcmp(a.characters_.data(), b.characters_.data(), a.characters_.size()) < 0;
  }

 private:
  std::array<char, 38> characters_;
};

}  // namespace kq

#endif
