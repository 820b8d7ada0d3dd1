#include "kqimage/mount/sparse_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageapi.h>
#include <kqsparseformat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

// Each of 8192 bytes, which find 290 extents.
constexpr std::uint16_t kCacheNodes = 1024;

bool IsThere(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

// Whether the file is a sparse file that was not closed.
bool IsLeftOpen(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  char start[offsetof(SparseHeaderBlock, InUse) + 1] = {};
  return file && pread(file.Get(), start, sizeof start, 0) == sizeof start &&
         std::memcmp(start, KQ_SPARSE_MAGIC, sizeof SparseHeaderBlock{}.Magic) == 0 &&
         start[offsetof(SparseHeaderBlock, InUse)] != 0;
}

}  // namespace

std::uint64_t HeldBytes(std::uint64_t handle, const std::string& path) {
  std::uint64_t bytes = 0;
  Check(KQSparseFileGetNumDataBytes(handle, &bytes), "examine the sparse file", path);
  return bytes;
}

std::uint64_t OpenSparse(const std::string& path, SparseAccess access) {
  std::uint64_t handle = 0;
  const KQStatus status =
      KQSparseFileOpen2(path.c_str(), KQ_SPARSE_OPEN_EXISTING,
                        access == SparseAccess::kRead ? 1 : 0, kCacheNodes, &handle);
  if (status.status == KQ_STATUS_FILE_CORRUPT) {
    throw Failure(fmt::format(
        "cannot open the sparse file {}: {} (status {})", Printable(path),
        IsLeftOpen(path) ? "it was left by a mount that was cut short, and what it holds may "
                           "contradict itself"
                         : "it is damaged, or no sparse file",
        status.status));
  }
  Check(status, "open the sparse file", path);
  return handle;
}

SparseFile::SparseFile(const std::string& path, Use use) : path_(path), wasKept_(IsThere(path)) {
  if (wasKept_) {
    if (use == Use::kNew) {
      throw Failure(
          fmt::format("{} holds what was written to an earlier mount: --sparse {} goes on with it, "
                      "another --sparse FILE leaves it alone",
                      Printable(path), Printable(path)));
    }
    isToStay_ = true;
    lock_.emplace(path);
    handle_ = OpenSparse(path, SparseAccess::kWrite);
  } else {
    Check(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_CREATE_NEW, 0, kCacheNodes, &handle_),
          "create the sparse file", path);
    lock_.emplace(path);
  }
  identity_ = IdentityOf(path);
}

SparseFile::~SparseFile() {
  if (handle_ != 0) KQSparseFileClose(handle_, 0);
  if (!isToStay_) Remove();
}

std::uint64_t SparseFile::TakeHandle() { return std::exchange(handle_, 0); }

void SparseFile::Remove() {
  if (identity_ && IdentityOf(path_) == identity_) unlink(path_.c_str());
  isToStay_ = true;  // what takes the name later is not ours
}

}  // namespace kqimage
