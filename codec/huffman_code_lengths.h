// Code lengths of the Huffman stage from the counts of its symbols.
//
// Which of several equally good codes comes out depends on how ties are broken, that is on the
// order in which the heap moves its entries; the bytes of every stream follow from it. A reader
// does not depend on it.
#ifndef KQ_CODEC_HUFFMAN_CODE_LENGTHS_H
#define KQ_CODEC_HUFFMAN_CODE_LENGTHS_H

#include <cstdint>

namespace kq {

// The 256 byte values and the end symbol.
inline constexpr std::uint32_t kHuffmanMaxSymbols = 257;
// No code that we make is longer.
inline constexpr std::uint32_t kHuffmanLongestCode = 20;

// Memory for the construction. Index 0 is the sentinel, 1 to n are the symbols in order, and behind
// them stand the inner nodes of the tree.
struct HuffmanTreeSpace {
  std::uint32_t weight[2 * kHuffmanMaxSymbols];
  std::uint16_t parent[2 * kHuffmanMaxSymbols];  // 0: none
  std::uint16_t heap[kHuffmanMaxSymbols + 1];
};

// Fills lengths for symbolCount symbols, 1 to kHuffmanMaxSymbols. The sum of all counts must stay
// below 2^23. A single symbol gets the length 0.
void BuildHuffmanCodeLengths(const std::uint32_t* counts, std::uint32_t symbolCount,
                             HuffmanTreeSpace* space, std::uint8_t* lengths);

}  // namespace kq

#endif
