// Ranges as they are found from the volume's begin to its end.
//
// Two volumes that have nothing in common differ in a range for every few hundred bytes. So only
// the first ones are kept, as many as are wanted; all are counted.
#ifndef KQIMAGE_VERIFY_RANGE_LOG_H
#define KQIMAGE_VERIFY_RANGE_LOG_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kqimage/verify/range_set.h"

namespace kqimage {

class RangeLog {
 public:
  explicit RangeLog(std::size_t mostKept = SIZE_MAX) : mostKept_(mostKept) {}

  // A range behind all others; one that touches the last is a part of it.
  void Add(const VolumeRange& range) {
    if (count_ == 0 || range.offset != end_) {
      ++count_;
      if (first_.size() < mostKept_) first_.push_back({range.offset, 0});
    }
    if (first_.size() == count_) first_.back().length += range.length;
    end_ = range.offset + range.length;
    totalBytes_ += range.length;
  }

  bool IsEmpty() const { return count_ == 0; }
  std::uint64_t Count() const { return count_; }
  std::uint64_t TotalBytes() const { return totalBytes_; }

  // Those that are kept, in order.
  const std::vector<VolumeRange>& First() const { return first_; }

 private:
  std::size_t mostKept_;
  std::vector<VolumeRange> first_;
  std::uint64_t count_ = 0;
  std::uint64_t end_ = 0;  // of the last range
  std::uint64_t totalBytes_ = 0;
};

}  // namespace kqimage

#endif
