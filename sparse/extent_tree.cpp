#include "sparse/extent_tree.h"

#include <limits>

#include "foundation/os_file.h"
#include "sparse/extent_search.h"
#include "sparse/node_cache.h"
#include "sparse/sparse_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

using Limits = std::numeric_limits<std::int64_t>;

// Nodes that a walk may enter whatever the file's size.
constexpr std::uint64_t kFewNodes = 4096;

// A node as a walk meets it, below the one that led to it.
struct Place {
  std::uint64_t position = 0;
  const Place* above = nullptr;
};

// Counts the nodes that a query or a walk enters.
//
// Where a child lies is the file's word: one that leads to some other node is taken as it stands,
// as clients expect it. Noticed is only what would not end: a node that leads back to one above
// it, and more nodes than the file has room for.
class Steps {
 public:
  explicit Steps(SparseFile* file) : file_(file) {}

  SparseFile* file() const { return file_; }

  KQStatus Enter(const Place& place) {
    int level = 0;
    for (const Place* above = place.above; above != nullptr; above = above->above) {
      ++level;
      if (above->position == place.position || level >= kDeepestNode) {
        return KQ_FAIL(kFileCorrupt);
      }
    }
    if (++entered_ <= most_) return Success();
    std::uint64_t size = 0;
    KQ_RETURN_IF_FAILED(OSFileGetSize(file_->File.get(), &size));
    most_ = kFewNodes + size / sizeof(SparseNode);
    return entered_ <= most_ ? Success() : KQ_FAIL(kFileCorrupt);
  }

 private:
  SparseFile* const file_;
  std::uint64_t entered_ = 0;
  std::uint64_t most_ = kFewNodes;
};

// *leads tells whether there is a child.
KQStatus GetChildAt(SparseFile* file, const Place& place, std::uint32_t index, bool* leads,
                    Place* child) {
  *leads = false;
  CachedNode* cached = nullptr;
  KQ_RETURN_IF_FAILED(GetNode(file, place.position, &cached));
  const SparseNode& node = cached->Node();
  if (node.IsLeaf != 0 || index > node.Count) return Success();
  *leads = true;
  *child = {node.Children[index], &place};
  return Success();
}

struct Query {
  Steps* steps;
  std::int64_t start;
  std::int64_t end;
  ExtentList* found;
};

KQStatus QueryNode(const Query& query, const Place& place);

KQStatus QueryChild(const Query& query, const Place& place, std::uint32_t index) {
  bool leads = false;
  Place child;
  KQ_RETURN_IF_FAILED(GetChildAt(query.steps->file(), place, index, &leads, &child));
  return leads ? QueryNode(query, child) : Success();
}

// A node pointer is only good until the next child has been looked at, so each extent is asked for
// anew. That also keeps a node that is being walked at the front of the cache.
KQStatus QueryNode(const Query& query, const Place& place) {
  SparseFile* const file = query.steps->file();
  CachedNode* cached = nullptr;
  KQ_RETURN_IF_FAILED(query.steps->Enter(place));
  KQ_RETURN_IF_FAILED(GetNode(file, place.position, &cached));
  const SparseNode& node = cached->Node();
  const std::uint32_t count = node.Count;
  std::uint32_t index =
      FirstExtent(node, [&](const SparseExtent& extent) { return EndOf(extent) > query.start; });
  const bool overlaps = index < count && node.Extents[index].Offset < query.end;
  if (index == count || node.Extents[index].Offset > query.start) {
    KQ_RETURN_IF_FAILED(QueryChild(query, place, index));
  }
  if (!overlaps) return Success();
  for (; index < count; ++index) {
    KQ_RETURN_IF_FAILED(GetNode(file, place.position, &cached));
    const SparseExtent extent = cached->Node().Extents[index];
    if (query.end <= extent.Offset) break;
    if (!query.found->Append(extent)) return KQ_FAIL(kNotEnoughMemory);
    if (EndOf(extent) < query.end) KQ_RETURN_IF_FAILED(QueryChild(query, place, index + 1));
  }
  return Success();
}

KQStatus WalkNode(Steps* steps, const Place& place, ExtentVisit visit, void* context) {
  KQ_RETURN_IF_FAILED(steps->Enter(place));
  for (std::uint32_t index = 0;; ++index) {
    bool leads = false;
    Place child;
    KQ_RETURN_IF_FAILED(GetChildAt(steps->file(), place, index, &leads, &child));
    if (leads) KQ_RETURN_IF_FAILED(WalkNode(steps, child, visit, context));
    CachedNode* cached = nullptr;
    KQ_RETURN_IF_FAILED(GetNode(steps->file(), place.position, &cached));
    if (index >= cached->Node().Count) return Success();
    const SparseExtent extent = cached->Node().Extents[index];
    KQ_RETURN_IF_FAILED(visit(context, extent));
  }
}

}  // namespace

ExtentList::~ExtentList() {
  while (ExtentListEntry* entry = entries_.first()) {
    entries_.Remove(entry);
    Owned<ExtentListEntry>(entry).reset();
  }
}

bool ExtentList::Append(const SparseExtent& extent) {
  Owned<ExtentListEntry> entry = MakeOwned<ExtentListEntry>();
  if (!entry) return false;
  entry->Extent = extent;
  entries_.PushBack(entry.release());
  return true;
}

KQStatus QueryExtents(SparseFile* file, std::int64_t offset, std::uint32_t size, ExtentList* list) {
  Steps steps(file);
  Query query{&steps, offset, 0, list};
  if (__builtin_add_overflow(offset, size, &query.end)) query.end = Limits::max();
  return QueryNode(query, {.position = file->RootNode});
}

KQStatus WalkExtents(SparseFile* file, ExtentVisit visit, void* context) {
  Steps steps(file);
  return WalkNode(&steps, {.position = file->RootNode}, visit, context);
}

}  // namespace kq
