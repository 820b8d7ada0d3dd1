// Searching the extents of one node, for those who walk the tree and those who change it.
#ifndef KQ_SPARSE_EXTENT_SEARCH_H
#define KQ_SPARSE_EXTENT_SEARCH_H

#include <cstdint>

#include "kqsparseformat.h"

namespace kq {

// No overflow: GetNode lets only extents through that end within the numbers.
inline std::int64_t EndOf(const SparseExtent& extent) { return extent.Offset + extent.Length; }

// The first extent for which the test holds, or Count. From the first on it holds for all.
template <class Test>
std::uint32_t FirstExtent(const SparseNode& node, Test test) {
  std::uint32_t first = 0;
  std::uint32_t end = node.Count;
  while (first < end) {
    const std::uint32_t middle = first + (end - first) / 2;
    if (test(node.Extents[middle])) {
      end = middle;
    } else {
      first = middle + 1;
    }
  }
  return first;
}

}  // namespace kq

#endif
