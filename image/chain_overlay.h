// What may lie over a chain of image files: a store that takes writes to the volume, and that reads
// of the chain see on top of the files.
//
// A chain knows its overlay by this interface alone. The one kind there is, the sparse file, lives
// in a room that is built upon this one: it is made into an image with the writer here.
//
// An overlay is the object behind a handle of its own until a chain takes it over. From then on the
// chain owns it and closes it. There is no lock here: the lock of the handle, or of the chain's, is
// held for each operation.
#ifndef KQ_IMAGE_CHAIN_OVERLAY_H
#define KQ_IMAGE_CHAIN_OVERLAY_H

#include <cstdint>
#include <memory>

#include "foundation/status.h"

namespace kq {

struct OpenImageFile;

// What a client wants of an overlay at its end.
struct OverlayClosing {
  const char* newImageFile = nullptr;         // the image to make of it; null: none
  const char* comment = nullptr;              // for the image; may be null
  const std::uint8_t* imageId = nullptr;      // 16 bytes; null: a generated one
  const std::uint64_t* sourceSize = nullptr;  // null: the parent's
  bool deleteFile = false;                    // of the overlay itself
};

class ChainOverlay {
 public:
  // Lays what it holds of the size bytes from offset over the buffer, and leaves the rest alone.
  // After a failure the buffer may hold a part.
  virtual KQStatus ReadInto(std::uint64_t offset, void* buffer, std::uint32_t size) = 0;

  // After a failure a part may have been written. -19 it takes no writes.
  virtual KQStatus WriteFrom(std::uint64_t offset, const void* data, std::uint32_t size) = 0;

  // Makes an image of it, as the child of parent, if one is wanted; then closes it and frees the
  // object. Each step runs whatever became of the one before. The status is the first failure's.
  // parent may be null if no image is wanted.
  virtual KQStatus CloseAndFree(const OpenImageFile* parent, const OverlayClosing& closing) = 0;

 protected:
  ~ChainOverlay() = default;
};

// Closes an overlay that nobody asked anything of: it stays on the disk with all its changes.
struct ChainOverlayCloser {
  void operator()(ChainOverlay* overlay) const {
    static_cast<void>(overlay->CloseAndFree(nullptr, {}));
  }
};
using ChainOverlayOwner = std::unique_ptr<ChainOverlay, ChainOverlayCloser>;

}  // namespace kq

#endif
