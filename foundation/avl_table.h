// A height-balanced binary tree of items that never move, with a small table of callbacks.
//
// An item is one allocation: the links, and behind them payloadSize bytes that begin with the key.
// Payloads are copied once, at insertion, and never after: other threads hold pointers into them.
// The table takes no lock; its owner guards it. Nothing here fails but an insertion, and a failed
// insertion leaves the tree as it was.
#ifndef KQ_FOUNDATION_AVL_TABLE_H
#define KQ_FOUNDATION_AVL_TABLE_H

#include <cstddef>
#include <cstdint>

namespace kq {

struct alignas(std::max_align_t) AvlItem {
  AvlItem* parent;       // the root's parent is the root itself, never null
  AvlItem* left;         // smaller keys, or null
  AvlItem* right;        // larger keys, or null
  std::int32_t balance;  // height of the right subtree minus that of the left: -1, 0 or 1 at rest
};

enum class AvlSide : std::uint8_t { kLeft, kRight };

struct AvlTable {
  std::uint64_t itemSize;  // AvlItemSize(payloadSize)
  AvlItem* (*allocItem)(std::uint64_t size);
  void (*copyPayload)(AvlTable* table, void* to, const void* from);  // null: plain bytes
  void (*destroyPayload)(AvlTable* table, void* payload);            // may be null
  void (*freeItem)(std::uint64_t size, AvlItem* item);               // may be null
  void (*destroyTable)(std::uint64_t itemSize);                      // may be null
  void (*afterInsert)(AvlItem* item, AvlItem** root);
  // child has taken the place of item on that side of parent; parent is null if item was the root.
  void (*afterRemove)(AvlItem* parent, AvlItem* item, AvlItem* child, AvlSide side,
                      AvlSide opposite, AvlItem** root);
  void (*onFind)(AvlItem* item, AvlItem** root);  // may be null; item is null if none was found
  // -1, 0 or 1 as key a is smaller than, the same as or larger than key b.
  std::int32_t (*compare)(const AvlTable* table, const void* a, const void* b);
  std::uint32_t payloadSize;
  std::uint32_t count;
  AvlItem* root;  // null when empty
};

constexpr std::uint64_t AvlItemSize(std::uint32_t payloadSize) {
  return sizeof(AvlItem) + payloadSize;
}
inline void* AvlPayload(AvlItem* item) { return item + 1; }
inline AvlItem* AvlItemOf(void* payload) { return static_cast<AvlItem*>(payload) - 1; }

// Plain malloc and free.
AvlItem* AvlAllocItem(std::uint64_t size);
void AvlFreeItem(std::uint64_t size, AvlItem* item);

// The rebalancing after an insertion and after a removal (avl_balance.cpp). A balance that can't be
// is logged as a failed assertion, and the walk goes on with it.
void AvlAfterInsert(AvlItem* item, AvlItem** root);
void AvlAfterRemove(AvlItem* parent, AvlItem* item, AvlItem* child, AvlSide side, AvlSide opposite,
                    AvlItem** root);

enum class AvlInsertResult : std::uint8_t { kInserted, kDuplicateKey, kOutOfMemory };

// Adds an item with a copy of the payload. *item is null unless it was inserted.
AvlInsertResult AvlInsert(AvlTable* table, const void* payload, AvlItem** item);

// The item with that key, or null.
AvlItem* AvlFind(AvlTable* table, const void* key);

// Takes the item out; every other item stays where it is in memory. With destroy the payload is
// destroyed and the item freed, else both are the caller's.
void AvlRemove(AvlTable* table, AvlItem* item, bool destroy);

// Destroys all items and then the table, leaving it empty. Without a destroyPayload and a freeItem
// the items are left to whoever owns their memory.
void AvlTearDown(AvlTable* table);

}  // namespace kq

#endif
