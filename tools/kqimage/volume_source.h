// The volume to be imaged: a block device or a regular file, opened read-only.
#ifndef KQIMAGE_VOLUME_SOURCE_H
#define KQIMAGE_VOLUME_SOURCE_H

#include <cstdint>
#include <string>

#include "kqimage/read_ahead.h"
#include "kqimage/unique_fd.h"

namespace kqimage {

class VolumeSource {
 public:
  explicit VolumeSource(const std::string& path);

  const std::string& Path() const { return path_; }
  std::uint64_t Size() const { return size_; }

  // Produces the pieces of the volume in order, on a grid of kPieceBytes: every piece begins at a
  // multiple of it. A cell that lies in a hole of the file is not read; it comes as an isZero
  // piece. Behind the last byte of a piece its buffer is zero up to the next multiple of
  // kBlockBytes, so that a last stretch can be stored as whole sectors.
  enum class Holes {
    kCellByCell,  // each cell of a hole is a piece
    kJoined,      // neighbouring cells of a hole come as one piece, however long
  };
  ReadAhead::Producer Pieces(Holes holes) const;

 private:
  friend class SourcePieces;

  std::string path_;
  UniqueFd fd_;
  std::uint64_t size_ = 0;
  bool hasHoles_ = false;  // the file can be asked for its holes
};

}  // namespace kqimage

#endif
