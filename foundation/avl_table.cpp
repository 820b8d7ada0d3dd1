#include "foundation/avl_table.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace kq {
namespace {

bool IsRoot(const AvlItem* item) { return item->parent == item; }

// Puts replacement, which may be null, where item hangs.
void ReplaceInParent(const AvlItem* item, AvlItem* replacement, AvlItem** root) {
  if (IsRoot(item)) {
    *root = replacement;
    if (replacement != nullptr) replacement->parent = replacement;
    return;
  }
  AvlItem* parent = item->parent;
  (parent->left == item ? parent->left : parent->right) = replacement;
  if (replacement != nullptr) replacement->parent = parent;
}

// Exchanges an item that has two children with its in-order successor, which has no left child,
// by relinking alone.
void ExchangeWithSuccessor(AvlItem* item, AvlItem** root) {
  AvlItem* successor = item->right;
  while (successor->left != nullptr) successor = successor->left;
  AvlItem* successorParent = successor->parent;
  AvlItem* successorRight = successor->right;

  std::swap(item->balance, successor->balance);
  ReplaceInParent(item, successor, root);
  successor->left = item->left;
  successor->left->parent = successor;
  if (successorParent == item) {
    successor->right = item;
    item->parent = successor;
  } else {
    successor->right = item->right;
    successor->right->parent = successor;
    successorParent->left = item;
    item->parent = successorParent;
  }
  item->left = nullptr;
  item->right = successorRight;
  if (successorRight != nullptr) successorRight->parent = item;
}

void Destroy(AvlTable* table, AvlItem* item) {
  if (table->destroyPayload != nullptr) table->destroyPayload(table, AvlPayload(item));
  if (table->freeItem != nullptr) table->freeItem(table->itemSize, item);
}

}  // namespace

AvlItem* AvlAllocItem(std::uint64_t size) { return static_cast<AvlItem*>(std::malloc(size)); }

void AvlFreeItem(std::uint64_t /*size*/, AvlItem* item) { std::free(item); }

AvlInsertResult AvlInsert(AvlTable* table, const void* payload, AvlItem** item) {
  *item = nullptr;
  AvlItem* parent = nullptr;
  AvlItem** slot = &table->root;
  while (*slot != nullptr) {
    parent = *slot;
    const std::int32_t order = table->compare(table, AvlPayload(parent), payload);
    if (order == 0) return AvlInsertResult::kDuplicateKey;
    slot = order > 0 ? &parent->left : &parent->right;
  }

  AvlItem* added = table->allocItem(table->itemSize);
  if (added == nullptr) return AvlInsertResult::kOutOfMemory;
  if (table->copyPayload != nullptr) {
    table->copyPayload(table, AvlPayload(added), payload);
  } else {
    std::memcpy(AvlPayload(added), payload, table->payloadSize);
  }
  added->left = nullptr;
  added->right = nullptr;
  added->parent = parent != nullptr ? parent : added;
  *slot = added;
  table->afterInsert(added, &table->root);
  ++table->count;
  *item = added;
  return AvlInsertResult::kInserted;
}

AvlItem* AvlFind(AvlTable* table, const void* key) {
  AvlItem* item = table->root;
  while (item != nullptr) {
    const std::int32_t order = table->compare(table, AvlPayload(item), key);
    if (order == 0) break;
    item = order < 0 ? item->right : item->left;
  }
  if (table->onFind != nullptr) table->onFind(item, &table->root);
  return item;
}

void AvlRemove(AvlTable* table, AvlItem* item, bool destroy) {
  if (item->left != nullptr && item->right != nullptr) ExchangeWithSuccessor(item, &table->root);

  AvlItem* child = item->left != nullptr ? item->left : item->right;
  const bool isRoot = IsRoot(item);
  const bool wasLeft = !isRoot && item->parent->left == item;
  AvlItem* parent = isRoot ? nullptr : item->parent;
  ReplaceInParent(item, child, &table->root);
  table->afterRemove(parent, item, child, wasLeft ? AvlSide::kLeft : AvlSide::kRight,
                     wasLeft ? AvlSide::kRight : AvlSide::kLeft, &table->root);
  if (destroy) Destroy(table, item);
  --table->count;
}

void AvlTearDown(AvlTable* table) {
  if (table->destroyPayload != nullptr || table->freeItem != nullptr) {
    AvlItem* item = table->root;
    while (item != nullptr) {
      if (item->left != nullptr) {
        item = item->left;
      } else if (item->right != nullptr) {
        item = item->right;
      } else {
        AvlItem* parent = IsRoot(item) ? nullptr : item->parent;
        ReplaceInParent(item, nullptr, &table->root);
        Destroy(table, item);
        item = parent;
      }
    }
  }
  table->root = nullptr;
  table->count = 0;
  if (table->destroyTable != nullptr) table->destroyTable(table->itemSize);
}

}  // namespace kq
