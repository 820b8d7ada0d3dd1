// Writes the instructions of an LZO1X stream; lzo_format.h tells what they are. Each function
// returns where the next one goes. There is room for all of them (a frame's input is chosen so),
// and for what the functions that say so write beyond the instruction.
#ifndef KQ_CODEC_LZO_PUT_H
#define KQ_CODEC_LZO_PUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "codec/lzo_format.h"
#include "foundation/little_endian.h"

namespace kq {

inline std::uint8_t* LzoPutExtension(std::uint8_t* out, std::size_t rest) {
  for (; rest > 255; rest -= 255) *out++ = 0;
  *out++ = static_cast<std::uint8_t>(rest);
  return out;
}

// Writes the count; the literals follow at the result.
inline std::uint8_t* LzoPutLiteralCount(std::uint8_t* out, std::size_t count) {
  if (count <= kLzoTrailingLiterals) {
    out[-2] = static_cast<std::uint8_t>(out[-2] | count);
    return out;
  }
  if (count <= kLzoShortRun) {
    *out = static_cast<std::uint8_t>(count - 3);
    return out + 1;
  }
  *out = 0;
  return LzoPutExtension(out + 1, count - kLzoShortRun);
}

inline std::uint8_t* LzoPutLiterals(std::uint8_t* out, const std::uint8_t* from,
                                    std::size_t count) {
  out = LzoPutLiteralCount(out, count);
  std::memcpy(out, from, count);
  return out + count;
}

// The same for up to kLzoShortRun literals, without a branch. Reads and writes 32 bytes, and one
// more.
template <class Wide>
[[gnu::always_inline]] inline std::uint8_t* LzoPutFewLiterals(std::uint8_t* out,
                                                              const std::uint8_t* from,
                                                              std::size_t count) {
  const std::size_t trailing = std::size_t{0} - (count <= kLzoTrailingLiterals ? 1 : 0);
  out[-2] = static_cast<std::uint8_t>(out[-2] | (count & trailing));
  out[0] = static_cast<std::uint8_t>(count - 3);
  out += trailing + 1;
  Wide::Copy32(out, from);
  return out + count;
}

// value < kBound ? yes : no, for choices that can't be foreseen: compilers make branches of them.
template <std::uint32_t kBound>
[[gnu::always_inline]] inline std::uint32_t IfBelow(std::uint32_t value, std::uint32_t yes,
                                                    std::uint32_t no) {
  asm("cmp %[bound], %[value]\n\tcmovb %[yes], %[no]"
      : [no] "+r"(no)
      : [value] "r"(value), [bound] "i"(kBound), [yes] "r"(yes)
      : "cc");
  return no;
}

// A match beyond the near ones: what is the same for all of a kind, as part of the three bytes, and
// the longest length without an extension.
struct LzoMatchKind {
  std::uint32_t base;
  std::uint32_t longest;
};
inline constexpr LzoMatchKind kLzoMatchKinds[] = {
    {kLzoMiddleCode - (1U << 10), kLzoMiddleLength},
    {kLzoFarCode - static_cast<std::uint32_t>(kLzoMiddleDistance << 10), kLzoFarLength}};

// May write 4 bytes where 2 or 3 are wanted.
[[gnu::always_inline]] inline std::uint8_t* LzoPutMatch(std::uint8_t* out, std::uint32_t length,
                                                        std::uint32_t distance) {
  const LzoMatchKind& kind = kLzoMatchKinds[distance > kLzoMiddleDistance ? 1 : 0];
  // The first byte without its length, and the distance's part behind it, whose bit 14 of a far
  // match belongs into the first byte.
  std::uint32_t word = (distance << 10) + kind.base;
  word += word >> 24 << 3;
  if (length > kind.longest) [[unlikely]] {
    *out = static_cast<std::uint8_t>(word);
    out = LzoPutExtension(out + 1, length - kind.longest);
    StoreU16(out, static_cast<std::uint16_t>(word >> 8));
    return out + 2;
  }
  word += length - 2;
  const std::uint32_t part = distance - 1;
  const std::uint32_t nearWord = ((length - 1) << 5) + ((part << 2 & 0x1C) | (part << 5 & 0xFF00));
  const std::uint32_t nearDistance = IfBelow<kLzoNearLength + 1>(length, distance, 0xFFFFFFFF);
  std::uint8_t* next = out;
  // A near match is nearWord and 2 bytes long, another one word and 3.
  asm("cmp %[bound], %[nearDistance]\n\tcmovb %[nearWord], %[word]\n\tsbb $-3, %[next]"
      : [word] "+r"(word), [next] "+r"(next)
      :
      [nearDistance] "r"(nearDistance), [bound] "i"(kLzoNearDistance + 1), [nearWord] "r"(nearWord)
      : "cc");
  StoreU32(out, word);
  return next;
}

}  // namespace kq

#endif
