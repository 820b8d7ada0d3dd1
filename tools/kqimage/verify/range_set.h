// A set of bytes of a volume, kept as the ranges that they form.
#ifndef KQIMAGE_VERIFY_RANGE_SET_H
#define KQIMAGE_VERIFY_RANGE_SET_H

#include <cstdint>
#include <map>
#include <vector>

namespace kqimage {

struct VolumeRange {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;

  bool operator==(const VolumeRange&) const = default;
};

class RangeSet {
 public:
  // A range that reaches beyond the largest offset is cut there.
  void Add(const VolumeRange& range);
  void Remove(const VolumeRange& range);

  // Removes all from the offset on.
  void CutAt(std::uint64_t offset);

  bool IsEmpty() const { return ends_.empty(); }
  std::uint64_t TotalBytes() const;

  // In order, neighbours joined.
  std::vector<VolumeRange> Ranges() const;

 private:
  std::map<std::uint64_t, std::uint64_t> ends_;  // by start; no two touch
};

}  // namespace kqimage

#endif
