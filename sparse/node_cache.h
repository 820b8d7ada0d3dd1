// The nodes of a sparse file that are in memory. Every access to a node goes through GetNode.
//
// The cache belongs to its SparseFile and owns its nodes. It has no lock: the handle of the sparse
// file, or of the chain that owns it, serialises all operations. Nodes are kept in the order of
// use, most recently used first, and found through a hash index, so that a large cache costs no
// more to look into than a small one.
//
// A node that is evicted is written first if it was changed. If that write fails, the changes in it
// are lost and the operation that needed the room fails.
#ifndef KQ_SPARSE_NODE_CACHE_H
#define KQ_SPARSE_NODE_CACHE_H

#include <cstddef>
#include <cstdint>

#include "foundation/memory.h"
#include "foundation/status.h"
#include "image/bucket_index.h"
#include "image/linked_list.h"
#include "kqsparseformat.h"

namespace kq {

struct SparseFile;

struct CachedNode {
  ListLinks<CachedNode> orderLinks;
  CachedNode* nextInBucket = nullptr;
  HeapBuffer Buffer;           // a SparseNode, at an address that the file can be read to
  std::uint64_t Position = 0;  // file offset of the node
  bool Dirty = false;          // differs from what the file holds

  const SparseNode& Node() const { return *reinterpret_cast<const SparseNode*>(Buffer.data()); }

  // The only way to change a node: copies bytes to an offset of it. Bytes that are there already
  // cost no write-back later.
  void Store(std::size_t offset, const void* bytes, std::size_t size);
};

class NodeCache {
 public:
  explicit NodeCache(std::uint16_t limit) : CacheLimit(limit == 0 ? std::uint16_t{1} : limit) {}
  NodeCache(const NodeCache&) = delete;
  NodeCache& operator=(const NodeCache&) = delete;
  ~NodeCache();  // frees the nodes, without writing any

  const std::uint16_t CacheLimit;  // at least 1

  std::uint16_t CacheCount() const { return count_; }
  CachedNode* first() const { return order_.first(); }
  CachedNode* last() const { return order_.last(); }

  // The node at that position, which is the most recently used from now on, or null.
  CachedNode* Find(std::uint64_t position);
  void AddFirst(Owned<CachedNode> node);
  Owned<CachedNode> Remove(CachedNode* node);

 private:
  LinkedList<CachedNode, &CachedNode::orderLinks> order_;
  BucketIndex<CachedNode, &CachedNode::nextInBucket> index_;
  std::uint16_t count_ = 0;
};

// The node at that position, from the cache or the file. *node is valid until the next call.
// -1392 what lies there can't be a node: more extents than a node has, an empty one, or extents out
// of order. The magic is not tested. -8; or what the transfers give.
KQStatus GetNode(SparseFile* file, std::uint64_t position, CachedNode** node);

// The same for a node that AllocateNode has just appended: its count is ahead of its extents, which
// the caller is about to store.
KQStatus GetNewNode(SparseFile* file, std::uint64_t position, CachedNode** node);

KQStatus GetNodeCount(SparseFile* file, std::uint64_t position, std::uint32_t* count);
KQStatus SetNodeCount(SparseFile* file, std::uint64_t position, std::uint32_t count);

// Appends an empty node to the file, at once. It comes into the cache when it is first wanted.
// -1392 the file's size is no multiple of 4096; -8; or what the transfers give.
KQStatus AllocateNode(SparseFile* file, std::uint32_t count, std::uint8_t isLeaf,
                      std::uint64_t* position);

// Writes a node at its position. The file must be marked as in use before (MarkFileInUse).
KQStatus WriteNode(SparseFile* file, const CachedNode& node);

}  // namespace kq

#endif
