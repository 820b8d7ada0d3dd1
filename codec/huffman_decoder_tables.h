// What the decoder of the Huffman stage knows of a stream's code, in the first bytes of the work
// area.
//
// Whatever code lengths a stream claims, a code is found by one rule: from the smallest length up,
// the first at which the next bits, as a number, are below the length's limit. The lookup tables
// hold the outcome of that rule for every value of the next bits, so they agree with it on
// incomplete and on overfull codes too. What a table can't tell (a longer code, the end symbol, no
// code at all) is an entry of 0 there.
#ifndef KQ_CODEC_HUFFMAN_DECODER_TABLES_H
#define KQ_CODEC_HUFFMAN_DECODER_TABLES_H

#include <cstdint>

#include "codec/huffman_code_lengths.h"

namespace kq {

inline constexpr std::uint32_t kHuffmanLookupBits = 12;
inline constexpr std::uint32_t kHuffmanLookupSize = 1U << kHuffmanLookupBits;
inline constexpr std::uint32_t kHuffmanLongestStoredLength = 31;  // of 5 bits

struct HuffmanDecoderTables {
  // For the next bits all symbols, up to 3, that they hold whole: bits 0 to 5 tell the bits that
  // those take, 6 and 7 how many they are, and their bytes stand from bit 8 up.
  std::uint32_t lookup[kHuffmanLookupSize];
  // The first symbol alone: its length in the low byte, its byte above.
  std::uint16_t oneSymbol[kHuffmanLookupSize];

  std::uint64_t limit[kHuffmanLongestStoredLength + 1];  // first code past the last of a length
  std::uint64_t first[kHuffmanLongestStoredLength + 1];  // first code of a length
  std::uint32_t sortedOffset[kHuffmanLongestStoredLength + 1];
  std::uint64_t endCode;
  std::uint32_t shortest;
  std::uint32_t longest;
  std::uint32_t valueCount;
  std::uint8_t values[256];  // in rising order
  std::uint8_t sorted[256];  // by code; the end symbol is not among them
  std::uint8_t lengths[kHuffmanMaxSymbols];
};

inline constexpr std::uint32_t kHuffmanEntryBitsMask = 63;
inline constexpr std::uint32_t kHuffmanEntryCountShift = 6;
inline constexpr std::uint32_t kHuffmanEntryBytesShift = 8;
inline constexpr std::uint32_t kHuffmanEntryMaxCount = 3;

// Reads the tables in front of the code bits, behind which at least one byte stands, and fills
// all of the record. Returns how long they are, or 0 if the stream is bad.
std::uint64_t ReadHuffmanTables(const std::uint8_t* stream, std::uint64_t streamLength,
                                HuffmanDecoderTables* tables);

// The length of the code that the bits begin with, the first of them topmost; 0 if there is none.
inline std::uint32_t FindHuffmanCode(const HuffmanDecoderTables& tables, std::uint64_t bits) {
  for (std::uint32_t length = tables.shortest; length <= tables.longest; ++length) {
    if (bits >> (64 - length) < tables.limit[length]) return length;
  }
  return 0;
}

// The byte of a code that was found and is not the end symbol's.
inline std::uint8_t HuffmanByteOf(const HuffmanDecoderTables& tables, std::uint32_t length,
                                  std::uint64_t code) {
  return tables.sorted[tables.sortedOffset[length] + (code - tables.first[length])];
}

}  // namespace kq

#endif
