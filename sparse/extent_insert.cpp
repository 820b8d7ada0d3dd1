#include <cstring>

#include "sparse/extent_search.h"
#include "sparse/extent_tree.h"
#include "sparse/node_cache.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

// A node is split into the extents in front of the middle one and those behind it.
constexpr std::uint32_t kMiddle = KQ_SPARSE_NODE_EXTENTS / 2;
static_assert(2 * kMiddle + 1 == KQ_SPARSE_NODE_EXTENTS);

constexpr std::size_t ExtentAt(std::uint32_t index) {
  return offsetof(SparseNode, Extents) + index * sizeof(SparseExtent);
}
constexpr std::size_t ChildAt(std::uint32_t index) {
  return offsetof(SparseNode, Children) + index * sizeof(std::uint64_t);
}

// Makes room for the extent and the child that come up into a node from a child that is split.
void EnterHalf(CachedNode* parent, std::uint32_t index, const SparseExtent& middle,
               std::uint64_t right) {
  const std::uint32_t count = parent->Node().Count;
  const std::uint32_t behind = count - index;
  parent->Store(ChildAt(index + 2), parent->Buffer.data() + ChildAt(index + 1),
                behind * sizeof(std::uint64_t));
  parent->Store(ChildAt(index + 1), &right, sizeof right);
  parent->Store(ExtentAt(index + 1), parent->Buffer.data() + ExtentAt(index),
                behind * sizeof(SparseExtent));
  parent->Store(ExtentAt(index), &middle, sizeof middle);
  const std::uint32_t grown = count + 1;
  parent->Store(offsetof(SparseNode, Count), &grown, sizeof grown);
}

// Writes the changed parent and then the cut child, where the cache has no place for both.
// Whichever write fails, the parent becomes what it was before.
KQStatus WriteBoth(SparseFile* file, CachedNode* parent, const SparseNode& before,
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
// up into the parent. Parent and child change together, in a step that is done or not done: until
// then the child holds all that it held.
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

  CachedNode* above = nullptr;
  KQ_RETURN_IF_FAILED(GetNode(file, parent, &above));
  if (above->Node().Count >= KQ_SPARSE_NODE_EXTENTS || index > above->Node().Count) {
    return KQ_FAIL(kFileCorrupt);
  }
  if (file->Nodes.CacheLimit == 1) {
    const SparseNode before = above->Node();
    EnterHalf(above, index, middle, right);
    return WriteBoth(file, above, before, child, cut);
  }
  // This may evict the new node, but not the parent, which was used last.
  KQ_RETURN_IF_FAILED(GetNode(file, child, &node));
  node->Store(offsetof(SparseNode, Count), &kMiddle, sizeof kMiddle);
  KQ_RETURN_IF_FAILED(GetNode(file, parent, &above));
  EnterHalf(above, index, middle, right);
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
  // A split that fails leaves the old root whole, and the tree with it.
  if (Failed(status)) file->RootNode = oldRoot;
  return status;
}

}  // namespace

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
