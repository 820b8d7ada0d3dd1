#include <fcntl.h>

#include <cstring>
#include <utility>

#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

constexpr std::uint32_t kNewFileMode = 0644;

// Whether the file is there: it is if it can be opened.
KQStatus LookForFile(const char* path) {
  OSFile* file = nullptr;
  const KQStatus status = OSFileOpen(path, O_RDONLY, 0, &file);
  OSFileClose(file);
  return status;
}

KQStatus OpenByMode(const char* path, SparseMode mode, bool readOnly, OSFileOwner* opened) {
  int flags = O_RDWR | O_CREAT;
  std::uint32_t creationMode = kNewFileMode;
  switch (mode) {
    case SparseMode::kCreateNew:
      flags |= O_EXCL;
      break;
    case SparseMode::kCreateAlways:
      flags |= O_TRUNC;
      break;
    case SparseMode::kOpenExisting:
      flags = readOnly ? O_RDONLY : O_RDWR;
      creationMode = 0;
      break;
    case SparseMode::kOpenAlways:
      break;
  }
  OSFile* file = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(path, flags, creationMode, &file));
  opened->reset(file);
  return Success();
}

KQStatus ReadFileHeader(SparseFile* file) {
  HeapBuffer block = HeapBuffer::AllocateAlignedZeroed(KQ_SPARSE_UNIT, sizeof(SparseHeaderBlock));
  if (!block) return KQ_FAIL(kNotEnoughMemory);
  KQ_RETURN_IF_FAILED(SparseFileReader(file, 0, block.data(), block.size(), nullptr));
  SparseHeaderBlock header;
  std::memcpy(&header, block.data(), sizeof header);
  if (std::memcmp(header.Magic, KQ_SPARSE_MAGIC, sizeof header.Magic) != 0 || header.InUse != 0) {
    return KQ_FAIL(kFileCorrupt);
  }
  file->RootNode = header.RootNode;
  file->DataBytes = header.DataBytes;
  return Success();
}

// A file without extents: the header block, and an empty leaf behind it.
KQStatus WriteEmptyTree(SparseFile* file) {
  file->HeaderInUse = true;
  file->RootNode = sizeof(SparseHeaderBlock);
  KQ_RETURN_IF_FAILED(UpdateFileHeader(file, 1));
  return AllocateNode(file, 0, 1, &file->RootNode);
}

}  // namespace

KQStatus UtSparseFileOpen(const char* path, SparseMode mode, bool readOnly,
                          std::uint16_t cacheNodes, SparseFileOwner* opened) {
  opened->reset();
  SparseFileOwner file = MakeOwned<SparseFile>(cacheNodes);
  if (!file) return KQ_FAIL(kNotEnoughMemory);
  KQ_RETURN_IF_FAILED(MakeSparseGate(&file->Gate));
  const bool opensExisting = mode == SparseMode::kOpenExisting;
  file->ReadOnly = readOnly && opensExisting;

  const KQStatus look = LookForFile(path);
  // A file that is there but can't be looked at for the moment, without memory or a descriptor for
  // it, must not be taken for a new one: what it holds would be overwritten.
  const bool uncertain = Failed(look) && look.status != KQ_STATUS_FILE_NOT_FOUND;
  if (uncertain && mode == SparseMode::kOpenAlways) return look;
  // What kOpenExisting can open was there before, even if it came just now: it is never made anew.
  const bool existed = !Failed(look) || opensExisting;
  KQ_RETURN_IF_FAILED(OpenByMode(path, mode, file->ReadOnly, &file->File));
  if (existed && (opensExisting || mode == SparseMode::kOpenAlways)) {
    KQ_RETURN_IF_FAILED(ReadFileHeader(file.get()));
  } else {
    const KQStatus status = WriteEmptyTree(file.get());
    if (Failed(status)) {
      if (!existed) OSDeleteFileEx(file->File.get());
      return status;
    }
  }
  *opened = std::move(file);
  return Success();
}

}  // namespace kq
