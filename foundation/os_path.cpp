#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/os_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqos_linux";
constexpr std::size_t kMaxPathLength = 4096;

}  // namespace

KQStatus OSGetFullPath(const char* path, HeapString* fullPath) {
  fullPath->reset();
  if (path == nullptr) return KQ_FAIL(kInvalidParameter);
  HeapString resolved(realpath(path, nullptr));
  if (!resolved) return KQ_FAIL_ERRNO(errno);
  struct stat64 found;
  if (stat64(resolved.get(), &found) != 0) return KQ_FAIL_ERRNO(errno);
  if (!S_ISDIR(found.st_mode)) {
    *fullPath = std::move(resolved);
    return Success();
  }

  // The last character is not looked at: the root directory comes out as "//", which names the same
  // directory and keeps what is built on the result uniform.
  const std::size_t length = strnlen(resolved.get(), kMaxPathLength);
  HeapString withSlash(static_cast<char*>(std::malloc(length + 2)));
  if (!withSlash) return KQ_FAIL(kNotEnoughMemory);
  std::memcpy(withSlash.get(), resolved.get(), length);
  withSlash.get()[length] = '/';
  withSlash.get()[length + 1] = '\0';
  *fullPath = std::move(withSlash);
  return Success();
}

KQStatus OSDeleteFileEx(const OSFile* file) {
  if (file == nullptr || file->path == nullptr) return KQ_FAIL(kInvalidParameter);
  if (unlink(file->path) != 0) return KQ_FAIL_ERRNO(errno);
  return Success();
}

}  // namespace kq
