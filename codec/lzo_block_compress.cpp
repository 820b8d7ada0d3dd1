#include <algorithm>
#include <cstring>

#include "codec/lzo_block.h"

namespace kq {
namespace {

using Byte = std::uint8_t;

constexpr std::uint64_t kFrameLengthBytes = 3;
constexpr std::uint64_t kLargestFrameInput = 0xFFFFFF;
constexpr std::uint64_t kWorstCaseSlack = 67;
constexpr std::uint64_t kSearchMargin = 13;
constexpr std::uint64_t kFirstSearchPosition = 4;
constexpr std::uint64_t kNearDistance = 0x800;
constexpr std::uint64_t kMiddleDistance = 0x4000;
constexpr std::uint64_t kLargestDistance = 0xBFFF;
constexpr std::uint64_t kLongestNearMatch = 8;
constexpr std::uint32_t kSlotMask = 0x7FFF;

Byte* PutExtension(Byte* out, std::uint64_t rest) {
  for (; rest > 255; rest -= 255) *out++ = 0;
  *out++ = static_cast<Byte>(rest);
  return out;
}

Byte* PutLiterals(Byte* out, const Byte* from, std::uint64_t count) {
  if (count == 0) return out;
  if (count <= 3) {
    out[-2] = static_cast<Byte>(out[-2] | count);
  } else if (count <= 18) {
    *out++ = static_cast<Byte>(count - 3);
  } else {
    *out++ = 0;
    out = PutExtension(out, count - 18);
  }
  std::memcpy(out, from, count);
  return out + count;
}

Byte* PutMatch(Byte* out, std::uint64_t length, std::uint64_t distance) {
  if (length <= kLongestNearMatch && distance <= kNearDistance) {
    --distance;
    *out++ = static_cast<Byte>((length - 1) << 5 | (distance & 7) << 2);
    *out++ = static_cast<Byte>(distance >> 3);
    return out;
  }
  std::uint64_t code = 32;
  std::uint64_t direct = 33;
  if (distance <= kMiddleDistance) {
    --distance;
  } else {
    distance -= kMiddleDistance;
    code = 16 | (distance & 0x4000) >> 11;
    direct = 9;
  }
  if (length <= direct) {
    *out++ = static_cast<Byte>(code | (length - 2));
  } else {
    *out++ = static_cast<Byte>(code);
    out = PutExtension(out, length - direct);
  }
  *out++ = static_cast<Byte>(distance << 2);
  *out++ = static_cast<Byte>(distance >> 6);
  return out;
}

Byte* CompressFrame(const Byte* in, std::uint64_t length, Byte* out, const Byte** table) {
  const Byte* const end = in + length;
  const Byte* pending = in;
  Byte* const start = out;
  const auto usable = [in](const Byte* candidate, const Byte* position) {
    return candidate >= in && candidate < position &&
           static_cast<std::uint64_t>(position - candidate) <= kLargestDistance;
  };
  const auto promising = [](const Byte* candidate, const Byte* position) {
    return static_cast<std::uint64_t>(position - candidate) <= kNearDistance ||
           candidate[3] == position[3];
  };
  if (length > kSearchMargin) {
    const Byte* const searchEnd = end - kSearchMargin;
    const Byte* p = in + kFirstSearchPosition;
    while (p < searchEnd) {
      const std::uint32_t mixed =
          (((std::uint32_t{p[3]} << 6 ^ p[2]) << 5 ^ p[1]) << 5 ^ p[0]) * 33 >> 5;
      std::uint32_t slot = mixed & kSlotMask;
      const Byte* candidate = table[slot];
      bool found = usable(candidate, p);
      if (found && !promising(candidate, p)) {
        slot = (slot & 0x7FF) ^ 0x401F;
        candidate = table[slot];
        found = usable(candidate, p) && promising(candidate, p);
      }
      table[slot] = p;
      if (!found || std::memcmp(candidate, p, 3) != 0) {
        ++p;
        continue;
      }
      out = PutLiterals(out, pending, static_cast<std::uint64_t>(p - pending));
      const Byte* matched = p + 3;
      const Byte* source = candidate + 3;
      while (matched < end && *matched == *source) {
        ++matched;
        ++source;
      }
      out = PutMatch(out, static_cast<std::uint64_t>(matched - p),
                     static_cast<std::uint64_t>(p - candidate));
      p = matched;
      pending = p;
    }
  }
  const auto tail = static_cast<std::uint64_t>(end - pending);
  if (out == start && tail <= 238) {
    *out++ = static_cast<Byte>(17 + tail);
    std::memcpy(out, pending, tail);
    out += tail;
  } else {
    out = PutLiterals(out, pending, tail);
  }
  *out++ = 0x11;
  *out++ = 0;
  *out++ = 0;
  return out;
}

}  // namespace

int LzoBlockCompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                     std::uint64_t* outputLength, void* hashTable) {
  Byte* out = output;
  std::uint64_t room = *outputLength;
  while (inputLength != 0) {
    if (room < kFrameLengthBytes + kWorstCaseSlack) return kLzoOutputFull;
    room -= kFrameLengthBytes;
    const std::uint64_t frameInput =
        std::min({inputLength, kLargestFrameInput, (room - kWorstCaseSlack) * 16 / 17});
    Byte* const frame = out + kFrameLengthBytes;
    Byte* const frameEnd =
        CompressFrame(input, frameInput, frame, static_cast<const Byte**>(hashTable));
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
