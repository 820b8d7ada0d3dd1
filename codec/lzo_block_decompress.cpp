#include <cstring>

#include "codec/lzo_block.h"

namespace kq {
namespace {

using Byte = std::uint8_t;

enum class FrameResult { kDone, kOutputFull, kBad };

struct FrameDecoder {
  const Byte* in;
  const Byte* inEnd;
  Byte* outStart;
  Byte* out;
  Byte* outEnd;
  const Byte* lastSourceEnd = nullptr;

  bool Take(std::uint32_t* value) {
    if (in == inEnd) return false;
    *value = *in++;
    return true;
  }

  bool Extended(std::uint64_t base, std::uint64_t* length) {
    std::uint64_t total = base;
    std::uint32_t byte = 0;
    do {
      if (!Take(&byte)) return false;
      total += byte != 0 ? byte : 255;
    } while (byte == 0);
    *length = total;
    return true;
  }

  FrameResult Literals(std::uint64_t count) {
    if (static_cast<std::uint64_t>(inEnd - in) < count) return FrameResult::kBad;
    if (static_cast<std::uint64_t>(outEnd - out) < count) return FrameResult::kOutputFull;
    std::memcpy(out, in, count);
    in += count;
    out += count;
    return FrameResult::kDone;
  }

  FrameResult Copy(const Byte* source, std::uint64_t count) {
    if (static_cast<std::uint64_t>(outEnd - out) < count) return FrameResult::kOutputFull;
    for (; count != 0; --count) *out++ = *source++;
    lastSourceEnd = source;
    return FrameResult::kDone;
  }

  FrameResult CopyBack(std::uint64_t distance, std::uint64_t count) {
    if (static_cast<std::uint64_t>(out - outStart) < distance) return FrameResult::kBad;
    return Copy(out - distance, count);
  }
};

FrameResult DecodeFrame(FrameDecoder* frame) {
  std::uint32_t t = 0;
  bool behindLiterals = false;
  if (frame->in != frame->inEnd && *frame->in > 17) {
    const std::uint64_t count = *frame->in++ - 17u;
    const FrameResult result = frame->Literals(count);
    if (result != FrameResult::kDone) return result;
    behindLiterals = true;
  }
  while (true) {
    if (!frame->Take(&t)) return FrameResult::kBad;
    std::uint64_t length = 0;
    std::uint32_t literals = 0;
    FrameResult result = FrameResult::kDone;
    if (t < 16) {
      if (behindLiterals) {
        if (t == 0 || frame->lastSourceEnd == nullptr) return FrameResult::kBad;
        literals = frame->in[-1] & 3u;
        if (frame->in != frame->inEnd) literals = t & 3u;
        result = frame->Copy(frame->lastSourceEnd, t + 2);
        literals = frame->in[-2] & 3u;
      } else {
        if (t != 0) {
          length = t + 3;
        } else if (!frame->Extended(18, &length)) {
          return FrameResult::kBad;
        }
        result = frame->Literals(length);
        if (result != FrameResult::kDone) return result;
        behindLiterals = true;
        continue;
      }
    } else if (t < 64) {
      const std::uint32_t mask = t < 32 ? 7 : 31;
      length = (t & mask) + 2;
      if ((t & mask) == 0 && !frame->Extended(mask + 2, &length)) return FrameResult::kBad;
      std::uint32_t low = 0;
      std::uint32_t high = 0;
      if (!frame->Take(&low) || !frame->Take(&high)) return FrameResult::kBad;
      literals = low & 3;
      const std::uint64_t part = (low | high << 8) >> 2;
      if (t < 32) {
        const std::uint64_t far = part + ((t & 8) << 11);
        if (far == 0) return FrameResult::kDone;
        result = frame->CopyBack(far + 0x4000, length);
      } else {
        result = frame->CopyBack(part + 1, length);
      }
    } else {
      std::uint32_t next = 0;
      if (!frame->Take(&next)) return FrameResult::kBad;
      literals = t & 3;
      result = frame->CopyBack(((t >> 2) & 7) + next * 8 + 1, (t >> 5) + 1);
    }
    if (result != FrameResult::kDone) return result;
    behindLiterals = literals != 0;
    if (literals != 0) {
      result = frame->Literals(literals);
      if (result != FrameResult::kDone) return result;
    }
  }
}

}  // namespace

int LzoBlockDecompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                       std::uint64_t* outputLength, std::uint64_t* consumed) {
  const std::uint64_t limit = *outputLength;
  std::uint64_t at = 0;
  std::uint64_t done = 0;
  *consumed = 0;
  *outputLength = 0;
  while (inputLength - at >= 3) {
    const std::uint64_t frameLength = input[at] | std::uint64_t{input[at + 1]} << 8 |
                                      std::uint64_t{input[at + 2]} << 16;
    if (frameLength == 0) return kLzoBadStream;
    if (frameLength > inputLength - at - 3) break;
    FrameDecoder frame{input + at + 3, input + at + 3 + frameLength, output + done, output + done,
                       output + limit};
    const FrameResult result = DecodeFrame(&frame);
    if (result == FrameResult::kBad) return kLzoBadStream;
    if (result == FrameResult::kOutputFull) break;
    done = static_cast<std::uint64_t>(frame.out - output);
    at += 3 + frameLength;
  }
  *consumed = at;
  *outputLength = done;
  return kLzoSuccess;
}

}  // namespace kq
