#include "kqimage/mount/sparse_lock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

SparseLock::SparseLock(const std::string& path)
    : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  if (!file_) FailErrno(errno, "open the sparse file", path);
  if (flock(file_.Get(), LOCK_EX | LOCK_NB) == 0) return;
  if (errno != EWOULDBLOCK) FailErrno(errno, "lock the sparse file", path);
  throw Failure(
      fmt::format("{} is in use: it is mounted, or being turned into an image", Printable(path)));
}

void SparseLock::Flush() const {
  if (fsync(file_.Get()) != 0) FailErrno(errno, "flush", path_);
}

}  // namespace kqimage
