// The wide strings at the end of the ProtectedSector.
#ifndef KQ_HEADER_PROTECTED_TEXT_H
#define KQ_HEADER_PROTECTED_TEXT_H

#include <cstdint>
#include <span>

namespace kq {

// UTF-16 units as they lie in the sector, at any alignment and without their NUL.
struct WideText {
  const std::uint8_t* units = nullptr;
  std::uint32_t length = 0;  // units
};

struct ProtectedTexts {
  WideText first;
  WideText second;
  WideText third;
  WideText list;  // what stands behind "MPLIST="; never empty where there is a list
};

// Each text ends at its NUL or with the sector; those that the sector has no room for are empty.
// sector: SectorSize bytes; the result points into it.
ProtectedTexts SplitProtectedTexts(std::span<const std::uint8_t> sector);

// Stores a text with a NUL behind it, cut to room units in all, and returns the units stored. out
// needs no alignment; room is not 0.
std::uint32_t StoreText(const WideText& text, std::uint32_t room, void* out);

}  // namespace kq

#endif
