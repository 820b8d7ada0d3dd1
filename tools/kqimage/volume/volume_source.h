// The volume to be imaged: a block device or a regular file, opened read-only.
#ifndef KQIMAGE_VOLUME_VOLUME_SOURCE_H
#define KQIMAGE_VOLUME_VOLUME_SOURCE_H

#include <cstdint>
#include <optional>
#include <string>

#include "kqimage/pieces/data_cells.h"
#include "kqimage/pieces/read_ahead.h"
#include "kqimage/system/unique_fd.h"

namespace kqimage {

// A part of a file or device.
struct Extent {
  std::uint64_t start = 0;
  std::uint64_t length = 0;
};

class VolumeSource {
 public:
  // All of the file or device, or a part of it, which must lie in it.
  explicit VolumeSource(const std::string& path, const std::optional<Extent>& part = {});

  const std::string& Path() const { return path_; }
  std::uint64_t Size() const { return size_; }
  std::uint64_t Start() const { return start_; }  // of the volume in the file or device
  int Fd() const { return fd_.Get(); }

  // Produces the pieces of the volume in order, on a grid of kPieceBytes: every piece begins at a
  // multiple of it. Cells that lie in a hole of the file are not read; neighbours come as one
  // isZero piece, however long. Behind the last byte of a piece its buffer is zero up to the next
  // multiple of kBlockBytes, so that a last stretch can be stored as whole sectors.
  ReadAhead::Producer Pieces() const;

  // The cells of the first size bytes of the volume, at most all of them, that don't lie in a hole.
  // The last one always counts as data, so that a reader notices if the file has become shorter.
  DataCells Cells(std::uint64_t size) const;

 private:
  friend class SourcePieces;

  std::string path_;
  UniqueFd fd_;
  std::uint64_t start_ = 0;
  std::uint64_t size_ = 0;
  bool hasHoles_ = false;  // the file can be asked for its holes
};

}  // namespace kqimage

#endif
