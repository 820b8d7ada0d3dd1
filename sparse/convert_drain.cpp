// The extents' data on its way from the sparse file into the chunks of the new image, without a
// stop in between: an extent may be 4 GiB long.
#include <cstring>

#include "sparse/convert_sparse.h"
#include "sparse/extent_tree.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

struct Drain {
  SparseFile* sparse;
  NewImageFile* image;
};

struct ExtentData {
  SparseFile* sparse;
  std::uint64_t position;  // in the file
};

// What the file doesn't have of an extent is zero.
KQStatus FetchExtent(void* context, std::uint32_t position, std::uint8_t* target,
                     std::uint32_t count) {
  const auto* data = static_cast<const ExtentData*>(context);
  std::uint64_t delivered = 0;
  KQ_RETURN_IF_FAILED(
      ReadWhatIsThere(data->sparse, data->position + position, target, count, &delivered));
  std::memset(target + delivered, 0, count - delivered);
  return Success();
}

// Offset and Length are taken as they are. They are whole sectors if the client wrote whole
// sectors; the writer tells what becomes of others.
KQStatus FeedExtent(void* context, const SparseExtent& extent) {
  const auto* drain = static_cast<const Drain*>(context);
  ExtentData data{drain->sparse, extent.Position};
  return AppendFetchedSectors(drain->image, FetchExtent, &data, extent.Length,
                              static_cast<std::uint64_t>(extent.Offset));
}

}  // namespace

KQStatus DrainSparseTree(SparseFile* sparse, NewImageFile* image) {
  Drain drain{sparse, image};
  return WalkExtents(sparse, FeedExtent, &drain);
}

}  // namespace kq
