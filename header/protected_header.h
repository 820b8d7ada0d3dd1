// The deciphered header of an image as the two queries of protected information need it.
#ifndef KQ_HEADER_PROTECTED_HEADER_H
#define KQ_HEADER_PROTECTED_HEADER_H

#include <cstdint>
#include <span>

#include "foundation/memory.h"
#include "foundation/status.h"
#include "header/protected_text.h"
#include "kqimageformat.h"

namespace kq {

inline constexpr std::uint32_t kPartitionStyleNone = 0;
inline constexpr std::uint32_t kPartitionStyleMbr = 1;
inline constexpr std::uint32_t kPartitionStyleGpt = 2;
inline constexpr std::uint32_t kNoPartitionNumber = 0xFFFFFFFF;

struct ProtectedHeader {
  HeapBuffer sectors;
  ImageHeader image;
  ProtectedSector fields;
  ProtectedTexts texts;                        // points into sectors
  std::span<const std::uint8_t> extraSectors;  // sectors 2 onward; empty if there are none
};

// -2 no sector 1; and what ReadHeaderSectors reports.
KQStatus ReadProtectedHeader(const char* path, const char* password, ProtectedHeader* header);

}  // namespace kq

#endif
