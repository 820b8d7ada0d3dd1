#include "foundation/avl_table.h"
#include "foundation/log.h"

namespace kq {
namespace {

bool IsRoot(const AvlItem* item) { return item->parent == item; }

// -1 for a left child, +1 for a right one: how a node's balance leans towards that child.
std::int32_t LeanTowards(const AvlItem* child) { return child->parent->left == child ? -1 : 1; }

AvlItem*& ChildAt(AvlItem* item, std::int32_t lean) { return lean < 0 ? item->left : item->right; }

// Rotates child above its parent. The child that becomes root gets itself as parent.
void RotateUp(AvlItem* child, AvlItem** root) {
  AvlItem* node = child->parent;
  const std::int32_t lean = LeanTowards(child);
  AvlItem* inner = ChildAt(child, -lean);

  if (IsRoot(node)) {
    *root = child;
    child->parent = child;
  } else {
    child->parent = node->parent;
    ChildAt(node->parent, LeanTowards(node)) = child;
  }
  ChildAt(child, -lean) = node;
  node->parent = child;
  ChildAt(node, lean) = inner;
  if (inner != nullptr) inner->parent = node;
}

// Rotates the grandchild on the inner side above the child and the node, which leans by heavy.
void RotateTwice(AvlItem* node, AvlItem* child, AvlItem* grandchild, std::int32_t heavy,
                 AvlItem** root) {
  const std::int32_t old = grandchild->balance;
  RotateUp(grandchild, root);
  RotateUp(grandchild, root);
  node->balance = old == heavy ? -heavy : 0;
  child->balance = old == -heavy ? heavy : 0;
  grandchild->balance = 0;
}

}  // namespace

void AvlAfterInsert(AvlItem* item, AvlItem** root) {
  item->balance = 0;
  const AvlItem* grown = item;
  AvlItem* node = nullptr;
  do {
    if (IsRoot(grown)) return;
    node = grown->parent;
    const bool wasBalanced = node->balance == 0;
    node->balance += LeanTowards(grown);
    if (!wasBalanced) break;
    grown = node;
  } while (true);

  if (static_cast<std::uint32_t>(node->balance + 2) > 4) LogAssertion("invalid AVL balance value");
  if (node->balance == 0) return;

  const std::int32_t heavy = node->balance < 0 ? -1 : 1;
  AvlItem* child = ChildAt(node, heavy);
  // A balance that is wrong may lean towards nothing; there is nothing to rotate then.
  if (child == nullptr) return;
  if (child->balance == heavy) {
    RotateUp(child, root);
    node->balance = 0;
    child->balance = 0;
    return;
  }
  if (child->balance != -heavy) LogAssertion("serious imbalance on balanced Item");
  AvlItem* grandchild = ChildAt(child, -heavy);
  if (grandchild == nullptr) return;
  RotateTwice(node, child, grandchild, heavy, root);
}

void AvlAfterRemove(AvlItem* parent, AvlItem* /*item*/, AvlItem* /*child*/, AvlSide side,
                    AvlSide /*opposite*/, AvlItem** root) {
  if (parent == nullptr) return;
  AvlItem* node = parent;
  std::int32_t heavy = side == AvlSide::kLeft ? 1 : -1;
  while (true) {
    node->balance += heavy;
    if (node->balance == heavy) return;  // the subtree is as high as before

    AvlItem* top = node;
    if (node->balance != 0) {
      if (node->balance != 2 && node->balance != -2) LogAssertion("bad AVL balance value");
      AvlItem* child = ChildAt(node, heavy);
      if (child == nullptr) return;
      if (child->balance == 0) {
        RotateUp(child, root);
        node->balance = heavy;
        child->balance = -heavy;
        return;
      }
      if (child->balance == heavy) {
        RotateUp(child, root);
        node->balance = 0;
        child->balance = 0;
        top = child;
      } else {
        AvlItem* grandchild = ChildAt(child, -heavy);
        if (grandchild == nullptr) return;
        RotateTwice(node, child, grandchild, heavy, root);
        top = grandchild;
      }
    }
    if (IsRoot(top)) return;
    heavy = -LeanTowards(top);
    node = top->parent;
  }
}

}  // namespace kq
