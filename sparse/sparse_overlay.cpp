// The sparse file as the overlay of a chain.
#include "sparse/convert_sparse.h"
#include "sparse/sparse_file.h"

namespace kq {

KQStatus SparseFile::ReadInto(std::uint64_t offset, void* buffer, std::uint32_t size) {
  return SparseFileReadInto(this, offset, buffer, size);
}

KQStatus SparseFile::WriteFrom(std::uint64_t offset, const void* data, std::uint32_t size) {
  return SparseFileWriteFrom(this, offset, data, size);
}

KQStatus SparseFile::CloseAndFree(const OpenImageFile* parent, const OverlayClosing& closing) {
  const SparseFileOwner file(this);
  KQStatus converted = Success();
  if (closing.newImageFile != nullptr) {
    converted = BuildIncrementalFromSparse(
        this, *parent,
        {closing.newImageFile, closing.comment, closing.imageId, closing.sourceSize});
  }
  // Whatever became of the image, the file is closed as the client wishes, and freed even where
  // that fails: no handle leads to it any more.
  const KQStatus closed = UtSparseFileClose(this, closing.deleteFile);
  return Failed(converted) ? converted : closed;
}

}  // namespace kq
