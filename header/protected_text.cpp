#include "header/protected_text.h"

#include <algorithm>
#include <cstring>

#include "foundation/little_endian.h"
#include "kqimageformat.h"

namespace kq {
namespace {

constexpr std::size_t kUnitBytes = sizeof(std::uint16_t);
constexpr char16_t kListPrefix[] = u"MPLIST=";
constexpr std::uint32_t kListPrefixUnits = sizeof kListPrefix / sizeof kListPrefix[0] - 1;

// Takes the next text off the units that are left.
WideText TakeText(std::span<const std::uint8_t>* left) {
  WideText text;
  text.units = left->data();
  const std::size_t most = left->size() / kUnitBytes;
  while (text.length < most && LoadU16(text.units + text.length * kUnitBytes) != 0) ++text.length;
  *left = left->subspan(std::min<std::size_t>(text.length + 1, most) * kUnitBytes);
  return text;
}

// The text behind the prefix. The prefix alone is no list.
WideText ListIn(const WideText& text) {
  if (text.length <= kListPrefixUnits) return {};
  constexpr std::size_t kPrefixBytes = kListPrefixUnits * kUnitBytes;
  if (std::memcmp(text.units, kListPrefix, kPrefixBytes) != 0) return {};
  return {text.units + kPrefixBytes, text.length - kListPrefixUnits};
}

}  // namespace

ProtectedTexts SplitProtectedTexts(std::span<const std::uint8_t> sector) {
  ProtectedTexts texts;
  if (sector.size() <= sizeof(ProtectedSector)) return texts;
  std::span<const std::uint8_t> left = sector.subspan(sizeof(ProtectedSector));
  left = left.first(left.size() / kUnitBytes * kUnitBytes);
  texts.first = TakeText(&left);
  texts.second = TakeText(&left);
  texts.third = TakeText(&left);
  texts.list = ListIn(TakeText(&left));
  return texts;
}

std::uint32_t StoreText(const WideText& text, std::uint32_t room, void* out) {
  const std::uint32_t length = std::min(text.length, room - 1);
  auto* const to = static_cast<std::uint8_t*>(out);
  if (length != 0) std::memcpy(to, text.units, length * kUnitBytes);
  StoreU16(to + length * kUnitBytes, 0);
  return length + 1;
}

}  // namespace kq
