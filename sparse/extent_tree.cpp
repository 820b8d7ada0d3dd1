#include "sparse/extent_tree.h"

#include <limits>

#include "sparse/extent_search.h"
#include "sparse/node_cache.h"
#include "sparse/sparse_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

using Limits = std::numeric_limits<std::int64_t>;

// A node as the walks below meet it: where it is, and the stretch of the volume that its parents
// leave for it. Since each child's stretch is a part of its parent's without the parent's extents,
// a file whose nodes lead back to themselves is noticed before a walk goes round in it.
struct Place {
  std::uint64_t position = 0;
  std::int64_t low = Limits::min();
  std::int64_t high = Limits::max();
  int level = 0;
};

KQStatus GetNodeAt(SparseFile* file, const Place& place, CachedNode** cached) {
  if (place.level >= kDeepestNode) return KQ_FAIL(kFileCorrupt);
  KQ_RETURN_IF_FAILED(GetNode(file, place.position, cached));
  const SparseNode& node = (*cached)->Node();
  if (node.Count != 0 &&
      (node.Extents[0].Offset < place.low || EndOf(node.Extents[node.Count - 1]) > place.high)) {
    return KQ_FAIL(kFileCorrupt);
  }
  return Success();
}

// *leads tells whether there is a child.
KQStatus GetChildAt(SparseFile* file, const Place& place, std::uint32_t index, bool* leads,
                    Place* child) {
  *leads = false;
  CachedNode* cached = nullptr;
  KQ_RETURN_IF_FAILED(GetNodeAt(file, place, &cached));
  const SparseNode& node = cached->Node();
  if (node.IsLeaf != 0 || index > node.Count) return Success();
  *leads = true;
  child->position = node.Children[index];
  child->low = index == 0 ? place.low : EndOf(node.Extents[index - 1]);
  child->high = index == node.Count ? place.high : node.Extents[index].Offset;
  child->level = place.level + 1;
  return Success();
}

struct Query {
  SparseFile* file;
  std::int64_t start;
  std::int64_t end;
  ExtentList* found;
};

KQStatus QueryNode(const Query& query, const Place& place);

KQStatus QueryChild(const Query& query, const Place& place, std::uint32_t index) {
  bool leads = false;
  Place child;
  KQ_RETURN_IF_FAILED(GetChildAt(query.file, place, index, &leads, &child));
  return leads ? QueryNode(query, child) : Success();
}

// A node pointer is only good until the next child has been looked at, so each extent is asked for
// anew. That also keeps a node that is being walked at the front of the cache.
KQStatus QueryNode(const Query& query, const Place& place) {
  CachedNode* cached = nullptr;
  KQ_RETURN_IF_FAILED(GetNodeAt(query.file, place, &cached));
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
    KQ_RETURN_IF_FAILED(GetNodeAt(query.file, place, &cached));
    const SparseExtent extent = cached->Node().Extents[index];
    if (query.end <= extent.Offset) break;
    if (!query.found->Append(extent)) return KQ_FAIL(kNotEnoughMemory);
    if (EndOf(extent) < query.end) KQ_RETURN_IF_FAILED(QueryChild(query, place, index + 1));
  }
  return Success();
}

KQStatus WalkNode(SparseFile* file, const Place& place, ExtentVisit visit, void* context) {
  for (std::uint32_t index = 0;; ++index) {
    bool leads = false;
    Place child;
    KQ_RETURN_IF_FAILED(GetChildAt(file, place, index, &leads, &child));
    if (leads) KQ_RETURN_IF_FAILED(WalkNode(file, child, visit, context));
    CachedNode* cached = nullptr;
    KQ_RETURN_IF_FAILED(GetNodeAt(file, place, &cached));
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
  Query query{file, offset, 0, list};
  if (__builtin_add_overflow(offset, size, &query.end)) query.end = Limits::max();
  Place root;
  root.position = file->RootNode;
  return QueryNode(query, root);
}

KQStatus WalkExtents(SparseFile* file, ExtentVisit visit, void* context) {
  Place root;
  root.position = file->RootNode;
  return WalkNode(file, root, visit, context);
}

}  // namespace kq
