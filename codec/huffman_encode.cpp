// The encoder of the Huffman stage: one pass to count, one to code.
//
// Both passes are bound by the latency of one instruction chain if written plainly. The count is
// kept in several tables, so that runs of one value don't wait for their own last store, and as
// many codes as are sure to fit the accumulator are joined before bytes leave it, so that the exact
// size of the stream, known from the counts, is the only check of room.

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
  std::uint8_t* Finish() {
    *output_++ = static_cast<std::uint8_t>(held_ == 0 ? 0 : bits_ << (8 - held_));
    return output_;
  }

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

std::uint8_t* CodeBytes(const std::uint8_t* input, std::uint64_t inputLength,
                        std::uint32_t longestLength, const std::uint32_t* codes,
                        std::uint32_t endCode, std::uint8_t* output,
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
  return writer.Finish();
}

}  // namespace

bool HuffmanStageEncode(std::uint8_t* workArea, std::uint64_t inputLength, std::uint8_t* output,
                        std::uint64_t capacity, std::uint64_t* outputLength) {
  const std::uint8_t* const input = workArea + kHuffmanInputOffset;
  EncoderSpace* const space = ::new (static_cast<void*>(workArea)) EncoderSpace;

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

  std::uint32_t symbolCount = 0;
  std::uint8_t bitmap[32] = {};
  for (std::uint32_t value = 0; value < 256; ++value) {
    const std::uint32_t count =
        byteCounts[value] + (countsByteBehind && value == byteBehind ? 1U : 0U);
    if (count == 0) continue;
    bitmap[value >> 3] = static_cast<std::uint8_t>(bitmap[value >> 3] | 1U << (value & 7));
    space->values[symbolCount] = static_cast<std::uint8_t>(value);
    space->counts[symbolCount++] = count;
  }
  space->counts[symbolCount++] = 1;  // the end symbol
  BuildHuffmanCodeLengths(space->counts, symbolCount, &space->tree, space->lengths);

  std::uint32_t groupMask = 0;
  for (std::uint32_t group = 0; group < 8; ++group) {
    if (LoadU32(bitmap + 4 * group) != 0) groupMask |= 1U << group;
  }
  const std::uint32_t endLength = space->lengths[symbolCount - 1];
  std::uint64_t codeBits = endLength;
  std::uint32_t longestLength = 0;  // of the bytes; that of the end symbol doesn't matter
  for (std::uint32_t i = 0; i + 1 < symbolCount; ++i) {
    codeBits += std::uint64_t{byteCounts[space->values[i]]} * space->lengths[i];
    longestLength = std::max<std::uint32_t>(longestLength, space->lengths[i]);
  }
  const std::uint64_t streamLength = 1 + 4 * static_cast<std::uint64_t>(std::popcount(groupMask)) +
                                     (5 * symbolCount + 7) / 8 + codeBits / 8 + 1;
  if (streamLength > capacity) return false;

  std::uint8_t* next = output;
  *next++ = static_cast<std::uint8_t>(groupMask);
  for (std::uint32_t group = 0; group < 8; ++group) {
    if ((groupMask >> group & 1) == 0) continue;
    std::memcpy(next, bitmap + 4 * group, 4);
    next += 4;
  }
  LengthWriter lengthWriter(next);
  for (std::uint32_t i = 0; i < symbolCount; ++i) lengthWriter.Put(space->lengths[i]);
  next = lengthWriter.Finish();

  std::uint32_t code = 0;
  std::uint32_t endCode = endLength;
  for (std::uint32_t length = 1; length <= kHuffmanLongestCode; ++length, code <<= 1) {
    for (std::uint32_t i = 0; i < symbolCount; ++i) {
      if (space->lengths[i] != length) continue;
      const std::uint32_t entry = code++ << kCodeShift | length;
      if (i + 1 < symbolCount) {
        space->codes[space->values[i]] = entry;
      } else {
        endCode = entry;
      }
    }
  }
  next =
      CodeBytes(input, inputLength, longestLength, space->codes, endCode, next, output + capacity);
  *outputLength = static_cast<std::uint64_t>(next - output);
  return true;
}

}  // namespace kq
