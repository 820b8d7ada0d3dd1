#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "codec/lzo_block.h"
#include "codec/lzo_format.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

using Byte = std::uint8_t;

constexpr std::uint64_t kLargestFrameInput = 0xFFFFFF;
// A frame's stream is at most its input, a sixteenth of it, and this much long.
constexpr std::uint64_t kWorstCaseExtra = 67;
constexpr std::size_t kFirstSearchPosition = 4;
constexpr std::size_t kSearchMargin = 13;  // bytes at a frame's end where no match begins

constexpr std::uint32_t kSlots = 0x8000;
constexpr std::uint32_t kSecondSlotMask = 0x7FF;
constexpr std::uint32_t kSecondSlotFlip = 0x401F;

// An entry of the hash table: the position's place in the low 24 bits, its fourth byte above.
// Places start so high that the 0 of an empty slot is too far away from all of them.
using Entry = std::uint32_t;
constexpr Entry kPlaceMask = 0xFFFFFF;
constexpr Entry kFirstPlace = kLzoFarDistance + 1;
static_assert(kSlots * sizeof(Entry) <= kLzoHashTableBytes);

inline void Copy16(Byte* to, const Byte* from) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

// (((p[3] << 6 ^ p[2]) << 5 ^ p[1]) << 5 ^ p[0]) * 33 >> 5 of the four bytes in key; the lowest
// bits of the multiple play no part.
inline std::uint32_t Hash(std::uint32_t key) {
  const std::uint32_t mixed =
      (key & 0xFF) ^ (key & 0xFF00) >> 3 ^ (key & 0xFF0000) >> 6 ^ (key & 0xFF000000) >> 8;
  return mixed + (mixed >> 5);
}

// All bits, or none: for choices that the compiler is to make without a branch.
inline std::uint32_t Mask(bool condition) { return 0u - static_cast<std::uint32_t>(condition); }
inline std::uint32_t Choose(std::uint32_t mask, std::uint32_t yes, std::uint32_t no) {
  return no ^ (mask & (yes ^ no));
}

Byte* PutExtension(Byte* out, std::size_t rest) {
  for (; rest > 255; rest -= 255) *out++ = 0;
  *out++ = static_cast<Byte>(rest);
  return out;
}

// Writes the count; the literals follow at the result.
inline Byte* PutLiteralCount(Byte* out, std::size_t count) {
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

inline Byte* PutMatch(Byte* out, std::size_t length, std::size_t distance) {
  if (length <= kLzoNearLength && distance <= kLzoNearDistance) {
    const std::size_t part = distance - 1;
    out[0] = static_cast<Byte>((length - 1) << 5 | (part & 7) << 2);
    out[1] = static_cast<Byte>(part >> 3);
    return out + 2;
  }
  std::size_t code = kLzoMiddleCode;
  std::size_t direct = kLzoMiddleLength;
  std::size_t part = distance - 1;
  if (distance > kLzoMiddleDistance) {
    part = distance - kLzoMiddleDistance;
    code = kLzoFarCode | (part & 0x4000) >> 11;
    direct = kLzoFarLength;
  }
  if (length <= direct) {
    *out++ = static_cast<Byte>(code | (length - 2));
  } else {
    *out++ = static_cast<Byte>(code);
    out = PutExtension(out, length - direct);
  }
  StoreU16(out, static_cast<std::uint16_t>(part << 2));
  return out + 2;
}

// Length of what a and b, a before b, have in common up to b's end.
inline std::size_t CommonLength(const Byte* a, const Byte* b, const Byte* end) {
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

// Takes a round off the places of entries, once they have gone up to the mask: what is too far away
// becomes empty.
void RebaseTable(Entry* table, Entry place) {
  for (std::uint32_t slot = 0; slot < kSlots; ++slot) {
    const Entry distance = place - (table[slot] & kPlaceMask);
    table[slot] = distance > kLzoFarDistance
                      ? 0
                      : (table[slot] & ~kPlaceMask) | (kFirstPlace + kLzoFarDistance - distance);
  }
}

// What is on its way through a frame.
struct Frame {
  const Byte* p;        // the position to be searched
  const Byte* pending;  // the literals from here to p aren't written yet
  const Byte* const end;
  Byte* out;
};

// Searches the positions up to searchEnd, the first of which has the given place.
void CompressStretch(Frame* frame, const Byte* searchEnd, Entry place, Entry* table) {
  const Byte* p = frame->p;
  const Byte* pending = frame->pending;
  const Byte* const end = frame->end;
  Byte* out = frame->out;
  while (p < searchEnd) {
    const std::uint32_t key = LoadU32(p);
    const std::uint32_t hash = Hash(key);
    const std::uint32_t first = hash % kSlots;
    const std::uint32_t second = (hash & kSecondSlotMask) ^ kSecondSlotFlip;
    const Entry entry = (key & ~kPlaceMask) + place;
    // A difference of entries is that of their places as long as the fourth bytes are the same, and
    // else larger than any.
    const Entry back1 = entry - table[first];
    const Entry back2 = entry - table[second];
    const std::uint32_t useSecond =
        Mask(back1 > kPlaceMask) &
        Mask((back1 & kPlaceMask) - (kLzoNearDistance + 1) < kLzoFarDistance - kLzoNearDistance);
    table[Choose(useSecond, second, first)] = entry;
    const Entry back = Choose(useSecond, back2, back1);
    // The distance, or -1 if there is no candidate.
    const auto distance = static_cast<std::int32_t>(
        (back & kPlaceMask) |
        Mask(((back & kPlaceMask) > kLzoNearDistance) & (back > kLzoFarDistance)));
    if (((LoadU32(p - distance) ^ key) & 0xFFFFFF) != 0 || distance < 0) {
      ++p;
      ++place;
      continue;
    }

    const auto count = static_cast<std::size_t>(p - pending);
    if (count <= 16 && end - pending >= 16) [[likely]] {
      const bool head = count > kLzoTrailingLiterals;
      out[-2] = static_cast<Byte>(out[-2] | (head ? 0 : count));
      out[0] = static_cast<Byte>(count - 3);
      out += head;
      Copy16(out, pending);
    } else {
      out = PutLiteralCount(out, count);
      std::memcpy(out, pending, count);
    }
    out += count;
    const std::size_t length = 3 + CommonLength(p - distance + 3, p + 3, end);
    out = PutMatch(out, length, static_cast<std::size_t>(distance));
    p += length;
    place += static_cast<Entry>(length);
    pending = p;
  }
  frame->p = p;
  frame->pending = pending;
  frame->out = out;
}

Byte* CompressFrame(const Byte* in, std::size_t length, Byte* out, Entry* table) {
  Frame frame{in, in, in + length, out};
  if (length > kSearchMargin) {
    std::memset(table, 0, kSlots * sizeof(Entry));
    const Byte* const searchEnd = frame.end - kSearchMargin;
    const Byte* base = in;  // where places start
    frame.p = in + std::min(kFirstSearchPosition, length - kSearchMargin);
    while (true) {
      const Byte* const stretchEnd =
          base + std::min<std::size_t>(static_cast<std::size_t>(searchEnd - base),
                                       kPlaceMask - kFirstPlace);
      CompressStretch(&frame, stretchEnd, kFirstPlace + static_cast<Entry>(frame.p - base), table);
      if (stretchEnd == searchEnd) break;
      RebaseTable(table, kFirstPlace + static_cast<Entry>(frame.p - base));
      base = frame.p - kLzoFarDistance;
    }
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

int LzoBlockCompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                     std::uint64_t* outputLength, void* hashTable) {
  auto* const table = static_cast<Entry*>(hashTable);
  Byte* out = output;
  std::uint64_t room = *outputLength;
  while (inputLength != 0) {
    if (room < kLzoFrameLengthBytes + kWorstCaseExtra) return kLzoOutputFull;
    room -= kLzoFrameLengthBytes;
    const std::uint64_t frameInput =
        std::min({inputLength, kLargestFrameInput, (room - kWorstCaseExtra) * 16 / 17});
    Byte* const frame = out + kLzoFrameLengthBytes;
    Byte* const frameEnd = CompressFrame(input, frameInput, frame, table);
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

}  // namespace kq
