// The sparse file that takes the writes to a mounted volume.
#ifndef KQIMAGE_MOUNT_SPARSE_FILE_H
#define KQIMAGE_MOUNT_SPARSE_FILE_H

#include <cstdint>
#include <optional>
#include <string>

#include "kqimage/mount/sparse_lock.h"
#include "kqimage/system/file_identity.h"

namespace kqimage {

// How many bytes of the volume the library's handle of a sparse file holds.
std::uint64_t HeldBytes(std::uint64_t handle, const std::string& path);

// Opens an existing sparse file through the library, and says plainly why one is refused.
enum class SparseAccess { kRead, kWrite };
std::uint64_t OpenSparse(const std::string& path, SparseAccess access);

class SparseFile {
 public:
  // Makes the file, or opens one that was kept. A new one is removed again with the object unless
  // it was told to stay. Throws a Failure.
  enum class Use { kNew, kNewOrKept };
  SparseFile(const std::string& path, Use use);
  ~SparseFile();
  SparseFile(const SparseFile&) = delete;
  SparseFile& operator=(const SparseFile&) = delete;

  // The library's handle, which is the caller's from now on.
  std::uint64_t TakeHandle();

  const std::string& Path() const { return path_; }
  bool WasKept() const { return wasKept_; }

  // From now on the file is worth keeping, whatever happens.
  void Keep() { isToStay_ = true; }

  // Makes durable what the library has written.
  void Flush() const { lock_->Flush(); }

  // Removes the file, unless another one has its name by now.
  void Remove();

 private:
  std::string path_;
  bool wasKept_ = false;
  bool isToStay_ = false;
  std::uint64_t handle_ = 0;
  std::optional<SparseLock> lock_;
  std::optional<FileIdentity> identity_;
};

}  // namespace kqimage

#endif
