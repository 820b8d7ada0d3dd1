// The numbers of the LZO1X stream and of its frames, which both directions of the block codec
// share.
//
// Instructions, t being the first byte:
//   t 0..15   behind a match without trailing literals, or at the start of a frame: t + 3 literals;
//             t = 0: each further 0 byte counts 255, the first other byte b counts b + 18 in all
//   t 16..31  far match: length (t & 7) + 2, t & 7 = 0: extended as above with b + 9;
//             distance bit 3 of t << 11, plus the u16 behind it >> 2, plus 0x4000;
//             all of that 0 but for the 0x4000: the end of the stream
//   t 32..63  middle match: length (t & 31) + 2, t & 31 = 0: extended with b + 33; distance the u16
//             behind it >> 2, plus 1
//   t 64..255 near match: length (t >> 5) + 1; distance (t >> 2 & 7) + the byte behind it * 8, plus
//   1
// The low two bits of the first of the last two bytes of a match are a count of literals behind it.
// At the start of a frame alone, a byte above 17 is a run of (byte - 17) literals.
#ifndef KQ_CODEC_LZO_FORMAT_H
#define KQ_CODEC_LZO_FORMAT_H

#include <cstdint>

namespace kq {

inline constexpr std::uint64_t kLzoFrameLengthBytes = 3;
inline constexpr std::uint64_t kLzoEndMarkerBytes = 3;

inline constexpr std::uint32_t kLzoFarCode = 16;
inline constexpr std::uint32_t kLzoMiddleCode = 32;
inline constexpr std::uint32_t kLzoNearCode = 64;

inline constexpr std::uint64_t kLzoNearDistance = 0x800;
inline constexpr std::uint64_t kLzoMiddleDistance = 0x4000;
inline constexpr std::uint64_t kLzoFarDistance = 0xBFFF;
inline constexpr std::uint64_t kLzoNearLength = 8;

// Longest lengths without an extension.
inline constexpr std::uint64_t kLzoShortRun = 18;
inline constexpr std::uint64_t kLzoMiddleLength = 33;
inline constexpr std::uint64_t kLzoFarLength = 9;
// What the low two bits behind a match can count.
inline constexpr std::uint64_t kLzoTrailingLiterals = 3;

// A frame's first run of literals: one byte of this and the count, up to 255.
inline constexpr std::uint32_t kLzoFirstRunCode = 17;
inline constexpr std::uint64_t kLzoFirstRunLength = 238;

}  // namespace kq

#endif
