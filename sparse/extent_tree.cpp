#include "sparse/extent_tree.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "sparse/node_cache.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

using Limits = std::numeric_limits<std::int64_t>;

// A node is split into the extents in front of the middle one and those behind it.
constexpr std::uint32_t kMiddle = KQ_SPARSE_NODE_EXTENTS / 2;
static_assert(2 * kMiddle + 1 == KQ_SPARSE_NODE_EXTENTS);

constexpr std::size_t ExtentAt(std::uint32_t index) {
  return offsetof(SparseNode, Extents) + index * sizeof(SparseExtent);
}
constexpr std::size_t ChildAt(std::uint32_t index) {
  return offsetof(SparseNode, Children) + index * sizeof(std::uint64_t);
}

// No overflow: GetNode lets only extents through that end within the numbers.
std::int64_t EndOf(const SparseExtent& extent) { return extent.Offset + extent.Length; }

// The first extent for which the test holds, or Count. From the first on it holds for all.
template <class Test>
std::uint32_t FirstExtent(const SparseNode& node, Test test) {
  std::uint32_t first = 0;
  std::uint32_t end = node.Count;
  while (first < end) {
    const std::uint32_t middle = first + (end - first) / 2;
    if (test(node.Extents[middle])) {
      end = middle;
    } else {
      first = middle + 1;
    }
  }
  return first;
}

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

// Puts the cut child into the file, for want of a place in the cache beside its parent, which is
// written before it. Whichever write fails, the parent becomes what it was before.
KQStatus WriteCutChild(SparseFile* file, CachedNode* parent, const SparseNode& before,
                       std::uint64_t child, const HeapBuffer& cut) {
  KQStatus status = MarkFileInUse(file);
  if (!Failed(status)) status = WriteNode(file, *parent);
  if (!Failed(status)) {
    parent->Dirty = false;
    status = SparseFileWriter_BufferAddressHelper(file, child, cut.data(), cut.size());
  }
  if (Failed(status)) parent->Store(0, &before, sizeof before);
  return status;
}

// Moves the upper half of a full child to a new node beside it, and the extent between the halves
// up into the parent. The child is cut last, in a step that is done or not done together with the
// parent's: until then it holds all that it held, and a parent that tells of less than its child
// holds would be taken for damaged.
KQStatus SplitChild(SparseFile* file, std::uint64_t parent, std::uint32_t index,
                    std::uint64_t child) {
  HeapBuffer cut = HeapBuffer::AllocateAligned(KQ_SPARSE_UNIT, sizeof(SparseNode));
  if (!cut) return KQ_FAIL(kNotEnoughMemory);
  std::uint64_t right = 0;
  KQ_RETURN_IF_FAILED(AllocateNode(file, kMiddle, 0, &right));

  CachedNode* node = nullptr;
  KQ_RETURN_IF_FAILED(GetNode(file, child, &node));
  if (node->Node().Count != KQ_SPARSE_NODE_EXTENTS) return KQ_FAIL(kFileCorrupt);
  const std::uint8_t isLeaf = node->Node().IsLeaf;
  const SparseExtent middle = node->Node().Extents[kMiddle];
  std::memcpy(cut.data(), node->Buffer.data(), cut.size());
  std::memcpy(cut.data() + offsetof(SparseNode, Count), &kMiddle, sizeof kMiddle);

  KQ_RETURN_IF_FAILED(GetNewNode(file, right, &node));
  node->Store(offsetof(SparseNode, IsLeaf), &isLeaf, sizeof isLeaf);
  node->Store(ExtentAt(0), cut.data() + ExtentAt(kMiddle + 1), kMiddle * sizeof(SparseExtent));
  if (isLeaf == 0) {
    node->Store(ChildAt(0), cut.data() + ChildAt(kMiddle + 1),
                (kMiddle + 1) * sizeof(std::uint64_t));
  }

  KQ_RETURN_IF_FAILED(GetNode(file, parent, &node));
  const std::uint32_t count = node->Node().Count;
  if (count >= KQ_SPARSE_NODE_EXTENTS || index > count) return KQ_FAIL(kFileCorrupt);
  const SparseNode before = node->Node();
  const std::uint32_t behind = count - index;
  node->Store(ChildAt(index + 2), node->Buffer.data() + ChildAt(index + 1),
              behind * sizeof(std::uint64_t));
  node->Store(ChildAt(index + 1), &right, sizeof right);
  node->Store(ExtentAt(index + 1), node->Buffer.data() + ExtentAt(index),
              behind * sizeof(SparseExtent));
  node->Store(ExtentAt(index), &middle, sizeof middle);
  const std::uint32_t grown = count + 1;
  node->Store(offsetof(SparseNode, Count), &grown, sizeof grown);

  if (CachedNode* cached = file->Nodes.Find(child)) {
    cached->Store(offsetof(SparseNode, Count), &kMiddle, sizeof kMiddle);
    return Success();
  }
  KQ_RETURN_IF_FAILED(WriteCutChild(file, node, before, child, cut));
  // The child comes into the cache as the node that was used last. The split is done without it.
  static_cast<void>(GetNode(file, child, &node));
  return Success();
}

void InsertIntoLeaf(CachedNode* leaf, std::uint32_t index, const SparseExtent& extent) {
  const std::uint32_t count = leaf->Node().Count;
  leaf->Store(ExtentAt(index + 1), leaf->Buffer.data() + ExtentAt(index),
              (count - index) * sizeof(SparseExtent));
  leaf->Store(ExtentAt(index), &extent, sizeof extent);
  const std::uint32_t grown = count + 1;
  leaf->Store(offsetof(SparseNode, Count), &grown, sizeof grown);
}

// The node is not full: whoever leads here has split it if it was.
KQStatus InsertIntoNode(SparseFile* file, std::uint64_t position, const SparseExtent& extent) {
  for (int level = 0; level < kDeepestNode; ++level) {
    CachedNode* node = nullptr;
    KQ_RETURN_IF_FAILED(GetNode(file, position, &node));
    std::uint32_t index = FirstExtent(
        node->Node(), [&](const SparseExtent& other) { return EndOf(extent) <= other.Offset; });
    if (node->Node().IsLeaf != 0) {
      if (node->Node().Count >= KQ_SPARSE_NODE_EXTENTS) return KQ_FAIL(kFileCorrupt);
      InsertIntoLeaf(node, index, extent);
      return Success();
    }
    const std::uint64_t child = node->Node().Children[index];
    std::uint32_t childCount = 0;
    KQ_RETURN_IF_FAILED(GetNodeCount(file, child, &childCount));
    if (childCount == KQ_SPARSE_NODE_EXTENTS) {
      KQ_RETURN_IF_FAILED(SplitChild(file, position, index, child));
      KQ_RETURN_IF_FAILED(GetNode(file, position, &node));
      if (EndOf(node->Node().Extents[index]) <= extent.Offset) ++index;
    }
    KQ_RETURN_IF_FAILED(GetNode(file, position, &node));
    position = node->Node().Children[index];
  }
  return KQ_FAIL(kFileCorrupt);
}

// Puts a new root above the full one and splits that.
KQStatus GrowRoot(SparseFile* file) {
  const std::uint64_t oldRoot = file->RootNode;
  std::uint64_t newRoot = 0;
  KQ_RETURN_IF_FAILED(AllocateNode(file, 0, 0, &newRoot));
  // From here on a header block that goes to the file names the new root.
  file->RootNode = newRoot;
  CachedNode* node = nullptr;
  KQStatus status = GetNode(file, newRoot, &node);
  if (!Failed(status)) {
    node->Store(ChildAt(0), &oldRoot, sizeof oldRoot);
    status = SplitChild(file, newRoot, 0, oldRoot);
  }
  // Up to its last step a split leaves the old root whole, and the tree with it.
  if (Failed(status)) file->RootNode = oldRoot;
  return status;
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

KQStatus InsertExtent(SparseFile* file, const SparseExtent& extent) {
  std::uint32_t rootCount = 0;
  KQ_RETURN_IF_FAILED(GetNodeCount(file, file->RootNode, &rootCount));
  if (rootCount == KQ_SPARSE_NODE_EXTENTS) {
    if (file->ReadOnly) return KQ_FAIL(kWriteProtect);
    KQ_RETURN_IF_FAILED(GrowRoot(file));
  }
  return InsertIntoNode(file, file->RootNode, extent);
}

}  // namespace kq
