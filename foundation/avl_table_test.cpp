#include "foundation/avl_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/test_seed.h"

namespace {

using kq::AvlInsertResult;
using kq::AvlItem;
using kq::AvlSide;
using kq::AvlTable;

using Keys = std::vector<std::uint64_t>;

struct Payload {
  std::uint64_t key;
  std::uint64_t mark;
};

// What the callbacks of the table under test have seen. The table gives no place for it in every
// callback, so it is one for the running test.
struct Calls {
  int allocations = 0;
  int frees = 0;
  int copies = 0;
  int destroyedTables = 0;
  Keys destroyedKeys;
  std::vector<const AvlItem*> found;
  bool allocationFails = false;
};
Calls calls;

std::uint64_t KeyOf(AvlItem* item) { return static_cast<Payload*>(kq::AvlPayload(item))->key; }

std::int32_t Compare(const AvlTable* /*table*/, const void* a, const void* b) {
  const std::uint64_t left = static_cast<const Payload*>(a)->key;
  const std::uint64_t right = static_cast<const Payload*>(b)->key;
  return left < right ? -1 : left > right ? 1 : 0;
}
AvlItem* Alloc(std::uint64_t size) {
  EXPECT_EQ(size, sizeof(AvlItem) + sizeof(Payload));
  if (calls.allocationFails) return nullptr;
  ++calls.allocations;
  return kq::AvlAllocItem(size);
}
void Free(std::uint64_t size, AvlItem* item) {
  EXPECT_EQ(size, sizeof(AvlItem) + sizeof(Payload));
  ++calls.frees;
  kq::AvlFreeItem(size, item);
}
void CopyPayload(AvlTable* table, void* to, const void* from) {
  ++calls.copies;
  std::memcpy(to, from, table->payloadSize);
  static_cast<Payload*>(to)->mark += 1000;
}
void DestroyPayload(AvlTable* /*table*/, void* payload) {
  calls.destroyedKeys.push_back(static_cast<Payload*>(payload)->key);
}
void DestroyTable(std::uint64_t itemSize) {
  EXPECT_EQ(itemSize, sizeof(AvlItem) + sizeof(Payload));
  ++calls.destroyedTables;
}
void OnFind(AvlItem* item, AvlItem** root) {
  EXPECT_NE(root, nullptr);
  calls.found.push_back(item);
}

class AvlTableTest : public testing::Test {
 protected:
  AvlTableTest() {
    calls = Calls();
    table_.itemSize = kq::AvlItemSize(sizeof(Payload));
    table_.allocItem = Alloc;
    table_.freeItem = Free;
    table_.afterInsert = kq::AvlAfterInsert;
    table_.afterRemove = kq::AvlAfterRemove;
    table_.compare = Compare;
    table_.payloadSize = sizeof(Payload);
  }
  ~AvlTableTest() override {
    table_.freeItem = Free;
    kq::AvlTearDown(&table_);
    EXPECT_EQ(calls.allocations, calls.frees);
  }

  AvlItem* Insert(std::uint64_t key) {
    const Payload payload{key, key * 3};
    AvlItem* item = nullptr;
    EXPECT_EQ(kq::AvlInsert(&table_, &payload, &item), AvlInsertResult::kInserted) << key;
    return item;
  }
  AvlItem* Find(std::uint64_t key) {
    const Payload wanted{key, 0};
    return kq::AvlFind(&table_, &wanted);
  }
  void Remove(std::uint64_t key) {
    AvlItem* item = Find(key);
    ASSERT_NE(item, nullptr) << key;
    kq::AvlRemove(&table_, item, true);
  }

  // Checks links and balances below item and gives the subtree's height; keys come in order.
  int Check(AvlItem* item, Keys* keys) {
    if (item == nullptr) return 0;
    if (item->left != nullptr) {
      EXPECT_EQ(item->left->parent, item);
    }
    const int left = Check(item->left, keys);
    keys->push_back(KeyOf(item));
    if (item->right != nullptr) {
      EXPECT_EQ(item->right->parent, item);
    }
    const int right = Check(item->right, keys);
    EXPECT_EQ(item->balance, right - left) << "at key " << KeyOf(item);
    EXPECT_LE(std::abs(right - left), 1) << "at key " << KeyOf(item);
    return 1 + std::max(left, right);
  }
  // The tree is sound and holds exactly these keys, which are given in order.
  int ExpectTree(const Keys& keys) {
    EXPECT_EQ(table_.count, keys.size());
    EXPECT_EQ(table_.root == nullptr, keys.empty());
    if (table_.root != nullptr) {
      EXPECT_EQ(table_.root->parent, table_.root);
    }
    Keys held;
    const int height = Check(table_.root, &held);
    EXPECT_EQ(held, keys);
    return height;
  }

  AvlTable table_{};
};

Keys OneTo(std::uint64_t n) {
  Keys keys(n);
  std::iota(keys.begin(), keys.end(), 1);
  return keys;
}

TEST_F(AvlTableTest, EmptyTableFindsNothing) {
  EXPECT_EQ(Find(1), nullptr);
  ExpectTree({});
}

TEST_F(AvlTableTest, InsertedItemHoldsACopyOfThePayload) {
  AvlItem* item = Insert(7);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(static_cast<Payload*>(kq::AvlPayload(item))->mark, 21U);
  EXPECT_EQ(kq::AvlItemOf(kq::AvlPayload(item)), item);
  EXPECT_EQ(item->parent, item);
  EXPECT_EQ(item->balance, 0);
  EXPECT_EQ(Find(7), item);
  EXPECT_EQ(Find(6), nullptr);
  EXPECT_EQ(Find(8), nullptr);
}

TEST_F(AvlTableTest, RemovingTheRootOfAOneItemTreeLeavesNothing) {
  Insert(7);
  Remove(7);
  EXPECT_EQ(table_.root, nullptr);
  EXPECT_EQ(table_.count, 0U);
  EXPECT_EQ(calls.frees, 1);
  Insert(8);
  ExpectTree({8});
}

TEST_F(AvlTableTest, DuplicateKeyIsRefusedAndChangesNothing) {
  for (const std::uint64_t key : Keys{5, 3, 9}) Insert(key);
  for (const std::uint64_t key : Keys{5, 3, 9}) {
    const Payload payload{key, 0};
    auto* item = reinterpret_cast<AvlItem*>(&calls);
    EXPECT_EQ(kq::AvlInsert(&table_, &payload, &item), AvlInsertResult::kDuplicateKey);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(static_cast<Payload*>(kq::AvlPayload(Find(key)))->mark, key * 3);
  }
  EXPECT_EQ(calls.allocations, 3);
  ExpectTree({3, 5, 9});
}

TEST_F(AvlTableTest, FailedAllocationLeavesTheTreeAsItWas) {
  for (const std::uint64_t key : Keys{5, 3}) Insert(key);
  calls.allocationFails = true;
  const Payload payload{2, 0};
  auto* item = reinterpret_cast<AvlItem*>(&calls);
  EXPECT_EQ(kq::AvlInsert(&table_, &payload, &item), AvlInsertResult::kOutOfMemory);
  EXPECT_EQ(item, nullptr);
  ExpectTree({3, 5});
}

TEST_F(AvlTableTest, AscendingKeysKeepTheTreeBalancedAndLogNothing) {
  testing::internal::CaptureStderr();
  Keys keys;
  for (std::uint64_t key = 1; key <= 600; ++key) {
    Insert(key);
    keys.push_back(key);
    const int height = ExpectTree(keys);
    // Ascending insertion fills each level before the next: 2^k - 1 keys make k full levels.
    if ((key & (key + 1)) == 0) {
      EXPECT_EQ(std::uint64_t{1} << height, key + 1);
    }
    ASSERT_FALSE(HasFailure()) << "after key " << key;
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(AvlTableTest, DescendingKeysKeepTheTreeBalanced) {
  for (std::uint64_t key = 600; key >= 1; --key) Insert(key);
  ExpectTree(OneTo(600));
}

// All orders of insertion of seven keys, and from each tree the removal of each key.
TEST_F(AvlTableTest, EverySmallTreeStaysBalancedAfterEveryRemoval) {
  testing::internal::CaptureStderr();
  Keys order = OneTo(7);
  do {
    for (std::uint64_t removed = 1; removed <= 7; ++removed) {
      for (const std::uint64_t key : order) Insert(key);
      ExpectTree(OneTo(7));
      Remove(removed);
      Keys rest = OneTo(7);
      rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(removed - 1));
      ExpectTree(rest);
      kq::AvlTearDown(&table_);
      ASSERT_FALSE(HasFailure()) << "removed " << removed << " from the order "
                                 << testing::PrintToString(order);
    }
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(AvlTableTest, RandomInsertionsAndRemovalsMatchAPlainMap) {
  const unsigned seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  testing::internal::CaptureStderr();
  std::map<std::uint64_t, AvlItem*> model;
  for (int step = 0; step < 3000; ++step) {
    const std::uint64_t key = random() % 250;
    // Phases of growing and of shrinking, so that the tree is emptied again and again.
    const bool insert = random() % 4 < (step / 500 % 2 == 0 ? 3U : 1U);
    const auto known = model.find(key);
    if (insert && known == model.end()) {
      model.emplace(key, Insert(key));
    } else if (!insert && known != model.end()) {
      kq::AvlRemove(&table_, known->second, true);
      model.erase(known);
    } else {
      EXPECT_EQ(Find(key), known == model.end() ? nullptr : known->second);
      continue;
    }
    Keys keys;
    for (const auto& [modelKey, item] : model) {
      keys.push_back(modelKey);
      // Items never move, and payloads stay with their items.
      EXPECT_EQ(KeyOf(item), modelKey);
    }
    ExpectTree(keys);
    ASSERT_FALSE(HasFailure()) << "step " << step;
  }
  for (const auto& [key, item] : model) EXPECT_EQ(Find(key), item);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(AvlTableTest, RemovingAnItemWithTwoChildrenMovesNoItem) {
  // 8 is the root; its successor 9 is a leaf deep in the right subtree, that of 12 is its child.
  std::map<std::uint64_t, AvlItem*> items;
  for (const std::uint64_t key : Keys{8, 4, 12, 2, 6, 10, 13, 1, 9, 11, 14})
    items[key] = Insert(key);
  for (const std::uint64_t removed : Keys{8, 12, 4}) {
    ASSERT_NE(items[removed]->left, nullptr);
    ASSERT_NE(items[removed]->right, nullptr);
    kq::AvlRemove(&table_, items[removed], true);
    items.erase(removed);
    Keys keys;
    for (const auto& [key, item] : items) {
      EXPECT_EQ(Find(key), item);
      EXPECT_EQ(static_cast<Payload*>(kq::AvlPayload(item))->mark, key * 3);
      keys.push_back(key);
    }
    ExpectTree(keys);
  }
}

TEST_F(AvlTableTest, RemovalWithoutDestroyLeavesTheItemToTheCaller) {
  table_.destroyPayload = DestroyPayload;
  for (const std::uint64_t key : Keys{2, 1, 3}) Insert(key);
  AvlItem* item = Find(2);
  kq::AvlRemove(&table_, item, false);
  ExpectTree({1, 3});
  EXPECT_EQ(calls.frees, 0);
  EXPECT_TRUE(calls.destroyedKeys.empty());
  EXPECT_EQ(KeyOf(item), 2U);
  Free(table_.itemSize, item);
}

TEST_F(AvlTableTest, OptionalCallbacksAreUsedWhereTheyAreSet) {
  table_.copyPayload = CopyPayload;
  table_.destroyPayload = DestroyPayload;
  table_.onFind = OnFind;
  for (const std::uint64_t key : Keys{2, 1, 3}) Insert(key);
  EXPECT_EQ(calls.copies, 3);
  EXPECT_EQ(static_cast<Payload*>(kq::AvlPayload(table_.root))->mark, 1006U);
  AvlItem* three = Find(3);
  Find(4);
  EXPECT_EQ(calls.found, (std::vector<const AvlItem*>{three, nullptr}));
  kq::AvlRemove(&table_, three, true);
  EXPECT_EQ(calls.destroyedKeys, (Keys{3}));
  // Rebalancing and exchanging places copies no payload.
  kq::AvlRemove(&table_, table_.root, true);
  EXPECT_EQ(calls.copies, 3);
}

void CheckAfterRemove(AvlItem* parent, AvlItem* item, AvlItem* child, AvlSide side,
                      AvlSide opposite, AvlItem** root) {
  EXPECT_NE(side, opposite);
  switch (KeyOf(item)) {
    case 4:  // a leaf on the right of 3
      EXPECT_EQ(KeyOf(parent), 3U);
      EXPECT_EQ(side, AvlSide::kRight);
      EXPECT_EQ(child, nullptr);
      break;
    case 1:  // a leaf on the left of 2
      EXPECT_EQ(KeyOf(parent), 2U);
      EXPECT_EQ(side, AvlSide::kLeft);
      EXPECT_EQ(child, nullptr);
      break;
    case 2:  // the root, with the child 3
      EXPECT_EQ(parent, nullptr);
      EXPECT_EQ(KeyOf(child), 3U);
      EXPECT_EQ(child->parent, child);
      break;
    default:
      ADD_FAILURE();
  }
  kq::AvlAfterRemove(parent, item, child, side, opposite, root);
}

TEST_F(AvlTableTest, AfterRemoveIsToldParentChildAndSide) {
  for (const std::uint64_t key : Keys{2, 1, 3, 4}) Insert(key);
  table_.afterRemove = CheckAfterRemove;
  for (const std::uint64_t key : Keys{4, 1, 2}) Remove(key);
  ExpectTree({3});
}

TEST_F(AvlTableTest, TearDownDestroysEachItemOnceChildrenFirst) {
  table_.destroyPayload = DestroyPayload;
  table_.destroyTable = DestroyTable;
  for (const std::uint64_t key : Keys{4, 2, 6, 1, 3, 5, 7}) Insert(key);
  kq::AvlTearDown(&table_);
  EXPECT_EQ(calls.destroyedKeys, (Keys{1, 3, 2, 5, 7, 6, 4}));
  EXPECT_EQ(calls.frees, 7);
  EXPECT_EQ(calls.destroyedTables, 1);
  ExpectTree({});
}

TEST_F(AvlTableTest, TearDownWithoutDestroyersLeavesTheItemsAlone) {
  AvlItem* item = Insert(4);
  table_.freeItem = nullptr;
  kq::AvlTearDown(&table_);
  ExpectTree({});
  EXPECT_EQ(KeyOf(item), 4U);
  Free(table_.itemSize, item);
}

// Balances that can't be, forged by hand: the line is printed and the operation goes on to its
// ordinary result.
TEST_F(AvlTableTest, ImpossibleBalanceAtInsertionIsLoggedAndSurvived) {
  Insert(10)->balance = 7;
  testing::internal::CaptureStderr();
  AvlItem* added = Insert(20);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ASSERT: invalid AVL balance value!\n"
            "ASSERT: serious imbalance on balanced Item!\n");
  EXPECT_EQ(Find(20), added);
  EXPECT_EQ(table_.count, 2U);
}

TEST_F(AvlTableTest, HeavyChildThatLeansNowhereAtInsertionIsLoggedAndSurvived) {
  Insert(10)->balance = 1;
  testing::internal::CaptureStderr();
  AvlItem* added = Insert(20);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ASSERT: serious imbalance on balanced Item!\n");
  EXPECT_EQ(Find(20), added);
  EXPECT_EQ(Find(10)->right, added);
}

TEST_F(AvlTableTest, ImpossibleBalanceWithoutAHeavyChildIsSurvived) {
  Insert(10)->balance = -7;
  testing::internal::CaptureStderr();
  AvlItem* added = Insert(20);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: invalid AVL balance value!\n");
  EXPECT_EQ(Find(20), added);
}

TEST_F(AvlTableTest, ImpossibleBalanceAtRemovalIsLoggedAndSurvived) {
  Insert(10);
  Insert(5);
  AvlItem* right = Insert(20);
  Find(10)->balance = 5;
  testing::internal::CaptureStderr();
  Remove(5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: bad AVL balance value!\n");
  EXPECT_EQ(Find(20), right);
  EXPECT_NE(Find(10), nullptr);
  EXPECT_EQ(table_.count, 2U);
}

TEST_F(AvlTableTest, RemovalFromAForgedTreeWithoutAHeavyChildIsSurvived) {
  Insert(10);
  Insert(5);
  Find(10)->balance = 1;
  Remove(5);
  EXPECT_EQ(table_.count, 1U);
  EXPECT_NE(Find(10), nullptr);
}

}  // namespace
