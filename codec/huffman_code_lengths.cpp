#include "codec/huffman_code_lengths.h"

#include <algorithm>

namespace kq {
namespace {

// A weight holds a count above its low 8 bits and the depth of the node's subtree in them, so that
// of two nodes with equal counts the flatter one is taken first.
constexpr std::uint32_t kDepthBits = 8;
constexpr std::uint32_t kDepthMask = (1U << kDepthBits) - 1;

std::uint32_t JoinWeights(std::uint32_t a, std::uint32_t b) {
  return ((a & ~kDepthMask) + (b & ~kDepthMask)) | (1 + std::max(a & kDepthMask, b & kDepthMask));
}

// A binary heap over the nodes with the smallest weight at index 1. The sentinel at index 0 weighs
// less than any node, which ends the way up.
class NodeHeap {
 public:
  explicit NodeHeap(HuffmanTreeSpace* space) : weight_(space->weight), heap_(space->heap) {
    weight_[0] = 0;
    heap_[0] = 0;
  }

  std::uint32_t size() const { return size_; }

  void Insert(std::uint32_t node) {
    std::uint32_t place = ++size_;
    while (weight_[node] < weight_[heap_[place >> 1]]) {
      heap_[place] = heap_[place >> 1];
      place >>= 1;
    }
    heap_[place] = static_cast<std::uint16_t>(node);
  }

  std::uint32_t TakeSmallest() {
    const std::uint32_t smallest = heap_[1];
    const std::uint16_t moved = heap_[size_--];
    std::uint32_t place = 1;
    for (;;) {
      std::uint32_t child = place << 1;
      if (child > size_) break;
      if (child < size_ && weight_[heap_[child + 1]] < weight_[heap_[child]]) ++child;
      // Not "at most": an entry sinks below a child of its own weight.
      if (weight_[moved] < weight_[heap_[child]]) break;
      heap_[place] = heap_[child];
      place = child;
    }
    heap_[place] = moved;
    return smallest;
  }

 private:
  std::uint32_t* weight_;
  std::uint16_t* heap_;
  std::uint32_t size_ = 0;
};

void BuildTree(std::uint32_t symbolCount, HuffmanTreeSpace* space) {
  NodeHeap heap(space);
  for (std::uint32_t symbol = 1; symbol <= symbolCount; ++symbol) {
    space->parent[symbol] = 0;
    heap.Insert(symbol);
  }
  std::uint32_t node = symbolCount;
  while (heap.size() > 1) {
    const std::uint32_t first = heap.TakeSmallest();
    const std::uint32_t second = heap.TakeSmallest();
    ++node;
    space->parent[first] = static_cast<std::uint16_t>(node);
    space->parent[second] = static_cast<std::uint16_t>(node);
    space->parent[node] = 0;
    space->weight[node] = JoinWeights(space->weight[first], space->weight[second]);
    heap.Insert(node);
  }
}

std::uint32_t LinksToRoot(const HuffmanTreeSpace& space, std::uint32_t symbol) {
  std::uint32_t links = 0;
  for (std::uint32_t node = symbol; space.parent[node] != 0; node = space.parent[node]) ++links;
  return links;
}

}  // namespace

void BuildHuffmanCodeLengths(const std::uint32_t* counts, std::uint32_t symbolCount,
                             HuffmanTreeSpace* space, std::uint8_t* lengths) {
  for (std::uint32_t i = 0; i < symbolCount; ++i) {
    space->weight[i + 1] = std::max(counts[i], 1U) << kDepthBits;
  }
  for (;;) {
    BuildTree(symbolCount, space);
    std::uint32_t longest = 0;
    for (std::uint32_t i = 0; i < symbolCount; ++i) {
      const std::uint32_t links = LinksToRoot(*space, i + 1);
      longest = std::max(longest, links);
      lengths[i] = static_cast<std::uint8_t>(links);
    }
    if (longest <= kHuffmanLongestCode) return;
    // Halved counts flatten the tree.
    for (std::uint32_t symbol = 1; symbol <= symbolCount; ++symbol) {
      space->weight[symbol] = ((space->weight[symbol] >> (kDepthBits + 1)) + 1) << kDepthBits;
    }
  }
}

}  // namespace kq
