// The thin layer between the library and POSIX files: one file record, one mapping of errno, a
// restart on EINTR, and one read that takes any range of a file into any buffer.
//
// An OSFile is used by one thread at a time for the calls that move its position (OSFileRead,
// OSFileSeekRead, OSFileSeekWrite, OSFileGetBlockSize). OSFileReadAligned reads at a position of
// its own, so any number of threads may call it on one file at once.
#ifndef KQ_FOUNDATION_OS_FILE_H
#define KQ_FOUNDATION_OS_FILE_H

#include <cstdint>
#include <memory>

#include "foundation/memory.h"
#include "foundation/status.h"

namespace kq {

// One heap allocation: the record and behind it a copy of the path.
struct OSFile {
  static constexpr std::uint32_t kTypeKnown = 1;  // the file's type has been looked up
  static constexpr std::uint32_t kIsPipe = 2;     // it is a FIFO

  std::int32_t fd;  // -1 until the open has succeeded
  std::uint32_t flags;
  char* path;  // points behind the record, as given, NUL-terminated
};

// A file with the block size that its aligned reads want.
struct OSAlignedFile {
  OSFile* file = nullptr;          // owned by the owner of the pair
  std::uint32_t blockSize = 4096;  // result of OSFileGetBlockSize, 4096 where that failed
};

// Opens path with open64's flags; mode is used only if it is not 0.
// -87 null path or out pointer; -8; or errno mapped. *file is null on failure.
KQStatus OSFileOpen(const char* path, int flags, std::uint32_t mode, OSFile** file);

// Unlocks, closes and frees. Cannot fail; null is allowed.
void OSFileClose(OSFile* file);

struct OSFileCloser {
  void operator()(OSFile* file) const { OSFileClose(file); }
};
using OSFileOwner = std::unique_ptr<OSFile, OSFileCloser>;

// Reads at the current position until length bytes have come or the file ends; a pipe gives what
// one read gives. *bytesRead is stored on success only.
KQStatus OSFileRead(OSFile* file, void* buffer, std::uint64_t length, std::uint64_t* bytesRead);

// Seeks from the start, then OSFileRead. bytesRead may be null.
KQStatus OSFileSeekRead(OSFile* file, std::uint64_t offset, void* buffer, std::uint64_t length,
                        std::uint64_t* bytesRead);

// Seeks from the start, then writes everything. A length of 0 seeks only.
KQStatus OSFileSeekWrite(OSFile* file, std::uint64_t offset, const void* buffer,
                         std::uint64_t length);

KQStatus OSFileGetSize(const OSFile* file, std::uint64_t* size);

// The smallest of 128, 256, ..., 4096 at which the file can be read, or -1. Leaves the position at
// 0.
std::int64_t OSFileGetBlockSize(OSFile* file);

// A file and its block size, with 4096 where the probe fails.
OSAlignedFile MakeAlignedFile(OSFile* file);

// Reads length bytes from offset into buffer, none of which needs any alignment.
//
// If buffer, offset and length are all multiples of the block size, the read goes straight into the
// buffer, and an end of file gives success with a smaller count. Otherwise it goes through a bounce
// buffer, and a range that the file does not hold whole gives -31. Callers rely on both: header
// code checks the count, chunk code trusts the status.
//
// -87 null buffer; -8; -31; or errno mapped. *bytesRead is 0 on failure. A length of 0 succeeds
// without touching the file.
KQStatus OSFileReadAligned(const OSAlignedFile& file, std::uint64_t offset, void* buffer,
                           std::uint32_t length, std::uint32_t* bytesRead);

// The absolute path; a directory's ends in '/'.
KQStatus OSGetFullPath(const char* path, HeapString* fullPath);

// Removes the file by the record's path; the record stays open.
KQStatus OSDeleteFileEx(const OSFile* file);

}  // namespace kq

#endif
