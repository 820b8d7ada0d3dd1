
#include "sparse/extent_tree.h"
#include "sparse/overlap.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

}  // namespace

KQStatus SparseFileReadInto(SparseFile* file, std::uint64_t offset, void* buffer,
                            std::uint32_t size) {
  const SparseGatePass pass(file->Gate.get());
  if (size == 0) return Success();
  VolumeRange range;
  MakeVolumeRange(offset, size, &range);  // beyond the numbers there is nothing to find
  ExtentList extents;
  KQ_RETURN_IF_FAILED(QueryExtents(file, range.start, size, &extents));
  auto* bytes = static_cast<std::uint8_t*>(buffer);
  for (const ExtentListEntry* entry = extents.first(); entry != nullptr;) {
    Overlap overlap;
    if (!OverlapOf(entry->Extent, range, &overlap)) return KQ_FAIL(kFileCorrupt);
    // What was written piece by piece often lies in one piece in the file.
    Overlap next;
    while ((entry = ExtentList::Next(entry)) != nullptr && OverlapOf(entry->Extent, range, &next) &&
           overlap.ContinuesWith(next)) {
      overlap.length += next.length;
    }
    KQ_RETURN_IF_FAILED(SparseFileReader(file, overlap.position, bytes + overlap.bufferOffset,
                                         overlap.length, nullptr));
  }
  return Success();
}

}  // namespace kq
