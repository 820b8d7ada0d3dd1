// The encoder of the Huffman stage: one pass to count, one to code.
//
// Both passes are bound by the latency of one chain of instructions if written plainly. So the
// count is kept in several tables, where a run of one value does not wait for its own last store,
// and as many codes as are sure to fit the accumulator are joined before bytes leave it. The length
// of the stream, which is known from the counts, is the only check of room. Measured on LZO streams
// of text, records and machine code (bench/huffman_bench.cpp): 0.6 to 0.83 GB/s.

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>

#include "codec/huffman_code_lengths.h"
#include "codec/huffman_stage.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

constexpr std::uint32_t kCountTables = 4;

// A code and its length in one word, so that the coding loop loads once a symbol.
constexpr std::uint32_t kCodeShift = 8;
constexpr std::uint32_t kLengthMask = (1U << kCodeShift) - 1;

// What the encoder keeps in the work area below the LZO stream.
struct EncoderSpace {
  std::uint32_t partialCounts[kCountTables][256];
  std::uint32_t counts[kHuffmanMaxSymbols];  // of the used symbols, in rising order, end last
  std::uint8_t values[256];                  // byte value of each used symbol but the end
  std::uint8_t lengths[kHuffmanMaxSymbols];
  std::uint32_t codes[256];  // by byte value
  HuffmanTreeSpace tree;
};
static_assert(sizeof(EncoderSpace) <= kHuffmanInputOffset);
static_assert(alignof(EncoderSpace) <= kHuffmanWorkAreaAlignment);

void CountBytes(const std::uint8_t* input, std::uint64_t length, EncoderSpace* space) {
  std::memset(space->partialCounts, 0, sizeof space->partialCounts);
  auto& partial = space->partialCounts;
  const std::uint8_t* const end = input + length;
  for (; end - input >= 8; input += 8) {
    std::uint64_t eight = LoadU64(input);
    for (std::uint32_t i = 0; i < 8; ++i) {
      ++partial[i % kCountTables][eight & 0xFF];
      eight >>= 8;
    }
  }
  for (; input != end; ++input) ++partial[0][*input];
}

// Writes bits into bytes, the least significant bit first: the form of the length table.
class LengthWriter {
 public:
  explicit LengthWriter(std::uint8_t* output) : output_(output) {}

  void Put(std::uint32_t length) {
    bits_ |= length << held_;
    for (held_ += 5; held_ >= 8; held_ -= 8) {
      *output_++ = static_cast<std::uint8_t>(bits_);
      bits_ >>= 8;
    }
  }

  std::uint8_t* Finish() {
    if (held_ != 0) *output_++ = static_cast<std::uint8_t>(bits_);
    return output_;
  }

 private:
  std::uint8_t* output_;
  std::uint32_t bits_ = 0;
  std::uint32_t held_ = 0;
};

// Writes codes into bytes, the most significant bit first: the form of the code bits.
class CodeWriter {
 public:
  explicit CodeWriter(std::uint8_t* output) : output_(output) {}

  const std::uint8_t* position() const { return output_; }

  // Joins a code; the caller sees to it that all the codes joined between two flushes fit 64 bits
  // together with the 7 that a flush may leave.
  void Join(std::uint32_t code) {
    bits_ = (bits_ << (code & kLengthMask)) | (code >> kCodeShift);
    held_ += code & kLengthMask;
  }

  // Lets the whole bytes leave with one store of 8 bytes. At least one bit must be held.
  void FlushWide() {
    StoreU64(output_, __builtin_bswap64(bits_ << (64 - held_)));
    output_ += held_ >> 3;
    held_ &= 7;
  }

  void FlushBytes() {
    while (held_ >= 8) {
      held_ -= 8;
      *output_++ = static_cast<std::uint8_t>(bits_ >> held_);
    }
  }

  // One more byte always leaves: the last bits padded with zeros, or a zero byte if the codes ended
  // on a byte boundary.
  void Finish() { *output_++ = static_cast<std::uint8_t>(held_ == 0 ? 0 : bits_ << (8 - held_)); }

 private:
  std::uint8_t* output_;
  std::uint64_t bits_ = 0;  // the low held_ bits count
  std::uint32_t held_ = 0;
};

// Codes as many symbols as possible, symbolsPerFlush at a time, while a store of 8 bytes stays
// below the limit. Returns where it stopped.
template <std::uint32_t symbolsPerFlush>
const std::uint8_t* CodeGroups(const std::uint8_t* input, const std::uint8_t* end,
                               const std::uint32_t* codes, const std::uint8_t* limit,
                               CodeWriter* writer) {
  CodeWriter local = *writer;
  while (end - input >= symbolsPerFlush && limit - local.position() >= 8) {
    for (std::uint32_t i = 0; i < symbolsPerFlush; ++i) local.Join(codes[input[i]]);
    local.FlushWide();
    input += symbolsPerFlush;
  }
  *writer = local;
  return input;
}

void CodeBytes(const std::uint8_t* input, std::uint64_t inputLength, std::uint32_t longestLength,
               const std::uint32_t* codes, std::uint32_t endCode, std::uint8_t* output,
               const std::uint8_t* outputEnd) {
  const std::uint8_t* const end = input + inputLength;
  CodeWriter writer(output);
  if (longestLength <= (64 - 7) / 4) {
    input = CodeGroups<4>(input, end, codes, outputEnd, &writer);
  } else if (longestLength <= (64 - 7) / 3) {
    input = CodeGroups<3>(input, end, codes, outputEnd, &writer);
  } else {
    input = CodeGroups<2>(input, end, codes, outputEnd, &writer);
  }
  for (; input != end; ++input) {
    writer.Join(codes[*input]);
    writer.FlushBytes();
  }
  writer.Join(endCode);
  writer.FlushBytes();
  writer.Finish();
}

// What is known of the stream before it is written.
struct StreamPlan {
  std::uint32_t symbolCount;  // the end symbol among them
  std::uint8_t bitmap[32];
  std::uint32_t groupMask;
  std::uint32_t longestLength;  // of the bytes; that of the end symbol doesn't matter
  std::uint64_t length;
};

// Counts the input, builds the code lengths and so knows the exact length of the stream.
StreamPlan PlanStream(const std::uint8_t* input, std::uint64_t inputLength, EncoderSpace* space) {
  CountBytes(input, inputLength, space);
  std::array<std::uint32_t, 256> byteCounts;
  for (std::uint32_t value = 0; value < 256; ++value) {
    byteCounts[value] = 0;
    for (const auto& table : space->partialCounts) byteCounts[value] += table[value];
  }
  // The byte behind an input of such a length has always been counted too, and streams are compared
  // byte for byte, so it stays: it adds a symbol or changes a weight, and a decoder doesn't care.
  // Behind an input that fills the work area there is no byte.
  const bool countsByteBehind =
      inputLength > 8 && inputLength % 8 == 0 && inputLength < kHuffmanInputLimit;
  const std::uint8_t byteBehind = countsByteBehind ? input[inputLength] : 0;

  StreamPlan plan = {};
  for (std::uint32_t value = 0; value < 256; ++value) {
    const std::uint32_t count =
        byteCounts[value] + (countsByteBehind && value == byteBehind ? 1U : 0U);
    if (count == 0) continue;
    plan.groupMask |= 1U << value / 32;
    plan.bitmap[value >> 3] =
        static_cast<std::uint8_t>(plan.bitmap[value >> 3] | 1U << (value & 7));
    space->values[plan.symbolCount] = static_cast<std::uint8_t>(value);
    space->counts[plan.symbolCount++] = count;
  }
  space->counts[plan.symbolCount++] = 1;  // the end symbol
  BuildHuffmanCodeLengths(space->counts, plan.symbolCount, &space->tree, space->lengths);

  std::uint64_t codeBits = space->lengths[plan.symbolCount - 1];
  for (std::uint32_t i = 0; i + 1 < plan.symbolCount; ++i) {
    codeBits += std::uint64_t{byteCounts[space->values[i]]} * space->lengths[i];
    plan.longestLength = std::max<std::uint32_t>(plan.longestLength, space->lengths[i]);
  }
  const auto groups = static_cast<std::uint32_t>(std::popcount(plan.groupMask));
  plan.length = 1 + 4 * groups + (5 * plan.symbolCount + 7) / 8 + codeBits / 8 + 1;
  return plan;
}

// Writes what stands in front of the code bits and returns where it ends.
std::uint8_t* WriteTables(const StreamPlan& plan, const EncoderSpace& space, std::uint8_t* output) {
  *output++ = static_cast<std::uint8_t>(plan.groupMask);
  const std::uint8_t* group = plan.bitmap;
  for (std::uint32_t mask = plan.groupMask; mask != 0; mask >>= 1, group += 4) {
    if ((mask & 1) == 0) continue;
    std::memcpy(output, group, 4);
    output += 4;
  }
  LengthWriter lengthWriter(output);
  for (std::uint32_t i = 0; i < plan.symbolCount; ++i) lengthWriter.Put(space.lengths[i]);
  return lengthWriter.Finish();
}

// Fills the codes of the bytes and returns that of the end symbol.
std::uint32_t AssignCodes(const StreamPlan& plan, EncoderSpace* space) {
  std::uint32_t endCode = 0;
  std::uint32_t code = 0;
  for (std::uint32_t length = 1; length <= kHuffmanLongestCode; ++length, code <<= 1) {
    for (std::uint32_t i = 0; i < plan.symbolCount; ++i) {
      if (space->lengths[i] != length) continue;
      const std::uint32_t entry = code++ << kCodeShift | length;
      if (i + 1 < plan.symbolCount) {
        space->codes[space->values[i]] = entry;
      } else {
        endCode = entry;
      }
    }
  }
  return endCode;
}

}  // namespace

bool HuffmanStageEncode(std::uint8_t* workArea, std::uint64_t inputLength, std::uint8_t* output,
                        std::uint64_t capacity, std::uint64_t* outputLength) {
  const std::uint8_t* const input = workArea + kHuffmanInputOffset;
  EncoderSpace* const space = ::new (static_cast<void*>(workArea)) EncoderSpace;
  const StreamPlan plan = PlanStream(input, inputLength, space);
  if (plan.length > capacity) return false;
  std::uint8_t* const codeBits = WriteTables(plan, *space, output);
  const std::uint32_t endCode = AssignCodes(plan, space);
  CodeBytes(input, inputLength, plan.longestLength, space->codes, endCode, codeBits,
            output + capacity);
  *outputLength = plan.length;
  return true;
}

}  // namespace kq
