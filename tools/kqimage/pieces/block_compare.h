// Which stretches of a piece an image has to store.
//
// Both functions work in blocks of kBlockBytes, the unit in which file systems write: storing finer
// pieces would save little and cost a run entry each.
#ifndef KQIMAGE_PIECES_BLOCK_COMPARE_H
#define KQIMAGE_PIECES_BLOCK_COMPARE_H

#include <cstddef>
#include <span>
#include <vector>

namespace kqimage {

// At least every sector size, so that a stretch is a whole number of sectors.
inline constexpr std::size_t kBlockBytes = 4096;

struct Stretch {
  std::size_t offset = 0;  // a multiple of kBlockBytes
  std::size_t length = 0;  // the same, but for a stretch that reaches the end of the piece

  bool operator==(const Stretch&) const = default;
};

bool IsZero(std::span<const std::byte> bytes);

// The stretches of blocks that are not all zero, in order, neighbours joined.
std::vector<Stretch> NonZeroStretches(std::span<const std::byte> bytes);

// The stretches of blocks in which two pieces of equal length differ.
std::vector<Stretch> DifferentStretches(std::span<const std::byte> a, std::span<const std::byte> b);

}  // namespace kqimage

#endif
