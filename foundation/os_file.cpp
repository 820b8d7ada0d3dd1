#include "foundation/os_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kq {
namespace {

constexpr char kModule[] = "kqos_linux";

// Looks the file's type up once. A lookup that fails leaves the type open, and the next read tries
// again; until then the file is read like an ordinary one.
bool IsPipe(OSFile* file) {
  if ((file->flags & OSFile::kTypeKnown) == 0) {
    struct stat64 found;
    if (fstat64(file->fd, &found) == 0) {
      file->flags |= OSFile::kTypeKnown;
      if (S_ISFIFO(found.st_mode)) file->flags |= OSFile::kIsPipe;
    }
  }
  return (file->flags & OSFile::kIsPipe) != 0;
}

ssize_t ReadRestarting(int fd, void* buffer, std::size_t length) {
  ssize_t count = 0;
  do {
    count = read(fd, buffer, length);
  } while (count < 0 && errno == EINTR);
  return count;
}

// An errno of 0 makes a success record, so a seek that fails without a reason counts as done.
KQStatus SeekFromStart(const OSFile* file, std::uint64_t offset) {
  if (lseek64(file->fd, static_cast<off64_t>(offset), SEEK_SET) < 0) return KQ_FAIL_ERRNO(errno);
  return Success();
}

}  // namespace

KQStatus OSFileOpen(const char* path, int flags, std::uint32_t mode, OSFile** file) {
  if (file == nullptr) return KQ_FAIL(kInvalidParameter);
  *file = nullptr;
  if (path == nullptr) return KQ_FAIL(kInvalidParameter);

  const std::size_t pathBytes = std::strlen(path) + 1;
  void* memory = std::malloc(sizeof(OSFile) + pathBytes);
  if (memory == nullptr) return KQ_FAIL(kNotEnoughMemory);
  auto* opened = ::new (memory) OSFile{-1, 0, static_cast<char*>(memory) + sizeof(OSFile)};
  std::memcpy(opened->path, path, pathBytes);

  // The mode is handed over even if it is 0: open64 looks at it only where a file is created, and
  // there a mode that is left out would be whatever lies on the stack.
  do {
    opened->fd = open64(path, flags, static_cast<mode_t>(mode));
  } while (opened->fd < 0 && errno == EINTR);
  if (opened->fd < 0) {
    const int error = errno;
    std::free(opened);
    return KQ_FAIL_ERRNO(error);
  }
  *file = opened;
  return Success();
}

void OSFileClose(OSFile* file) {
  if (file == nullptr) return;
  // Nobody takes a lock, but the unlock is part of every close: a file that was locked through an
  // inherited description is let go with it.
  flock(file->fd, LOCK_UN);
  close(file->fd);
  std::free(file);
}

KQStatus OSFileRead(OSFile* file, void* buffer, std::uint64_t length, std::uint64_t* bytesRead) {
  std::uint64_t done = 0;
  if (IsPipe(file)) {
    const ssize_t count = ReadRestarting(file->fd, buffer, length);
    if (count < 0) return KQ_FAIL_ERRNO(errno);
    done = static_cast<std::uint64_t>(count);
  } else {
    auto* to = static_cast<std::uint8_t*>(buffer);
    while (done < length) {
      const ssize_t count = ReadRestarting(file->fd, to + done, length - done);
      if (count < 0) return KQ_FAIL_ERRNO(errno);
      if (count == 0) break;
      done += static_cast<std::uint64_t>(count);
    }
  }
  *bytesRead = done;
  return Success();
}

KQStatus OSFileSeekRead(OSFile* file, std::uint64_t offset, void* buffer, std::uint64_t length,
                        std::uint64_t* bytesRead) {
  KQ_RETURN_IF_FAILED(SeekFromStart(file, offset));
  std::uint64_t count = 0;
  KQ_RETURN_IF_FAILED(OSFileRead(file, buffer, length, &count));
  if (bytesRead != nullptr) *bytesRead = count;
  return Success();
}

KQStatus OSFileSeekWrite(OSFile* file, std::uint64_t offset, const void* buffer,
                         std::uint64_t length) {
  KQ_RETURN_IF_FAILED(SeekFromStart(file, offset));
  const auto* from = static_cast<const std::uint8_t*>(buffer);
  std::uint64_t done = 0;
  while (done < length) {
    const ssize_t count = write(file->fd, from + done, length - done);
    if (count >= 0) {
      done += static_cast<std::uint64_t>(count);
    } else if (errno != EINTR) {
      return KQ_FAIL_ERRNO(errno);
    }
  }
  return Success();
}

KQStatus OSFileGetSize(const OSFile* file, std::uint64_t* size) {
  *size = 0;
  struct stat64 found;
  if (fstat64(file->fd, &found) != 0) return KQ_FAIL_ERRNO(errno);
  *size = static_cast<std::uint64_t>(found.st_size);
  return Success();
}

std::int64_t OSFileGetBlockSize(OSFile* file) {
  constexpr std::size_t kSmallest = 128;
  constexpr std::size_t kLargest = 4096;
  // The read of size s goes to offset s of the buffer, so the memory address is as little aligned
  // as the offset and the length.
  HeapBuffer buffer = HeapBuffer::AllocateAligned(kLargest, 2 * kLargest);
  if (!buffer) {
    errno = ENOMEM;
    return -1;
  }
  std::int64_t found = -1;
  lseek64(file->fd, 0, SEEK_SET);
  for (std::size_t size = kSmallest; size <= kLargest && found < 0; size *= 2) {
    // Of an enciphered image these are bytes of its key blob.
    buffer.WipeWhenFreed(2 * size);
    // A read that meets the end of the file has been accepted all the same.
    if (lseek64(file->fd, static_cast<off64_t>(size), SEEK_SET) >= 0 &&
        ReadRestarting(file->fd, buffer.data() + size, size) >= 0) {
      found = static_cast<std::int64_t>(size);
    }
    lseek64(file->fd, 0, SEEK_SET);
  }
  return found;
}

OSAlignedFile MakeAlignedFile(OSFile* file) {
  OSAlignedFile aligned;
  aligned.file = file;
  const std::int64_t blockSize = OSFileGetBlockSize(file);
  if (blockSize > 0) aligned.blockSize = static_cast<std::uint32_t>(blockSize);
  return aligned;
}

}  // namespace kq
