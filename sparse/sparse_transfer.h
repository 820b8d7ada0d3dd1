// Transfers between a sparse file and memory.
//
// The file is read and written in multiples of 4096 bytes, at positions and addresses that are
// multiples of 4096; what is not so goes through a buffer that lives for one call. A transfer that
// fails is tried again, up to 100 times in all and without delay, and the number of attempts is
// logged. Failures are -8 for such a buffer and else the last attempt's.
#ifndef KQ_SPARSE_SPARSE_TRANSFER_H
#define KQ_SPARSE_SPARSE_TRANSFER_H

#include <cstdint>

#include "foundation/status.h"

namespace kq {

struct SparseFile;

// Reads length bytes at position, neither of which needs any alignment. Bytes behind the file's end
// are no failure: they are zero if the read went through a buffer of its own, and else the caller's
// buffer keeps what it has there. count, which may be null, receives length on success.
KQStatus SparseFileReader(SparseFile* file, std::uint64_t position, void* buffer,
                          std::uint64_t length, std::uint64_t* count);

// The same, but *delivered tells how many of the length bytes the file really has.
KQStatus ReadWhatIsThere(SparseFile* file, std::uint64_t position, void* buffer,
                         std::uint64_t length, std::uint64_t* delivered);

// Writes length bytes at position; both are multiples of 4096, the address need not be.
KQStatus SparseFileWriter_BufferAddressHelper(SparseFile* file, std::uint64_t position,
                                              const void* buffer, std::uint64_t length);

// Where data goes.
enum class TransferTo : std::uint8_t {
  kPosition,  // over what is there; a position at the very end of the file appends
  kEnd,       // behind all else, filled up with zero to the next multiple of 4096
};

// Writes data. -1392 the file's size is no multiple of 4096, the position lies behind it, or the
// units at the edges of an unaligned range are not all there. *written, which may be null, receives
// the data's position on success.
KQStatus SparseFileTransfer(SparseFile* file, std::uint64_t position, const void* data,
                            std::uint64_t length, TransferTo to, std::uint64_t* written);

// Writes the header block from the values in memory. -19 the file is read-only.
KQStatus UpdateFileHeader(SparseFile* file, std::uint8_t inUse);

// Before a node is written over: sees to it that the header block on disk has InUse 1.
KQStatus MarkFileInUse(SparseFile* file);

}  // namespace kq

#endif
