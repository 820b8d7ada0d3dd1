#include "foundation/log.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

unsigned StatusNumber(const KQStatus& status) { return static_cast<unsigned>(status.status); }

// Writes a changed node that has left the cache for good.
KQStatus WriteLastTime(SparseFile* file, const CachedNode& node) {
  const KQStatus marked = MarkFileInUse(file);
  if (Failed(marked)) {
    KQLog(
        "UtSparseFileClose call to UpdateFileHeader(pSparseFile, TRUE) failed with status=0x%08X\n",
        StatusNumber(marked));
    return marked;
  }
  const KQStatus written = WriteNode(file, node);
  if (Failed(written)) {
    KQLog("UtSparseFileClose call to OSFileSeekWrite failed with status=0x%08X\n",
          StatusNumber(written));
  }
  return written;
}

KQStatus RemoveFile(const SparseFile* file) {
  const KQStatus removed = OSDeleteFileEx(file->File.get());
  if (Failed(removed)) {
    KQLog("UtSparseFileClose call to OSDeleteFileEx failed with status=0x%08X\n",
          StatusNumber(removed));
  }
  return removed;
}

KQStatus MarkFileClean(SparseFile* file) {
  const KQStatus marked = UpdateFileHeader(file, 0);
  if (Failed(marked)) {
    KQLog(
        "UtSparseFileClose call to UpdateFileHeader(pSparseFile, FALSE) failed with "
        "status=0x%08X\n",
        StatusNumber(marked));
    return marked;
  }
  file->HeaderInUse = false;
  return marked;
}

KQStatus FinishFile(SparseFile* file, bool deleteFile) {
  const bool writes = !deleteFile && !file->ReadOnly;
  while (CachedNode* first = file->Nodes.first()) {
    const Owned<CachedNode> node = file->Nodes.Remove(first);
    if (writes && node->Dirty) KQ_RETURN_IF_FAILED(WriteLastTime(file, *node));
  }
  if (deleteFile) KQ_RETURN_IF_FAILED(RemoveFile(file));
  if (writes) KQ_RETURN_IF_FAILED(MarkFileClean(file));
  file->File.reset();
  return Success();
}

}  // namespace

std::uint64_t SparseFileDataBytes(SparseFile* file) {
  const SparseGatePass pass(file->Gate.get());
  return file->DataBytes;
}

KQStatus UtSparseFileClose(SparseFile* file, bool deleteFile) {
  {
    const SparseGatePass pass(file->Gate.get());
    if (file->File) {
      const KQStatus status = FinishFile(file, deleteFile);
      if (Failed(status)) {
        KQLog("UtSparseFileClose failed with status=0x%08X\n", StatusNumber(status));
        return status;
      }
    }
  }
  file->Gate.reset();
  return Success();
}

}  // namespace kq
