// The two CRC-32 routines: the MSB-first one guards image headers, the reflected one GPT data.
#ifndef KQ_CRYPTO_CRC32_H
#define KQ_CRYPTO_CRC32_H

#include <cstdint>
#include <span>

namespace kq {

// The accumulator before any byte.
inline constexpr std::uint32_t kCrcStart = 0xFFFFFFFF;

// Polynomial 0x04C11DB7, bytes entering at the top, from kCrcStart: *accumulator receives the raw
// accumulator over [first, end). Callers complement it, which gives the CRC-32/BZIP2 value.
void CrcMsbFirst(const std::uint8_t* first, const std::uint8_t* end, std::uint32_t* accumulator);

// The same step from any accumulator, for callers that go on behind a gap.
std::uint32_t CrcMsbFirstContinue(std::uint32_t accumulator, std::span<const std::uint8_t> bytes);

// Polynomial 0xEDB88320, reflected, from any accumulator; start with kCrcStart, complement the end.
std::uint32_t CrcReflectedContinue(std::uint32_t accumulator, std::span<const std::uint8_t> bytes);

}  // namespace kq

#endif
