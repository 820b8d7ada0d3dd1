// The decoder of the Huffman stage.
//
// Whatever code lengths a stream claims, a code is found by one rule: from the smallest length up,
// the first at which the next bits, as a number, are below the length's limit. The lookup table
// holds the outcome of that rule for every value of the next bits, for as many symbols as they
// hold whole, so the fast loop and the single step agree on incomplete and on overfull codes too.
// What a table can't tell (a longer code, the end symbol, no code at all) has a count of 0 there
// and is left to the single step.

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "codec/huffman_code_lengths.h"
#include "codec/huffman_stage.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

// Where the decoded bytes stand: behind the tables, up to the work area's end.
constexpr std::uint64_t kDecodedOffset = 0x10000;
static_assert(kHuffmanWorkAreaBytes - kDecodedOffset >= kHuffmanInputLimit,
              "every stream that the encoder makes must decode");

constexpr std::uint32_t kLookupBits = 12;
constexpr std::uint32_t kLookupSize = 1U << kLookupBits;
constexpr std::uint32_t kLookupsPerRefill = 4;
static_assert(kLookupsPerRefill * kLookupBits <= 56, "a refill leaves at least 56 bits");

// An entry of the lookup table: bits 0 to 5 the bits that its symbols take, 6 and 7 how many they
// are (0 to 3), and a byte for each from bit 8 up.
constexpr std::uint32_t kEntryCountShift = 6;
constexpr std::uint32_t kEntryBytesShift = 8;
constexpr std::uint32_t kMaxEntryCount = 3;
constexpr std::uint32_t kMaxLength = 31;  // of 5 bits

std::uint32_t EntryCount(std::uint32_t entry) { return entry >> kEntryCountShift & 3; }

struct DecoderSpace {
  std::uint32_t lookup[kLookupSize];
  std::uint16_t oneSymbol[kLookupSize];  // length in the low byte (0: none), symbol above
  std::uint64_t limit[kMaxLength + 1];   // first code past the last of each length
  std::uint64_t first[kMaxLength + 1];   // first code of each length
  std::uint32_t sortedOffset[kMaxLength + 1];
  std::uint8_t values[256];  // in rising order
  std::uint8_t sorted[256];  // by code; the end symbol is not among them
  std::uint8_t lengths[kHuffmanMaxSymbols];
  std::uint32_t valueCount;
  std::uint32_t shortest;
  std::uint32_t longest;
  std::uint64_t endCode;
};
static_assert(sizeof(DecoderSpace) <= kDecodedOffset);
static_assert(alignof(DecoderSpace) <= kHuffmanWorkAreaAlignment);

// Reads the tables in front of the code bits. Returns how long they are, or 0 if they are bad.
std::uint64_t ReadTables(const std::uint8_t* stream, std::uint64_t streamLength,
                         DecoderSpace* space) {
  if (streamLength == 0) return 0;
  const std::uint32_t groupMask = stream[0];
  std::uint64_t position = 1 + 4 * static_cast<std::uint64_t>(std::popcount(groupMask));
  if (position > streamLength) return 0;
  const std::uint8_t* groupBytes = stream + 1;
  space->valueCount = 0;
  for (std::uint32_t group = 0; group < 8; ++group) {
    if ((groupMask >> group & 1) == 0) continue;
    for (std::uint32_t bits = LoadU32(groupBytes); bits != 0; bits &= bits - 1) {
      const std::uint32_t value = group * 32 + static_cast<std::uint32_t>(std::countr_zero(bits));
      space->values[space->valueCount++] = static_cast<std::uint8_t>(value);
    }
    groupBytes += 4;
  }

  const std::uint32_t symbolCount = space->valueCount + 1;
  const std::uint64_t lengthBytes = (5 * symbolCount + 7) / 8;
  // At least one byte of code bits must follow.
  if (lengthBytes >= streamLength - position) return 0;
  space->shortest = kMaxLength;
  space->longest = 0;
  for (std::uint32_t i = 0; i < symbolCount; ++i) {
    // Five bits may span two bytes; the byte behind the table is in the stream, see above.
    const std::uint8_t* const at = stream + position + 5 * i / 8;
    const std::uint32_t length = static_cast<std::uint32_t>(LoadU16(at)) >> (5 * i % 8) & 31;
    space->lengths[i] = static_cast<std::uint8_t>(length);
    space->shortest = std::min(space->shortest, length);
    space->longest = std::max(space->longest, length);
  }
  if (space->shortest == 0) return 0;
  return position + lengthBytes;
}

void AssignCodes(DecoderSpace* space) {
  std::uint64_t code = 0;
  std::uint32_t sortedCount = 0;
  for (std::uint32_t length = space->shortest; length <= space->longest; ++length) {
    space->first[length] = code;
    space->sortedOffset[length] = sortedCount;
    for (std::uint32_t i = 0; i < space->valueCount; ++i) {
      if (space->lengths[i] != length) continue;
      space->sorted[sortedCount++] = space->values[i];
      ++code;
    }
    // The end symbol comes last of its length, so leaving it out shifts no other symbol.
    if (space->lengths[space->valueCount] == length) space->endCode = code++;
    space->limit[length] = code;
    code <<= 1;
  }
}

void FillOneSymbolTable(DecoderSpace* space) {
  std::uint64_t filled = 0;
  const std::uint32_t longest = std::min(space->longest, kLookupBits);
  for (std::uint32_t length = space->shortest; length <= longest; ++length) {
    const std::uint32_t spare = kLookupBits - length;
    for (std::uint64_t code = space->first[length]; code < space->limit[length]; ++code) {
      // An overfull code runs past the largest number of its length.
      if (filled >= kLookupSize) break;
      std::uint32_t entry = 0;
      if (code != space->endCode) {
        const std::uint64_t index = space->sortedOffset[length] + (code - space->first[length]);
        entry = std::uint32_t{space->sorted[index]} << 8 | length;
      }
      std::fill_n(space->oneSymbol + filled, std::size_t{1} << spare,
                  static_cast<std::uint16_t>(entry));
      filled += std::uint64_t{1} << spare;
    }
  }
  std::fill(space->oneSymbol + filled, space->oneSymbol + kLookupSize, std::uint16_t{0});
}

void FillLookupTable(DecoderSpace* space) {
  for (std::uint32_t bits = 0; bits < kLookupSize; ++bits) {
    std::uint32_t used = 0;
    std::uint32_t count = 0;
    std::uint32_t bytes = 0;
    while (count < kMaxEntryCount) {
      const std::uint32_t one = space->oneSymbol[bits << used & (kLookupSize - 1)];
      const std::uint32_t length = one & 0xFF;
      if (length == 0 || used + length > kLookupBits) break;
      bytes |= (one >> 8) << (8 * count++);
      used += length;
    }
    space->lookup[bits] = bytes << kEntryBytesShift | count << kEntryCountShift | used;
  }
}

struct BitReader {
  const std::uint8_t* next;
  const std::uint8_t* end;
  std::uint64_t bits = 0;  // the next bit is the topmost
  std::uint32_t held = 0;  // how many count; those below are zero or the bits that follow

  void RefillBytes() {
    while (held <= 56 && next != end) {
      bits |= std::uint64_t{*next++} << (56 - held);
      held += 8;
    }
  }
};

// Decodes runs of symbols that the lookup table tells, while neither end is near. Returns where the
// output stands.
std::uint8_t* DecodeFast(const std::uint32_t* lookup, BitReader* reader, std::uint8_t* output,
                         const std::uint8_t* outputEnd) {
  const std::uint8_t* next = reader->next;
  std::uint64_t bits = reader->bits;
  std::uint32_t held = reader->held;
  // Each lookup stores 4 bytes, of which up to 3 count.
  constexpr std::ptrdiff_t kOutputSlack = 4 * kLookupsPerRefill;
  while (reader->end - next >= 8 && outputEnd - output >= kOutputSlack) {
    bits |= __builtin_bswap64(LoadU64(next)) >> held;
    next += (63 - held) >> 3;
    held |= 56;
    std::uint32_t entry = 0;
    for (std::uint32_t i = 0; i < kLookupsPerRefill; ++i) {
      entry = lookup[bits >> (64 - kLookupBits)];
      StoreU32(output, entry >> kEntryBytesShift);
      output += EntryCount(entry);
      bits <<= entry & 63;
      held -= entry & 63;
    }
    // An entry without symbols takes no bits, so the last lookup has met it if any has.
    if (EntryCount(entry) == 0) break;
  }
  reader->next = next;
  reader->bits = bits;
  reader->held = held;
  return output;
}

}  // namespace

StatusCode HuffmanStageDecode(const std::uint8_t* stream, std::uint64_t streamLength,
                              std::uint8_t* workArea, const std::uint8_t** decoded,
                              std::uint64_t* decodedLength) {
  DecoderSpace* const space = ::new (static_cast<void*>(workArea)) DecoderSpace;
  const std::uint64_t tableLength = ReadTables(stream, streamLength, space);
  if (tableLength == 0) return StatusCode::kInvalidData;
  AssignCodes(space);
  FillOneSymbolTable(space);
  FillLookupTable(space);

  std::uint8_t* const start = workArea + kDecodedOffset;
  const std::uint8_t* const outputEnd = workArea + kHuffmanWorkAreaBytes;
  std::uint8_t* output = start;
  BitReader reader{.next = stream + tableLength, .end = stream + streamLength};
  for (;;) {
    output = DecodeFast(space->lookup, &reader, output, outputEnd);

    reader.RefillBytes();
    std::uint32_t length = space->shortest;
    while (length <= space->longest && reader.bits >> (64 - length) >= space->limit[length]) {
      ++length;
    }
    if (length > space->longest || length > reader.held) return StatusCode::kInvalidData;
    const std::uint64_t code = reader.bits >> (64 - length);
    if (code == space->endCode) break;
    if (output == outputEnd) return StatusCode::kNotEnoughMemory;
    *output++ = space->sorted[space->sortedOffset[length] + (code - space->first[length])];
    reader.bits <<= length;
    reader.held -= length;
  }
  *decoded = start;
  *decodedLength = static_cast<std::uint64_t>(output - start);
  return StatusCode::kSuccess;
}

}  // namespace kq
