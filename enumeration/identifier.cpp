#include "enumeration/identifier.h"

#include <cstddef>

namespace kq {
namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

// The bytes in the order in which their digits are written: the first three groups are integers,
// stored with their lowest byte first.
constexpr std::array<std::size_t, 16> kByteOrder = {3, 2, 1,  0,  5,  4,  7,  6,
                                                    8, 9, 10, 11, 12, 13, 14, 15};

constexpr bool HyphenBefore(std::size_t place) {
  return place == 4 || place == 6 || place == 8 || place == 10;
}

}  // namespace

IdentifierText::IdentifierText(const Identifier& identifier) {
  char* next = characters_.data();
  *next++ = '{';
  for (std::size_t place = 0; place < kByteOrder.size(); ++place) {
    if (HyphenBefore(place)) *next++ = '-';
    const std::uint8_t byte = identifier[kByteOrder[place]];
    *next++ = kDigits[byte >> 4];
    *next++ = kDigits[byte & 0xF];
  }
  *next = '}';
}

}  // namespace kq
