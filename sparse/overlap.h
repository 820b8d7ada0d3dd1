// What an extent and a range of the volume have in common.
#ifndef KQ_SPARSE_OVERLAP_H
#define KQ_SPARSE_OVERLAP_H

#include <algorithm>
#include <cstdint>

#include "kqsparseformat.h"

namespace kq {

// A range as the tree counts: offsets of the volume are signed.
struct VolumeRange {
  std::int64_t start = 0;
  std::int64_t end = 0;
};

// False: the range goes beyond the largest signed number. Its end is that number then.
inline bool MakeVolumeRange(std::uint64_t offset, std::uint32_t size, VolumeRange* range) {
  range->start = static_cast<std::int64_t>(offset);
  if (!__builtin_add_overflow(range->start, size, &range->end)) return true;
  range->end = INT64_MAX;
  return false;
}

struct Overlap {
  std::uint64_t position = 0;      // in the file
  std::uint64_t bufferOffset = 0;  // from the range's start
  std::uint64_t length = 0;

  bool ContinuesWith(const Overlap& next) const {
    return position + length == next.position && bufferOffset + length == next.bufferOffset;
  }
};

// False: they have nothing in common.
inline bool OverlapOf(const SparseExtent& extent, const VolumeRange& range, Overlap* overlap) {
  const std::int64_t extentStart = extent.Offset;
  const std::int64_t start = std::max(range.start, extentStart);
  const std::int64_t end = std::min(range.end, extentStart + std::int64_t{extent.Length});
  if (end <= start) return false;
  // The position is the file's word and may be any number; the transfers notice an impossible one.
  overlap->position = extent.Position + static_cast<std::uint64_t>(start - extentStart);
  overlap->bufferOffset = static_cast<std::uint64_t>(start - range.start);
  overlap->length = static_cast<std::uint64_t>(end - start);
  return true;
}

}  // namespace kq

#endif
