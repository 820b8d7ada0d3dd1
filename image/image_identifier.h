// Identifiers of images and files: 16 bytes in the mixed order of a GUID.
#ifndef KQ_IMAGE_IMAGE_IDENTIFIER_H
#define KQ_IMAGE_IMAGE_IDENTIFIER_H

#include <cstdint>

namespace kq {

inline constexpr std::uint32_t kIdentifierBytes = 16;

// Reverses the bytes of the first 32-bit group and of the two 16-bit groups behind it, in place:
// from a UUID's order to the mixed order, or back.
void SwapIdentifierOrder(std::uint8_t* identifier);

// A new identifier from the system's UUID generator, in the mixed order.
void GenerateIdentifier(std::uint8_t* identifier);

}  // namespace kq

#endif
