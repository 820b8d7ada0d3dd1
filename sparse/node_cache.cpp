#include "sparse/node_cache.h"

#include <cstring>
#include <utility>

#include "foundation/os_file.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_transfer.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

constexpr std::size_t SparseNodeBufferSize = sizeof(SparseNode);

// Whether what was read can be worked with: the searches below rely on extents in order, of at
// least one byte, that end within the numbers.
bool IsNode(const SparseNode& node) {
  if (node.Count > KQ_SPARSE_NODE_EXTENTS) return false;
  for (std::uint32_t i = 0; i < node.Count; ++i) {
    const SparseExtent& extent = node.Extents[i];
    std::int64_t end = 0;
    if (extent.Length == 0 ||
        __builtin_add_overflow(std::int64_t{extent.Offset}, extent.Length, &end) ||
        (i + 1 < node.Count && end > node.Extents[i + 1].Offset)) {
      return false;
    }
  }
  return true;
}

// Evicts the node that was used longest ago, if the cache is full. *room is that node, for use
// anew, or empty.
KQStatus MakeRoom(SparseFile* file, Owned<CachedNode>* room) {
  NodeCache& cache = file->Nodes;
  if (cache.CacheCount() < cache.CacheLimit) return Success();
  *room = cache.Remove(cache.last());
  if (!(*room)->Dirty || file->ReadOnly) return Success();
  KQ_RETURN_IF_FAILED(MarkFileInUse(file));
  return WriteNode(file, **room);
}

KQStatus ReadNode(SparseFile* file, std::uint64_t position, CachedNode* node) {
  std::uint64_t delivered = 0;
  KQ_RETURN_IF_FAILED(
      ReadWhatIsThere(file, position, node->Buffer.data(), SparseNodeBufferSize, &delivered));
  std::memset(node->Buffer.data() + delivered, 0, SparseNodeBufferSize - delivered);
  node->Position = position;
  node->Dirty = false;
  return Success();
}

// GetNode, with or without a look at what was read.
KQStatus GetNodeChecked(SparseFile* file, std::uint64_t position, bool check, CachedNode** node) {
  *node = file->Nodes.Find(position);
  if (*node != nullptr) return Success();

  Owned<CachedNode> read;
  KQ_RETURN_IF_FAILED(MakeRoom(file, &read));
  if (!read) {
    read = MakeOwned<CachedNode>();
    if (!read) return KQ_FAIL(kNotEnoughMemory);
    read->Buffer = HeapBuffer::AllocateAligned(KQ_SPARSE_UNIT, SparseNodeBufferSize);
    if (!read->Buffer) return KQ_FAIL(kNotEnoughMemory);
  }
  KQ_RETURN_IF_FAILED(ReadNode(file, position, read.get()));
  if (check && !IsNode(read->Node())) return KQ_FAIL(kFileCorrupt);
  *node = read.get();
  file->Nodes.AddFirst(std::move(read));
  return Success();
}

}  // namespace

void CachedNode::Store(std::size_t offset, const void* bytes, std::size_t size) {
  std::uint8_t* target = Buffer.data() + offset;
  if (std::memcmp(target, bytes, size) == 0) return;
  std::memmove(target, bytes, size);
  Dirty = true;
}

NodeCache::~NodeCache() {
  while (CachedNode* node = first()) Remove(node);
}

CachedNode* NodeCache::Find(std::uint64_t position) {
  CachedNode* head = order_.first();
  if (head != nullptr && head->Position == position) return head;
  CachedNode* node = index_.First(HashOf(this, position));
  while (node != nullptr && node->Position != position) node = index_.Next(node);
  if (node != nullptr) order_.MoveToFront(node);
  return node;
}

void NodeCache::AddFirst(Owned<CachedNode> node) {
  index_.Add(HashOf(this, node->Position), node.get());
  order_.PushFront(node.release());
  ++count_;
}

Owned<CachedNode> NodeCache::Remove(CachedNode* node) {
  index_.Remove(HashOf(this, node->Position), node);
  order_.Remove(node);
  --count_;
  return Owned<CachedNode>(node);
}

KQStatus GetNode(SparseFile* file, std::uint64_t position, CachedNode** node) {
  return GetNodeChecked(file, position, true, node);
}

KQStatus GetNewNode(SparseFile* file, std::uint64_t position, CachedNode** node) {
  return GetNodeChecked(file, position, false, node);
}

KQStatus GetNodeCount(SparseFile* file, std::uint64_t position, std::uint32_t* count) {
  *count = 0;
  CachedNode* node = nullptr;
  KQ_RETURN_IF_FAILED(GetNode(file, position, &node));
  *count = node->Node().Count;
  return Success();
}

KQStatus SetNodeCount(SparseFile* file, std::uint64_t position, std::uint32_t count) {
  CachedNode* node = nullptr;
  KQ_RETURN_IF_FAILED(GetNode(file, position, &node));
  node->Store(offsetof(SparseNode, Count), &count, sizeof count);
  return Success();
}

KQStatus AllocateNode(SparseFile* file, std::uint32_t count, std::uint8_t isLeaf,
                      std::uint64_t* position) {
  *position = 0;
  HeapBuffer buffer = HeapBuffer::AllocateAlignedZeroed(KQ_SPARSE_UNIT, SparseNodeBufferSize);
  if (!buffer) return KQ_FAIL(kNotEnoughMemory);
  std::memcpy(buffer.data(), KQ_SPARSE_NODE_MAGIC, sizeof SparseNode::Magic);
  std::memcpy(buffer.data() + offsetof(SparseNode, Count), &count, sizeof count);
  std::memcpy(buffer.data() + offsetof(SparseNode, IsLeaf), &isLeaf, sizeof isLeaf);
  return SparseFileTransfer(file, 0, buffer.data(), buffer.size(), TransferTo::kEnd, position);
}

KQStatus WriteNode(SparseFile* file, const CachedNode& node) {
  return SparseFileWriter_BufferAddressHelper(file, node.Position, node.Buffer.data(),
                                              node.Buffer.size());
}

}  // namespace kq
