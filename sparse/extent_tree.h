// The B-tree of extents of a sparse file: nodes of up to 291 extents, sorted by their volume
// offset, that never overlap.
//
// Offsets of the volume are compared as signed numbers. All functions work through the node cache
// and hold one node at a time, so that any limit of the cache will do.
//
// A child's place in a file is not doubted: one that leads to another node is walked as it stands,
// and its extents come in that order. But a tree that leads back to itself, has more than
// kDeepestNode levels or leads to more nodes than the file holds is -1392.
//
// A failure of a query leaves the tree alone. A failure of an insertion leaves it as it was, or
// split without the new extent; only what a changed node told that could not be written back is
// lost.
#ifndef KQ_SPARSE_EXTENT_TREE_H
#define KQ_SPARSE_EXTENT_TREE_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/status.h"
#include "image/linked_list.h"
#include "kqsparseformat.h"

namespace kq {

struct SparseFile;

// More levels than any file can need; what is deeper is a cycle.
constexpr int kDeepestNode = 64;

struct ExtentListEntry {
  ListLinks<ExtentListEntry> links;
  SparseExtent Extent{};
};

// Extents in the order of the tree. The list owns its entries.
class ExtentList {
 public:
  ExtentList() = default;
  ExtentList(const ExtentList&) = delete;
  ExtentList& operator=(const ExtentList&) = delete;
  ~ExtentList();

  const ExtentListEntry* first() const { return entries_.first(); }
  static const ExtentListEntry* Next(const ExtentListEntry* entry) {
    return decltype(entries_)::Next(entry);
  }
  bool Append(const SparseExtent& extent);  // false: out of memory

 private:
  LinkedList<ExtentListEntry, &ExtentListEntry::links> entries_;
};

// Appends all extents of the tree that overlap the size bytes from offset. offset + size must not
// be above the largest signed number.
KQStatus QueryExtents(SparseFile* file, std::int64_t offset, std::uint32_t size, ExtentList* list);

// Calls visit for each extent of the file in rising order of its offset; a failure of visit ends
// the walk and is its status. visit may read from the file, and may not change it.
using ExtentVisit = KQStatus (*)(void* context, const SparseExtent& extent);
KQStatus WalkExtents(SparseFile* file, ExtentVisit visit, void* context);

// Enters an extent (extent_insert.cpp), which must not overlap any other. -19 the root is full and
// the file read-only.
KQStatus InsertExtent(SparseFile* file, const SparseExtent& extent);

}  // namespace kq

#endif
