#include "codec/huffman_decoder_tables.h"

#include <algorithm>
#include <bit>
#include <cstddef>

#include "foundation/little_endian.h"

namespace kq {
namespace {

void AssignCodes(HuffmanDecoderTables* tables) {
  std::uint64_t code = 0;
  std::uint32_t sortedCount = 0;
  for (std::uint32_t length = tables->shortest; length <= tables->longest; ++length) {
    tables->first[length] = code;
    tables->sortedOffset[length] = sortedCount;
    for (std::uint32_t i = 0; i < tables->valueCount; ++i) {
      if (tables->lengths[i] != length) continue;
      tables->sorted[sortedCount++] = tables->values[i];
      ++code;
    }
    // The end symbol comes last of its length, so leaving it out shifts no other symbol.
    if (tables->lengths[tables->valueCount] == length) tables->endCode = code++;
    tables->limit[length] = code;
    code <<= 1;
  }
}

void FillOneSymbolTable(HuffmanDecoderTables* tables) {
  std::uint64_t filled = 0;
  const std::uint32_t longest = std::min(tables->longest, kHuffmanLookupBits);
  for (std::uint32_t length = tables->shortest; length <= longest; ++length) {
    const std::size_t width = std::size_t{1} << (kHuffmanLookupBits - length);
    for (std::uint64_t code = tables->first[length]; code < tables->limit[length]; ++code) {
      // An overfull code runs past the largest number of its length.
      if (filled >= kHuffmanLookupSize) break;
      std::uint32_t entry = 0;
      if (code != tables->endCode) {
        entry = std::uint32_t{HuffmanByteOf(*tables, length, code)} << 8 | length;
      }
      std::fill_n(tables->oneSymbol + filled, width, static_cast<std::uint16_t>(entry));
      filled += width;
    }
  }
  std::fill(tables->oneSymbol + filled, tables->oneSymbol + kHuffmanLookupSize, std::uint16_t{0});
}

void FillLookupTable(HuffmanDecoderTables* tables) {
  for (std::uint32_t bits = 0; bits < kHuffmanLookupSize; ++bits) {
    std::uint32_t used = 0;
    std::uint32_t count = 0;
    std::uint32_t bytes = 0;
    while (count < kHuffmanEntryMaxCount) {
      const std::uint32_t one = tables->oneSymbol[bits << used & (kHuffmanLookupSize - 1)];
      const std::uint32_t length = one & 0xFF;
      if (length == 0 || used + length > kHuffmanLookupBits) break;
      bytes |= (one >> 8) << (8 * count++);
      used += length;
    }
    tables->lookup[bits] =
        bytes << kHuffmanEntryBytesShift | count << kHuffmanEntryCountShift | used;
  }
}

}  // namespace

std::uint64_t ReadHuffmanTables(const std::uint8_t* stream, std::uint64_t streamLength,
                                HuffmanDecoderTables* tables) {
  if (streamLength == 0) return 0;
  const std::uint32_t groupMask = stream[0];
  const std::uint64_t position = 1 + 4 * static_cast<std::uint64_t>(std::popcount(groupMask));
  if (position > streamLength) return 0;
  const std::uint8_t* groupBytes = stream + 1;
  tables->valueCount = 0;
  for (std::uint32_t group = 0; group < 8; ++group) {
    if ((groupMask >> group & 1) == 0) continue;
    for (std::uint32_t bits = LoadU32(groupBytes); bits != 0; bits &= bits - 1) {
      const std::uint32_t value = group * 32 + static_cast<std::uint32_t>(std::countr_zero(bits));
      tables->values[tables->valueCount++] = static_cast<std::uint8_t>(value);
    }
    groupBytes += 4;
  }

  const std::uint32_t symbolCount = tables->valueCount + 1;
  const std::uint64_t lengthBytes = (5 * symbolCount + 7) / 8;
  if (lengthBytes >= streamLength - position) return 0;
  tables->shortest = kHuffmanLongestStoredLength;
  tables->longest = 0;
  for (std::uint32_t i = 0; i < symbolCount; ++i) {
    // Five bits may span two bytes; the byte behind the last of the lengths is in the stream.
    const std::uint8_t* const at = stream + position + 5 * i / 8;
    const std::uint32_t length = static_cast<std::uint32_t>(LoadU16(at)) >> (5 * i % 8) & 31;
    tables->lengths[i] = static_cast<std::uint8_t>(length);
    tables->shortest = std::min(tables->shortest, length);
    tables->longest = std::max(tables->longest, length);
  }
  if (tables->shortest == 0) return 0;

  AssignCodes(tables);
  FillOneSymbolTable(tables);
  FillLookupTable(tables);
  return position + lengthBytes;
}

}  // namespace kq
