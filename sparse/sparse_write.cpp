#include <algorithm>

#include "sparse/extent_tree.h"
#include "sparse/overlap.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

// Writes a stretch that the file doesn't hold yet. Its data is in the file before the tree tells of
// it.
KQStatus AppendExtent(SparseFile* file, std::int64_t offset, const std::uint8_t* data,
                      std::uint32_t length) {
  SparseExtent extent{offset, length, 0};
  std::uint64_t position = 0;
  KQ_RETURN_IF_FAILED(SparseFileTransfer(file, 0, data, length, TransferTo::kEnd, &position));
  extent.Position = position;
  file->DataBytes += length;
  return InsertExtent(file, extent);
}

}  // namespace

KQStatus SparseFileWriteFrom(SparseFile* file, std::uint64_t offset, const void* data,
                             std::uint32_t size) {
  const SparseGatePass pass(file->Gate.get());
  if (file->ReadOnly) return KQ_FAIL(kWriteProtect);
  if (size == 0) return Success();
  VolumeRange range;
  if (!MakeVolumeRange(offset, size, &range)) return KQ_FAIL(kInvalidParameter);
  ExtentList extents;
  KQ_RETURN_IF_FAILED(QueryExtents(file, range.start, size, &extents));

  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::uint32_t done = 0;  // bytes of the range, from its start
  const auto appendUpTo = [&](std::uint32_t end) {
    const std::uint32_t from = done;
    done = end;
    return AppendExtent(file, range.start + from, bytes + from, end - from);
  };
  for (const ExtentListEntry* entry = extents.first(); entry != nullptr;
       entry = ExtentList::Next(entry)) {
    Overlap overlap;
    if (!OverlapOf(entry->Extent, range, &overlap)) return KQ_FAIL(kFileCorrupt);
    const auto start = static_cast<std::uint32_t>(overlap.bufferOffset);
    if (start > done) KQ_RETURN_IF_FAILED(appendUpTo(start));
    KQ_RETURN_IF_FAILED(SparseFileTransfer(file, overlap.position, bytes + start, overlap.length,
                                           TransferTo::kPosition, nullptr));
    // A damaged tree may give the same extent twice.
    done = std::max(done, start + static_cast<std::uint32_t>(overlap.length));
  }
  if (done < size) KQ_RETURN_IF_FAILED(appendUpTo(size));
  return Success();
}

}  // namespace kq
