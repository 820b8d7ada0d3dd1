// The search takes each position in turn. A usual volume has one match and three searched positions
// in 11 bytes, so what counts is instructions for each of them and branches that can't be foreseen.
// Speed on data below /usr as a share of liblzo2's lzo1x_1_15_compress, which passes over
// positions:
//   0.53  slots worked out position by position, entries that need the input for their bytes
//   0.60  slots hashed ahead, many positions at once
//   0.67  entries that hold the position's four bytes
//   0.72  one branch for each position, all else chosen without; the same for the usual literals,
//         lengths and forms of matches
// What doesn't pay: a first branch that tests three bytes alone (0.66), two or four positions for
// each branch (0.69), stores to both slots so that their addresses are known early (0.68).
#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "codec/lzo_block.h"
#include "codec/lzo_format.h"
#include "codec/lzo_wide_search.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

using Byte = std::uint8_t;

constexpr std::uint64_t kLargestFrameInput = 0xFFFFFF;
// A frame's stream is at most its input, a sixteenth of it, and this much long.
constexpr std::uint64_t kWorstCaseExtra = 67;
constexpr std::ptrdiff_t kFirstSearchPosition = 4;
constexpr std::ptrdiff_t kSearchMargin = 13;  // bytes at a frame's end where no match begins
constexpr std::ptrdiff_t kWideMargin = 32;    // bytes that the search reads at once at a position

constexpr std::ptrdiff_t kStretch = 1024;  // positions whose slots are worked out at once
constexpr std::ptrdiff_t kManyLiterals = 48;
constexpr std::ptrdiff_t kLiteralsBetween = 16;  // searched one by one before passing over more

static_assert(kLzoSlots * sizeof(LzoTableEntry) <= kLzoHashTableBytes);
static_assert(kLzoFirstPlace == kLzoFarDistance + 1);

inline void Copy16(Byte* to, const Byte* from) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

// value < kBound ? yes : no, for choices that can't be foreseen: compilers make branches of them.
template <std::uint32_t kBound>
inline std::uint32_t IfBelow(std::uint32_t value, std::uint32_t yes, std::uint32_t no) {
  asm("cmp %[bound], %[value]\n\tcmovb %[yes], %[no]"
      : [no] "+r"(no)
      : [value] "r"(value), [bound] "i"(kBound), [yes] "r"(yes)
      : "cc");
  return no;
}

constexpr std::uint32_t kNever = 0xFFFFFFFF;

// Looks for a match of at least three bytes at p, whose place and first slot are given, and enters
// p in the table. Distance is that of the match, if there is one.
inline bool FindMatch(const Byte* p, std::uint32_t place, std::size_t slot, LzoTableEntry* table,
                      std::uint32_t* matchDistance) {
  constexpr std::uint32_t kNear = kLzoNearDistance + 1;
  constexpr std::uint32_t kFar = kLzoFarDistance + 1;
  const std::size_t slot2 = LzoSecondSlot(static_cast<std::uint32_t>(slot));
  const std::uint32_t key = LoadU32(p);
  std::uint32_t different = key ^ table[slot].key;
  std::uint32_t distance = place - table[slot].place;
  const std::uint32_t different2 = key ^ table[slot2].key;
  const std::uint32_t distance2 = place - table[slot2].place;

  // The second slot has its turn if the first one's candidate is near enough to be used, but
  // neither near nor alike in the fourth byte.
  const std::uint32_t beyondNear = IfBelow<0x1000000>(different, kNever, distance - kNear);
  asm("cmp %[bound], %[value]\n\t"
      "cmovb %[slot2], %[slot]\n\tcmovb %[distance2], %[distance]\n\tcmovb %[different2], "
      "%[different]"
      : [slot] "+r"(slot), [distance] "+r"(distance), [different] "+r"(different)
      : [value] "r"(beyondNear), [bound] "i"(kFar - kNear), [slot2] "r"(slot2),
        [distance2] "r"(distance2), [different2] "r"(different2)
      : "cc");
  // As two stores: compilers join them in a vector register, at the price of four instructions.
  table[slot].key = key;
  asm("" : "+m"(table[slot].key));
  table[slot].place = place;

  *matchDistance = distance;
  different = IfBelow<kNear>(distance, different << 8, different);
  return IfBelow<kFar>(distance, different, kNever) == 0;
}

Byte* PutExtension(Byte* out, std::size_t rest) {
  for (; rest > 255; rest -= 255) *out++ = 0;
  *out++ = static_cast<Byte>(rest);
  return out;
}

// Writes the count; the literals follow at the result.
Byte* PutLiteralCount(Byte* out, std::size_t count) {
  if (count <= kLzoTrailingLiterals) {
    out[-2] = static_cast<Byte>(out[-2] | count);
    return out;
  }
  if (count <= kLzoShortRun) {
    *out = static_cast<Byte>(count - 3);
    return out + 1;
  }
  *out = 0;
  return PutExtension(out + 1, count - kLzoShortRun);
}

Byte* PutLiterals(Byte* out, const Byte* from, std::size_t count) {
  out = PutLiteralCount(out, count);
  std::memcpy(out, from, count);
  return out + count;
}

// Up to 16 literals, of which 16 can be read. Each literal has its byte of room, and the worst case
// leaves room for more.
inline Byte* PutFewLiterals(Byte* out, const Byte* from, std::uint32_t count) {
  out[-2] = static_cast<Byte>(out[-2] | IfBelow<kLzoTrailingLiterals + 1>(count, count, 0));
  out[0] = static_cast<Byte>(count - 3);
  out += count > kLzoTrailingLiterals ? 1 : 0;
  Copy16(out, from);
  return out + count;
}

Byte* PutExtendedMatch(Byte* out, std::uint32_t word, std::size_t rest) {
  *out = static_cast<Byte>(word);
  out = PutExtension(out + 1, rest);
  StoreU16(out, static_cast<std::uint16_t>(word >> 8));
  return out + 2;
}

// May write 4 bytes where 2 or 3 are wanted.
inline Byte* PutMatch(Byte* out, std::uint32_t length, std::uint32_t distance) {
  constexpr std::uint32_t kMiddle = kLzoMiddleDistance + 1;
  // The first byte without its length, and the distance's part behind it, whose bit 14 of a far
  // match belongs into the first byte.
  std::uint32_t word =
      (distance << 10) +
      IfBelow<kMiddle>(distance, kLzoMiddleCode - (1U << 10),
                       kLzoFarCode - static_cast<std::uint32_t>(kLzoMiddleDistance << 10));
  word += word >> 24 << 3;
  const std::uint32_t direct = IfBelow<kMiddle>(distance, kLzoMiddleLength, kLzoFarLength);
  if (length > direct) [[unlikely]]
    return PutExtendedMatch(out, word, length - direct);
  word += length - 2;
  const std::uint32_t part = distance - 1;
  const std::uint32_t nearWord = ((length - 1) << 5) + ((part << 2 & 0x1C) | (part << 5 & 0xFF00));
  const std::uint32_t shortDistance = IfBelow<kLzoNearLength + 1>(length, distance, kNever);
  StoreU32(out, IfBelow<kLzoNearDistance + 1>(shortDistance, nearWord, word));
  return out + IfBelow<kLzoNearDistance + 1>(shortDistance, 2, 3);
}

// Length of what a and b, a before b, have in common up to b's end.
std::size_t CommonLength(const Byte* a, const Byte* b, const Byte* end) {
  const Byte* const start = b;
  while (end - b >= 8) {
    const std::uint64_t different = LoadU64(a) ^ LoadU64(b);
    if (different != 0) {
      return static_cast<std::size_t>(b - start) +
             static_cast<std::size_t>(std::countr_zero(different) / 8);
    }
    a += 8;
    b += 8;
  }
  while (b < end && *a == *b) {
    ++a;
    ++b;
  }
  return static_cast<std::size_t>(b - start);
}

// Likewise, where 32 bytes can be read from b on.
inline std::size_t CommonLengthWide(const Byte* a, const Byte* b, const Byte* end) {
  const auto alike = [](const Byte* one, const Byte* other) {
    return static_cast<std::uint32_t>(_mm_movemask_epi8(
        _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(one)),
                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(other)))));
  };
  const std::uint32_t different = ~(alike(a, b) | alike(a + 16, b + 16) << 16);
  if (different == 0) [[unlikely]]
    return 32 + CommonLength(a + 32, b + 32, end);
  return static_cast<std::size_t>(std::countr_zero(different));
}

// What is on its way through a frame.
struct Frame {
  const Byte* p;        // the position to be searched
  const Byte* pending;  // the literals from here to p aren't written yet
  const Byte* const end;
  Byte* out;
};

// Writes the literals from pending on, and the match of p at the given distance, whose length it
// tells. At the end of the frame no more than the frame's bytes are read.
template <bool kAtFrameEnd>
inline Byte* PutUpToMatch(Byte* out, const Byte* pending, const Byte* p, std::uint32_t distance,
                          const Byte* frameEnd, std::ptrdiff_t* matchLength) {
  const Byte* const source = p - distance;
  const std::size_t length =
      kAtFrameEnd ? CommonLength(source, p, frameEnd) : CommonLengthWide(source, p, frameEnd);
  const auto count = static_cast<std::size_t>(p - pending);
  if (!kAtFrameEnd && count <= 16) [[likely]] {
    out = PutFewLiterals(out, pending, static_cast<std::uint32_t>(count));
  } else {
    out = PutLiterals(out, pending, count);
  }
  *matchLength = static_cast<std::ptrdiff_t>(length);
  return PutMatch(out, static_cast<std::uint32_t>(length), distance);
}

// Searches the positions of a stretch up to its end, where the next one goes on or a match has led
// beyond.
template <bool kAtFrameEnd>
void SearchStretch(Frame* frame, const LzoPositions& stretch, std::ptrdiff_t stretchEnd,
                   LzoPassLiterals passLiterals, LzoTableEntry* table) {
  const Byte* const bytes = stretch.bytes;
  std::ptrdiff_t i = frame->p - bytes;
  std::ptrdiff_t pending = frame->pending - bytes;
  Byte* out = frame->out;
  std::ptrdiff_t limit = std::min(stretchEnd, i + kManyLiterals);
  while (true) {
    if (i >= limit) [[unlikely]] {
      if (i >= stretchEnd) break;
      if (!kAtFrameEnd) {
        i = static_cast<std::ptrdiff_t>(passLiterals(stretch, static_cast<std::size_t>(i),
                                                     static_cast<std::size_t>(stretchEnd), table));
      }
      limit = std::min(stretchEnd, i + kLiteralsBetween);
      continue;
    }
    std::uint32_t distance;
    std::ptrdiff_t length;
    while (!FindMatch(bytes + i, stretch.firstPlace + static_cast<std::uint32_t>(i),
                      stretch.slots[i], table, &distance)) {
      // Measured: a plain loop condition, tested again behind the loop, costs 4 %.
      if (++i >= limit) [[unlikely]]
        goto nextLimit;
    }
    out = PutUpToMatch<kAtFrameEnd>(out, bytes + pending, bytes + i, distance, frame->end, &length);
    i += length;
    pending = i;
    limit = std::min(stretchEnd, i + kManyLiterals);
  nextLimit:;
  }
  frame->p = bytes + i;
  frame->pending = bytes + pending;
  frame->out = out;
}

template <bool kAtFrameEnd>
void Search(Frame* frame, const Byte* start, const Byte* searchEnd, const LzoWideSearch& wide,
            LzoTableEntry* table) {
  std::uint16_t slots[kStretch];
  while (frame->p < searchEnd) {
    const std::ptrdiff_t length = std::min(kStretch, searchEnd - frame->p);
    wide.hashStretch(frame->p, static_cast<std::size_t>(length), slots);
    const LzoPositions stretch = {frame->p, slots,
                                  kLzoFirstPlace + static_cast<std::uint32_t>(frame->p - start)};
    SearchStretch<kAtFrameEnd>(frame, stretch, length, wide.passLiterals, table);
  }
}

Byte* CompressFrame(const Byte* in, std::size_t length, Byte* out, const LzoWideSearch& wide,
                    LzoTableEntry* table) {
  Frame frame{in, in, in + length, out};
  const auto searched = static_cast<std::ptrdiff_t>(length) - kSearchMargin;
  if (searched > kFirstSearchPosition) {
    std::memset(table, 0, kLzoSlots * sizeof(LzoTableEntry));
    frame.p = in + kFirstSearchPosition;
    const std::ptrdiff_t searchedWide = searched + kSearchMargin - kWideMargin;
    if (searchedWide > kFirstSearchPosition) {
      Search<false>(&frame, in, in + searchedWide, wide, table);
    }
    Search<true>(&frame, in, in + searched, wide, table);
  }
  const auto tail = static_cast<std::size_t>(frame.end - frame.pending);
  if (frame.out == out && tail <= kLzoFirstRunLength) {
    *frame.out++ = static_cast<Byte>(kLzoFirstRunCode + tail);
  } else if (tail != 0) {
    frame.out = PutLiteralCount(frame.out, tail);
  }
  std::memcpy(frame.out, frame.pending, tail);
  frame.out += tail;
  frame.out[0] = kLzoFarCode | 1;
  frame.out[1] = 0;
  frame.out[2] = 0;
  return frame.out + kLzoEndMarkerBytes;
}

}  // namespace

int LzoBlockCompressWith(const LzoWideSearch& wide, const std::uint8_t* input,
                         std::uint64_t inputLength, std::uint8_t* output,
                         std::uint64_t* outputLength, void* hashTable) {
  auto* const table = static_cast<LzoTableEntry*>(hashTable);
  Byte* out = output;
  std::uint64_t room = *outputLength;
  while (inputLength != 0) {
    if (room < kLzoFrameLengthBytes + kWorstCaseExtra) return kLzoOutputFull;
    room -= kLzoFrameLengthBytes;
    const std::uint64_t frameInput =
        std::min({inputLength, kLargestFrameInput, (room - kWorstCaseExtra) * 16 / 17});
    Byte* const frame = out + kLzoFrameLengthBytes;
    Byte* const frameEnd = CompressFrame(input, frameInput, frame, wide, table);
    const auto length = static_cast<std::uint64_t>(frameEnd - frame);
    out[0] = static_cast<Byte>(length);
    out[1] = static_cast<Byte>(length >> 8);
    out[2] = static_cast<Byte>(length >> 16);
    out = frameEnd;
    room -= length;
    input += frameInput;
    inputLength -= frameInput;
  }
  *outputLength = static_cast<std::uint64_t>(out - output);
  return kLzoSuccess;
}

int LzoBlockCompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                     std::uint64_t* outputLength, void* hashTable) {
  return LzoBlockCompressWith(LzoWideSearchHere(), input, inputLength, output, outputLength,
                              hashTable);
}

}  // namespace kq
