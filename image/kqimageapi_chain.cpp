// The exported functions of chains: argument checks, handles, and what a failure leaves.
#include <cstring>

#include "foundation/object_manager.h"
#include "foundation/status.h"
#include "image/image_chain.h"
#include "kqimageapi.h"

namespace {

constexpr char kModule[] = "kqimageapi";

kq::ImageChain& ChainOf(void* object) { return *static_cast<kq::ImageChain*>(object); }

}  // namespace

extern "C" {

KQ_API KQStatus KQImageFilesOpen(const char* files, const char* password, uint64_t sparse,
                                 uint64_t* handle) {
  if (handle == nullptr) return KQ_FAIL(kInvalidParameter);
  *handle = 0;
  if (files == nullptr) return KQ_FAIL(kInvalidParameter);
  return kq::ChainOpen(files, password, sparse, handle);
}

KQ_API KQStatus KQImageFilesRead(uint64_t handle, uint64_t offset, void* buffer, uint32_t length,
                                 uint32_t* bytesRead) {
  if (bytesRead != nullptr) *bytesRead = 0;
  if (length == 0 || buffer == nullptr || handle == 0) {
    if (buffer != nullptr) std::memset(buffer, 0, length);
    return KQ_FAIL(kInvalidParameter);
  }
  const KQStatus status = kq::WithObject(handle, [&](void* object) {
    return kq::ChainRead(ChainOf(object), offset, static_cast<std::uint8_t*>(buffer), length);
  });
  if (kq::Failed(status)) {
    // A client never gets half a buffer with a failure.
    std::memset(buffer, 0, length);
    return status;
  }
  if (bytesRead != nullptr) *bytesRead = length;
  return status;
}

KQ_API KQStatus KQImageFilesWrite(uint64_t handle, uint64_t offset, const void* buffer,
                                  uint32_t size, uint32_t* bytesWritten) {
  if (bytesWritten != nullptr) *bytesWritten = 0;
  if (size == 0 || buffer == nullptr || handle == 0) return KQ_FAIL(kInvalidParameter);
  KQ_RETURN_IF_FAILED(kq::WithObject(handle, [&](void* object) {
    const kq::ChainOverlayOwner& overlay = ChainOf(object).Sparse;
    return overlay ? overlay->WriteFrom(offset, buffer, size) : KQ_FAIL(kWriteProtect);
  }));
  if (bytesWritten != nullptr) *bytesWritten = size;
  return kq::Success();
}

KQ_API KQStatus KQImageFilesClose(uint64_t handle, const char* newImageFile, const char* comment,
                                  uint8_t deleteSparse) {
  return KQImageFilesClose2(handle, newImageFile, comment, deleteSparse, nullptr);
}

KQ_API KQStatus KQImageFilesClose2(uint64_t handle, const char* newImageFile, const char* comment,
                                   uint8_t deleteSparse, const uint8_t* imageId) {
  return KQImageFilesClose3(handle, newImageFile, comment, deleteSparse, imageId, nullptr);
}

// All arguments but the handle matter only to a chain with a sparse file.
KQ_API KQStatus KQImageFilesClose3(uint64_t handle, const char* newImageFile, const char* comment,
                                   uint8_t deleteSparse, const uint8_t* imageId,
                                   const uint64_t* sourceSize) {
  return kq::ChainClose(handle, {newImageFile, comment, imageId, sourceSize, deleteSparse != 0});
}

}  // extern "C"
