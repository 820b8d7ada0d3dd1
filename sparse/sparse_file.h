// A sparse file: byte ranges of a volume at their volume offsets, in one file that can be read and
// rewritten in place (docs/sparse-format.md).
//
// A SparseFile is owned by its handle, or by the chain that took the handle over and lays it over
// its image files (image/chain_overlay.h; sparse_overlay.cpp). Nothing here has a lock: the
// handle's lock, or the chain's, is held for each operation, and a close runs when its caller is
// alone with the object. Memory is ahead of the file: RootNode and DataBytes in the header block
// and changed nodes are written when a node leaves the cache and at the close. Data is written at
// once.
//
// On a clean file the header block has InUse 0. The first changed node that is written sets it to
// 1, and only the close sets it to 0 again; a file with InUse 1 is not opened.
#ifndef KQ_SPARSE_SPARSE_FILE_H
#define KQ_SPARSE_SPARSE_FILE_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/os_file.h"
#include "foundation/status.h"
#include "image/chain_overlay.h"
#include "sparse/node_cache.h"
#include "sparse/sparse_gate.h"

namespace kq {

// How KQSparseFileOpen2 opens.
enum class SparseMode : std::int32_t {
  kCreateNew = 1,     // fails if the file exists
  kCreateAlways = 2,  // truncates a file that exists
  kOpenExisting = 3,
  kOpenAlways = 4,  // creates the file if it doesn't exist
};

struct SparseFile final : ChainOverlay {
  explicit SparseFile(std::uint16_t cacheNodes) : Nodes(cacheNodes) {}

  SparseGateOwner Gate;         // may be empty, see MakeSparseGate
  OSFileOwner File;             // empty once closed
  std::uint64_t RootNode = 0;   // file offset of the root
  std::uint64_t DataBytes = 0;  // sum of the lengths of all extents ever added
  NodeCache Nodes;
  bool HeaderInUse = false;  // the header block on disk has InUse 1
  bool ReadOnly = false;

  KQStatus ReadInto(std::uint64_t offset, void* buffer, std::uint32_t size) override;
  KQStatus WriteFrom(std::uint64_t offset, const void* data, std::uint32_t size) override;
  KQStatus CloseAndFree(const OpenImageFile* parent, const OverlayClosing& closing) override;
};

using SparseFileOwner = Owned<SparseFile>;

// Opens or creates (sparse_open.cpp). readOnly counts with kOpenExisting only; cacheNodes 0 means
// 1. A file that was made is removed again on a failure.
// -1392 no sparse file, or one that was not closed cleanly; -8; or what the file gives.
KQStatus UtSparseFileOpen(const char* path, SparseMode mode, bool readOnly,
                          std::uint16_t cacheNodes, SparseFileOwner* opened);

// Lays what the file holds of the size bytes from offset over the buffer, and leaves the rest of it
// alone (sparse_read.cpp). After a failure the buffer may hold a part.
KQStatus SparseFileReadInto(SparseFile* file, std::uint64_t offset, void* buffer,
                            std::uint32_t size);

// Writes size bytes at offset (sparse_write.cpp). After a failure a part may have been written.
// -19 the file is read-only; -87 the range goes beyond the largest signed offset.
KQStatus SparseFileWriteFrom(SparseFile* file, std::uint64_t offset, const void* data,
                             std::uint32_t size);

// DataBytes, through the gate (sparse_close.cpp).
std::uint64_t SparseFileDataBytes(SparseFile* file);

// Writes all that is pending and marks the file clean, or, with deleteFile, removes it as it is
// (sparse_close.cpp). The object stays with the caller, and without a file afterwards.
//
// A failure is logged, and ends the close: the file stays open with the nodes that have not been
// written yet. Who destroys the object then, closes the file as it is; on the disk it is in use,
// and no open accepts it, unless nothing had been changed.
KQStatus UtSparseFileClose(SparseFile* file, bool deleteFile);

}  // namespace kq

#endif
