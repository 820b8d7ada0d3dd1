#include "kqimage/system/read_at.h"

#include <unistd.h>

#include <cerrno>

#include "kqimage/terminal/failure.h"

namespace kqimage {

std::size_t ReadAt(int fd, std::uint64_t offset, std::span<std::byte> bytes,
                   std::string_view name) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t got =
        pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) FailErrno(errno, "read", name);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

}  // namespace kqimage
