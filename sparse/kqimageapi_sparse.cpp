// The exported functions of sparse files: argument checks, handles, and what a failure leaves.
#include "foundation/object_manager.h"
#include "foundation/status.h"
#include "kqimageapi.h"
#include "sparse/sparse_file.h"

namespace {

constexpr char kModule[] = "kqimageapi";

bool IsMode(std::int32_t mode) {
  return mode >= KQ_SPARSE_CREATE_NEW && mode <= KQ_SPARSE_OPEN_ALWAYS;
}

// A handle's object is kept as what a chain takes it for, which may be handed the handle.
KQStatus CreateHandle(kq::SparseFile* file, std::uint64_t* handle) {
  return kq::ObjectCreate(static_cast<kq::ChainOverlay*>(file), handle);
}
kq::SparseFile* FileOf(void* object) {
  return static_cast<kq::SparseFile*>(static_cast<kq::ChainOverlay*>(object));
}

// What reads and writes have in common: their arguments, and the count that they leave.
template <class Operation>
KQStatus Transfer(std::uint64_t handle, const void* buffer, std::uint32_t size,
                  std::uint32_t* count, Operation operation) {
  if (count != nullptr) *count = 0;
  if (size == 0 || buffer == nullptr || handle == 0) return KQ_FAIL(kInvalidParameter);
  KQ_RETURN_IF_FAILED(
      kq::WithObject(handle, [&](void* object) { return operation(FileOf(object)); }));
  if (count != nullptr) *count = size;
  return kq::Success();
}

}  // namespace

extern "C" {

KQ_API KQStatus KQSparseFileOpen(const char* path, uint8_t openExisting, uint8_t readOnly,
                                 uint16_t cacheNodes, uint64_t* handle) {
  return KQSparseFileOpen2(path,
                           openExisting != 0 ? KQ_SPARSE_OPEN_EXISTING : KQ_SPARSE_CREATE_ALWAYS,
                           readOnly, cacheNodes, handle);
}

KQ_API KQStatus KQSparseFileOpen2(const char* path, int32_t mode, uint8_t readOnly,
                                  uint16_t cacheNodes, uint64_t* handle) {
  if (handle == nullptr) return KQ_FAIL(kInvalidParameter);
  *handle = 0;
  if (path == nullptr || !IsMode(mode)) return KQ_FAIL(kInvalidParameter);
  kq::SparseFileOwner file;
  KQ_RETURN_IF_FAILED(kq::UtSparseFileOpen(path, static_cast<kq::SparseMode>(mode), readOnly != 0,
                                           cacheNodes, &file));
  const KQStatus status = CreateHandle(file.get(), handle);
  if (kq::Failed(status)) {
    // Only a file that had to exist outlives this: in the other modes it goes again, also where it
    // was there before.
    kq::UtSparseFileClose(file.get(), mode != KQ_SPARSE_OPEN_EXISTING);
    return status;
  }
  static_cast<void>(file.release());
  return status;
}

KQ_API KQStatus KQSparseFileRead(uint64_t handle, uint64_t offset, void* buffer, uint32_t size,
                                 uint32_t* bytesRead) {
  return Transfer(handle, buffer, size, bytesRead, [&](kq::SparseFile* file) {
    return kq::SparseFileReadInto(file, offset, buffer, size);
  });
}

KQ_API KQStatus KQSparseFileWrite(uint64_t handle, uint64_t offset, const void* buffer,
                                  uint32_t size, uint32_t* bytesWritten) {
  return Transfer(handle, buffer, size, bytesWritten, [&](kq::SparseFile* file) {
    return kq::SparseFileWriteFrom(file, offset, buffer, size);
  });
}

KQ_API KQStatus KQSparseFileGetNumDataBytes(uint64_t handle, uint64_t* dataBytes) {
  if (dataBytes == nullptr) return KQ_FAIL(kInvalidParameter);
  *dataBytes = 0;
  return kq::WithObject(handle, [&](void* object) {
    *dataBytes = kq::SparseFileDataBytes(FileOf(object));
    return kq::Success();
  });
}

KQ_API KQStatus KQSparseFileClose(uint64_t handle, uint8_t deleteFile) {
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(kq::ObjectTake(handle, &object));
  kq::SparseFileOwner file(FileOf(object));
  const KQStatus status = kq::UtSparseFileClose(file.get(), deleteFile != 0);
  // After a failure the object is abandoned with all that it holds, the open file too: the handle
  // is gone, and closing the file would say that it had been done with.
  if (kq::Failed(status)) static_cast<void>(file.release());
  return status;
}

}  // extern "C"
