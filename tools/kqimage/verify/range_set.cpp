#include "kqimage/verify/range_set.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace kqimage {
namespace {

std::uint64_t EndOf(const VolumeRange& range) {
  const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - range.offset;
  return range.offset + std::min(range.length, room);
}

}  // namespace

void RangeSet::Add(const VolumeRange& range) {
  std::uint64_t start = range.offset;
  std::uint64_t end = EndOf(range);
  if (start >= end) return;
  auto next = ends_.upper_bound(start);
  if (next != ends_.begin() && std::prev(next)->second >= start) --next;
  while (next != ends_.end() && next->first <= end) {
    start = std::min(start, next->first);
    end = std::max(end, next->second);
    next = ends_.erase(next);
  }
  ends_.emplace_hint(next, start, end);
}

void RangeSet::Remove(const VolumeRange& range) {
  const std::uint64_t start = range.offset;
  const std::uint64_t end = EndOf(range);
  if (start >= end) return;
  auto next = ends_.upper_bound(start);
  if (next != ends_.begin() && std::prev(next)->second > start) --next;
  while (next != ends_.end() && next->first < end) {
    const auto [oldStart, oldEnd] = *next;
    next = ends_.erase(next);
    if (oldStart < start) ends_.emplace(oldStart, start);
    if (oldEnd > end) ends_.emplace(end, oldEnd);
  }
}

void RangeSet::CutAt(std::uint64_t offset) {
  Remove({offset, std::numeric_limits<std::uint64_t>::max()});
}

std::uint64_t RangeSet::TotalBytes() const {
  std::uint64_t total = 0;
  for (const auto& [start, end] : ends_) total += end - start;
  return total;
}

std::vector<VolumeRange> RangeSet::Ranges() const {
  std::vector<VolumeRange> ranges;
  ranges.reserve(ends_.size());
  for (const auto& [start, end] : ends_) ranges.push_back({start, end - start});
  return ranges;
}

}  // namespace kqimage
