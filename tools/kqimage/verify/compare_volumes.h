// The two sides of a comparison: a chain of images, or a volume as it lies on a device or in a
// file.
//
// A chain hides damage as zeros, so it is verified first, and what is lost of it is left out of the
// comparison instead of being taken for data.
#ifndef KQIMAGE_VERIFY_COMPARE_VOLUMES_H
#define KQIMAGE_VERIFY_COMPARE_VOLUMES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kqimage/image/chain_readers.h"
#include "kqimage/password/password_options.h"
#include "kqimage/pieces/data_cells.h"
#include "kqimage/pieces/volume_pieces.h"
#include "kqimage/verify/range_log.h"
#include "kqimage/verify/range_set.h"
#include "kqimage/volume/volume_source.h"

namespace kqimage {

class ComparedSide {
 public:
  // An image if its name ends as one, or the file begins as one; else a volume. Throws a Failure if
  // it can't be opened, read back, or named in full.
  ComparedSide(const std::string& path, const std::vector<std::string>& folders);

  const std::string& Path() const { return path_; }
  bool IsChain() const { return !chain_.empty(); }
  const Chain& Files() const { return chain_; }

  // Opens a chain whose password, if it needs one, is this; to be called before what follows.
  void Open(const char* password, const std::function<void()>& interrupt);

  std::uint64_t Size() const;

  // What can't be read, in order.
  const std::vector<VolumeRange>& Lost() const { return lost_; }

  // In which cells of the first size bytes there may be data; none if that can't be told.
  std::optional<DataCells> Cells(std::uint64_t size) const;

  // Ways to read the volume, each for a thread of its own.
  std::vector<ReadVolume> Ways() const;

  // True if a wrong password would not have been noticed.
  bool TakesAnyPassword() const { return readers_ && readers_->First().TakesAnyPassword(); }

 private:
  std::string path_;
  Chain chain_;
  std::optional<VolumeSource> source_;
  std::optional<ChainReaders> readers_;
  std::vector<VolumeRange> lost_;
};

struct Comparison {
  std::uint64_t sizes[2] = {};
  RangeLog different;  // of the bytes that both have
  RangeSet unknown;    // lost on one side
  bool IsSame() const { return sizes[0] == sizes[1] && different.IsEmpty() && unknown.IsEmpty(); }
  bool IsDifferent() const { return sizes[0] != sizes[1] || !different.IsEmpty(); }
};

// Byte by byte. Of the ranges that differ, so many are kept. Progress is called with the bytes that
// are done; what it throws ends the work.
Comparison Compare(const ComparedSide& a, const ComparedSide& b, std::size_t mostRanges,
                   const std::function<void(std::uint64_t)>& progress);

}  // namespace kqimage

#endif
