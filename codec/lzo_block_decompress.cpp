#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "codec/lzo_block.h"
#include "codec/lzo_format.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

using Byte = std::uint8_t;

enum class Outcome { kGoOn, kEndMarker, kOutputFull, kBad };

// A frame being decoded, standing before an instruction.
struct Frame {
  const Byte* in;
  const Byte* const inEnd;
  Byte* out;
  Byte* const outStart;             // of this frame's output: no match reaches further back
  Byte* const outEnd;               // of the caller's room: nothing is ever written from here on
  const Byte* sourceEnd = nullptr;  // of the last match; null before the first
  bool behindLiterals = false;      // the instruction follows literals, so it must be a match

  std::size_t InLeft() const { return static_cast<std::size_t>(inEnd - in); }
  std::size_t OutLeft() const { return static_cast<std::size_t>(outEnd - out); }
  std::size_t OutDone() const { return static_cast<std::size_t>(out - outStart); }
};

// ---- The careful way: one instruction, every byte checked before it is touched. ----

// Adds up an extension, which stands for a length field of 0.
bool TakeExtension(Frame* frame, std::size_t* length) {
  while (frame->in != frame->inEnd) {
    const Byte byte = *frame->in++;
    if (byte != 0) {
      *length += byte;
      return true;
    }
    *length += 255;
  }
  return false;
}

// Room comes before presence, as in other decoders of the format.
Outcome CopyLiterals(Frame* frame, std::size_t count) {
  if (count > frame->OutLeft()) return Outcome::kOutputFull;
  if (count > frame->InLeft()) return Outcome::kBad;
  std::memcpy(frame->out, frame->in, count);
  frame->in += count;
  frame->out += count;
  frame->behindLiterals = true;
  return Outcome::kGoOn;
}

Outcome CopyFrom(Frame* frame, const Byte* source, std::size_t count) {
  if (count > frame->OutLeft()) return Outcome::kOutputFull;
  Byte* out = frame->out;
  // A source that overlaps the target repeats itself, so each step has twice the last one's bytes
  // to copy from. A match that fills the output's end comes here: of a chunk that is one pattern,
  // or ends in zeros, it is nearly all.
  const auto distance = static_cast<std::size_t>(out - source);
  for (std::size_t done = 0; done < count;) {
    const std::size_t step = std::min(count - done, distance + done);
    std::memcpy(out + done, source, step);
    done += step;
  }
  frame->out = out + count;
  frame->sourceEnd = source + count;
  const std::size_t trailing = frame->in[-2] & kLzoTrailingLiterals;
  frame->behindLiterals = false;
  return trailing != 0 ? CopyLiterals(frame, trailing) : Outcome::kGoOn;
}

Outcome CopyMatch(Frame* frame, std::size_t distance, std::size_t length) {
  if (distance > frame->OutDone()) return Outcome::kBad;
  return CopyFrom(frame, frame->out - distance, length);
}

// An instruction below 16 behind literals. Elsewhere it is a short match with a distance of its
// own; this format has none, and what the instruction does instead is fixed: it copies on from
// where the last match's source ended. Streams of other compressors that use short matches come out
// as they always did, and 0 or the lack of a last match ends them.
Outcome ContinueLastMatch(Frame* frame, std::uint32_t t) {
  if (t == 0 || frame->sourceEnd == nullptr) return Outcome::kBad;
  return CopyFrom(frame, frame->sourceEnd, t + 2);
}

Outcome DecodeInstruction(Frame* frame) {
  if (frame->in == frame->inEnd) return Outcome::kBad;
  const std::uint32_t t = *frame->in++;
  if (t >= kLzoNearCode) {
    if (frame->in == frame->inEnd) return Outcome::kBad;
    const std::size_t high = *frame->in++;
    return CopyMatch(frame, (t >> 2 & 7) + high * 8 + 1, (t >> 5) + 1);
  }
  if (t < kLzoFarCode) {
    if (frame->behindLiterals) return ContinueLastMatch(frame, t);
    std::size_t length = t + 3;
    if (t == 0) {
      length = kLzoShortRun;
      if (!TakeExtension(frame, &length)) return Outcome::kBad;
    }
    return CopyLiterals(frame, length);
  }
  const bool far = t < kLzoMiddleCode;
  const std::uint32_t field = t & (far ? 7 : 31);
  std::size_t length = field + 2;
  if (field == 0) {
    length = far ? kLzoFarLength : kLzoMiddleLength;
    if (!TakeExtension(frame, &length)) return Outcome::kBad;
  }
  if (frame->InLeft() < 2) return Outcome::kBad;
  std::size_t distance = LoadU16(frame->in) >> 2;
  frame->in += 2;
  if (far) {
    distance += (t & 8) << 11;
    if (distance == 0) return Outcome::kEndMarker;
    distance += kLzoMiddleDistance;
  } else {
    ++distance;
  }
  return CopyMatch(frame, distance, length);
}

// ---- The fast way: as long as both ends are out of reach of the widest copy. ----

// What one instruction without extension, and a match behind it, can read and write, wide copies
// and all: at most 1 + 32 bytes from a run of literals on, or 19 + 3 + 4; and 18 bytes of literals,
// 48 of a match.
constexpr std::ptrdiff_t kInMargin = 64;
constexpr std::ptrdiff_t kOutMargin = 96;

inline void Copy4(Byte* to, const Byte* from) { StoreU32(to, LoadU32(from)); }
inline void Copy8(Byte* to, const Byte* from) { StoreU64(to, LoadU64(from)); }
inline void Copy16(Byte* to, const Byte* from) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

// Copies in strides of 32, up to 31 bytes too many. The source is at least 16 behind the target, or
// elsewhere.
inline void CopyLong(Byte* to, const Byte* from, std::size_t count) {
  Byte* const end = to + count;
  do {
    Copy16(to, from);
    Copy16(to + 16, from + 16);
    to += 32;
    from += 32;
  } while (to < end);
}

// Distances below 8: eight bytes of the pattern are made at once, by keeping its bytes of the load
// and multiplying them into place. kStride is the longest way that whole patterns go in 8 bytes.
struct ShortPattern {
  std::uint64_t keep;
  std::uint64_t repeat;
  std::size_t stride;
};
constexpr std::array<ShortPattern, 8> kShortPatterns = {{
    {0, 0, 0},
    {0xFF, 0x0101010101010101, 8},
    {0xFFFF, 0x0001000100010001, 8},
    {0xFFFFFF, 0x0001000001000001, 6},
    {0xFFFFFFFF, 0x0000000100000001, 8},
    {0xFFFFFFFFFF, 0x0000010000000001, 5},
    {0xFFFFFFFFFFFF, 0x0001000000000001, 6},
    {0xFFFFFFFFFFFFFF, 0x0100000000000001, 7},
}};

inline std::uint64_t EightOfPattern(const Byte* out, std::size_t distance) {
  const ShortPattern& pattern = kShortPatterns[distance];
  return (LoadU64(out - distance) & pattern.keep) * pattern.repeat;
}

// A match of a distance below 16. Once 16 bytes or more are there, the rest comes from a multiple
// of the distance. Writes at most 47 bytes, or 31 too many.
inline void CopyOverlapping(Byte* out, std::size_t distance, std::size_t length) {
  std::size_t done = 16;
  std::size_t back = 2 * distance;
  if (distance < 8) {
    const std::uint64_t eight = EightOfPattern(out, distance);
    const std::size_t stride = kShortPatterns[distance].stride;
    StoreU64(out, eight);
    StoreU64(out + stride, eight);
    StoreU64(out + 2 * stride, eight);
    StoreU64(out + 3 * stride, eight);
    done = back = 4 * stride;
  } else {
    Copy8(out, out - distance);
    Copy8(out + 8, out + 8 - distance);
  }
  for (; done < length; done += 16) Copy16(out + done, out + done - back);
}

// Decodes instructions until an end comes near or one turns up that is for the careful way. Leaves
// the frame before an instruction.
Outcome DecodeFast(Frame* frame) {
  if (frame->inEnd - frame->in < kInMargin || frame->outEnd - frame->out < kOutMargin) {
    return Outcome::kGoOn;
  }
  const Byte* const inSafe = frame->inEnd - kInMargin;
  Byte* const outSafe = frame->outEnd - kOutMargin;
  Byte* const outStart = frame->outStart;
  const Byte* in = frame->in;
  Byte* out = frame->out;
  const Byte* sourceEnd = frame->sourceEnd;
  std::size_t trailing = frame->behindLiterals ? 1 : 0;
  Outcome outcome = Outcome::kGoOn;

  while (in <= inSafe && out <= outSafe) {
    std::uint32_t t = *in;
    if (t < kLzoFarCode) {
      if (trailing != 0) break;
      if (t != 0) {
        Copy16(out, in + 1);
        Copy16(out + 16, in + 17);
        out += t + 3;
        in += t + 4;
      } else {
        std::size_t length = kLzoShortRun;
        const Byte* from = in + 1;
        for (; *from == 0 && from < inSafe; ++from) length += 255;
        length += *from++;
        if (from[-1] == 0 || static_cast<std::ptrdiff_t>(length) > inSafe - from ||
            static_cast<std::ptrdiff_t>(length) > outSafe - out) {
          break;
        }
        CopyLong(out, from, length);
        out += length;
        in = from + length;
      }
      trailing = 1;
      t = *in;
      if (t < kLzoFarCode) break;
    }

    std::size_t distance;
    if (t >= kLzoNearCode) {
      const std::size_t length = (t >> 5) + 1;
      distance = (t >> 2 & 7) + std::size_t{in[1]} * 8 + 1;
      if (distance > static_cast<std::size_t>(out - outStart)) {
        outcome = Outcome::kBad;
        break;
      }
      trailing = t & kLzoTrailingLiterals;
      in += 2;
      StoreU64(out, distance >= 8 ? LoadU64(out - distance) : EightOfPattern(out, distance));
      out += length;
    } else {
      const bool far = t < kLzoMiddleCode;
      const std::uint32_t mask = far ? 7 : 31;
      std::size_t length = (t & mask) + 2;
      const Byte* after = in + 1;
      if (length == 2) {
        length = mask + 2;
        for (; *after == 0 && after < inSafe; ++after) length += 255;
        length += *after++;
        if (after[-1] == 0 || static_cast<std::ptrdiff_t>(length) > outSafe - out) break;
      }
      const std::uint32_t word = LoadU16(after);
      distance = word >> 2;
      if (far) {
        distance += (t & 8) << 11;
        if (distance == 0) break;
        distance += kLzoMiddleDistance;
      } else {
        ++distance;
      }
      if (distance > static_cast<std::size_t>(out - outStart)) {
        outcome = Outcome::kBad;
        break;
      }
      trailing = word & kLzoTrailingLiterals;
      in = after + 2;
      if (distance >= 16) {
        Copy16(out, out - distance);
        if (length > 16) CopyLong(out + 16, out + 16 - distance, length - 16);
      } else {
        CopyOverlapping(out, distance, length);
      }
      out += length;
    }
    sourceEnd = out - distance;
    Copy4(out, in);
    out += trailing;
    in += trailing;
  }

  frame->in = in;
  frame->out = out;
  frame->sourceEnd = sourceEnd;
  frame->behindLiterals = trailing != 0;
  return outcome;
}

Outcome DecodeFrame(Frame* frame) {
  Outcome outcome = Outcome::kGoOn;
  if (*frame->in > kLzoFirstRunCode) {
    const std::size_t count = *frame->in++ - kLzoFirstRunCode;
    outcome = CopyLiterals(frame, count);
  }
  while (outcome == Outcome::kGoOn) {
    outcome = DecodeFast(frame);
    if (outcome == Outcome::kGoOn) outcome = DecodeInstruction(frame);
  }
  return outcome;
}

}  // namespace

int LzoBlockDecompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                       std::uint64_t* outputLength, std::uint64_t* consumed) {
  Byte* const outputEnd = output + *outputLength;
  *outputLength = 0;
  *consumed = 0;
  while (inputLength - *consumed >= kLzoFrameLengthBytes) {
    const Byte* const head = input + *consumed;
    const std::uint64_t left = inputLength - *consumed - kLzoFrameLengthBytes;
    const std::uint64_t frameLength = LoadU16(head) | std::uint64_t{head[2]} << 16;
    if (frameLength == 0) return kLzoBadStream;
    if (frameLength > left) break;

    const Byte* const stream = head + kLzoFrameLengthBytes;
    Byte* const start = output + *outputLength;
    Frame frame{stream, stream + frameLength, start, start, outputEnd};
    const Outcome outcome = DecodeFrame(&frame);
    if (outcome == Outcome::kBad) return kLzoBadStream;
    if (outcome == Outcome::kOutputFull) break;
    // What a frame holds behind its end marker is ignored.
    *outputLength += frame.OutDone();
    *consumed += kLzoFrameLengthBytes + frameLength;
  }
  return kLzoSuccess;
}

}  // namespace kq
