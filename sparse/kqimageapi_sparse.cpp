// The exported functions of sparse files, and the write onto a chain: argument checks, handles, and
// what a failure leaves.
#include "foundation/object_manager.h"
#include "foundation/status.h"
#include "image/image_chain.h"
#include "kqimageapi.h"
#include "sparse/sparse_file.h"

namespace {

constexpr char kModule[] = "kqimageapi";

bool IsMode(std::int32_t mode) {
  return mode >= KQ_SPARSE_CREATE_NEW && mode <= KQ_SPARSE_OPEN_ALWAYS;
}

// Runs the operation on the object behind a handle, which is locked meanwhile.
template <class Object, class Operation>
KQStatus WithObject(std::uint64_t handle, Operation operation) {
  kq::ObjectRecord* record = nullptr;
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(kq::ObjectAcquire(handle, 0, &record, &object));
  const KQStatus status = operation(static_cast<Object*>(object));
  kq::ObjectRelease(0, record);
  return status;
}

// What reads and writes have in common: their arguments, and the count that they leave.
template <class Object, class Operation>
KQStatus Transfer(std::uint64_t handle, const void* buffer, std::uint32_t size,
                  std::uint32_t* count, Operation operation) {
  if (count != nullptr) *count = 0;
  if (size == 0 || buffer == nullptr || handle == 0) return KQ_FAIL(kInvalidParameter);
  KQ_RETURN_IF_FAILED(WithObject<Object>(handle, operation));
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
  const KQStatus status = kq::ObjectCreate(file.get(), handle);
  if (kq::Failed(status)) {
    // Only a file that had to exist outlives this: in the other modes it goes again, also where it
    // was there before.
    kq::UtSparseFileClose(file.get(), mode != KQ_SPARSE_OPEN_EXISTING);
    return status;
  }
  file.release();
  return status;
}

KQ_API KQStatus KQSparseFileRead(uint64_t handle, uint64_t offset, void* buffer, uint32_t size,
                                 uint32_t* bytesRead) {
  return Transfer<kq::SparseFile>(handle, buffer, size, bytesRead, [&](kq::SparseFile* file) {
    return kq::SparseFileReadInto(file, offset, buffer, size);
  });
}

KQ_API KQStatus KQSparseFileWrite(uint64_t handle, uint64_t offset, const void* buffer,
                                  uint32_t size, uint32_t* bytesWritten) {
  return Transfer<kq::SparseFile>(handle, buffer, size, bytesWritten, [&](kq::SparseFile* file) {
    return kq::SparseFileWriteFrom(file, offset, buffer, size);
  });
}

KQ_API KQStatus KQSparseFileGetNumDataBytes(uint64_t handle, uint64_t* dataBytes) {
  if (dataBytes == nullptr) return KQ_FAIL(kInvalidParameter);
  *dataBytes = 0;
  return WithObject<kq::SparseFile>(handle, [&](kq::SparseFile* file) {
    *dataBytes = kq::SparseFileDataBytes(file);
    return kq::Success();
  });
}

KQ_API KQStatus KQSparseFileClose(uint64_t handle, uint8_t deleteFile) {
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(kq::ObjectTake(handle, &object));
  kq::SparseFileOwner file(static_cast<kq::SparseFile*>(object));
  const KQStatus status = kq::UtSparseFileClose(file.get(), deleteFile != 0);
  // After a failure the object is abandoned with all that it holds, the open file too: the handle
  // is gone, and closing the file would say that it had been done with.
  if (kq::Failed(status)) file.release();
  return status;
}

KQ_API KQStatus KQImageFilesWrite(uint64_t handle, uint64_t offset, const void* buffer,
                                  uint32_t size, uint32_t* bytesWritten) {
  return Transfer<kq::ImageChain>(handle, buffer, size, bytesWritten, [&](kq::ImageChain* chain) {
    if (chain->Sparse == nullptr) return KQ_FAIL(kWriteProtect);
    return kq::SparseFileWriteFrom(chain->Sparse, offset, buffer, size);
  });
}

}  // extern "C"
