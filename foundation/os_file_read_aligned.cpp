// The aligned read moves the file's position, but never reads at it: pread64 takes the offset along
// with the call, so two threads on one file can't get each other's bytes.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/os_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqos";
constexpr std::size_t kBounceAlignment = 4096;

// Reads until length bytes have come or the file ends. A failure takes back what has come: who
// asked for it does not know that it is there, and it may be a key blob.
KQStatus ReadAt(const OSFile* file, std::uint64_t offset, void* buffer, std::uint64_t length,
                std::uint64_t* bytesRead) {
  // The seek asks the file system whether it takes the offset at all, and refuses pipes: pread64
  // alone answers an offset beyond the largest file with an end of file. A seek that fails with an
  // errno of 0 counts as done, as everywhere.
  if (lseek64(file->fd, static_cast<off64_t>(offset), SEEK_SET) < 0) {
    KQ_RETURN_IF_FAILED(KQ_FAIL_ERRNO(errno));
  }
  auto* to = static_cast<std::uint8_t*>(buffer);
  std::uint64_t done = 0;
  while (done < length) {
    const ssize_t count =
        pread64(file->fd, to + done, length - done, static_cast<off64_t>(offset + done));
    if (count == 0) break;
    if (count > 0) {
      done += static_cast<std::uint64_t>(count);
    } else if (errno != EINTR) {
      const int error = errno;
      Wipe(buffer, done);
      return KQ_FAIL_ERRNO(error);
    }
  }
  *bytesRead = done;
  return Success();
}

}  // namespace

KQStatus OSFileReadAligned(const OSAlignedFile& file, std::uint64_t offset, void* buffer,
                           std::uint32_t length, std::uint32_t* bytesRead) {
  *bytesRead = 0;
  if (buffer == nullptr) return KQ_FAIL(kInvalidParameter);
  if (length == 0) return Success();

  const std::uint64_t blockSize = file.blockSize;
  const std::uint64_t rest = offset % blockSize;
  std::uint64_t count = 0;
  if (rest == 0 && length % blockSize == 0 &&
      reinterpret_cast<std::uintptr_t>(buffer) % blockSize == 0) {
    // A short count is no failure here, while it is one below. Both are relied upon: who reads
    // headers checks the count, who reads chunks trusts the status.
    KQ_RETURN_IF_FAILED(ReadAt(file.file, offset, buffer, length, &count));
    *bytesRead = static_cast<std::uint32_t>(count);
    return Success();
  }

  // Both summands are below 2^32, so the size can't overflow. The range is compared from the
  // bounce buffer's start, because offset + length may.
  const std::uint64_t rangeEnd = rest + length;
  const std::uint64_t bounceSize = (rangeEnd + blockSize - 1) / blockSize * blockSize;
  HeapBuffer bounce = HeapBuffer::AllocateAligned(kBounceAlignment, bounceSize);
  if (!bounce) return KQ_FAIL(kNotEnoughMemory);
  KQ_RETURN_IF_FAILED(ReadAt(file.file, offset - rest, bounce.data(), bounceSize, &count));
  // Key blobs come this way, wanted or not. What the file did not hold was not touched.
  bounce.WipeWhenFreed(count);
  if (count < rangeEnd) return KQ_FAIL(kGenFailure);
  std::memcpy(buffer, bounce.data() + rest, length);
  *bytesRead = length;
  return Success();
}

}  // namespace kq
