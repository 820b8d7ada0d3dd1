#include "sparse/extent_tree.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {
namespace {

using kq::InsertExtent;
using Offsets = std::vector<std::int64_t>;

SparseExtent Extent(std::int64_t offset, std::uint32_t length, std::uint64_t position = 8192) {
  return {offset, length, position};
}

class ExtentTree : public SparseTest {
 protected:
  static Offsets Found(kq::SparseFile* file, std::int64_t offset, std::uint32_t size) {
    kq::ExtentList list;
    EXPECT_EQ(kq::QueryExtents(file, offset, size, &list).status, 0);
    Offsets offsets;
    for (const auto* entry = list.first(); entry != nullptr; entry = kq::ExtentList::Next(entry)) {
      offsets.push_back(entry->Extent.Offset);
    }
    return offsets;
  }

  static KQStatus Query(kq::SparseFile* file) {
    kq::ExtentList list;
    return kq::QueryExtents(file, -1000000, 0xFFFFFFFF, &list);
  }

  static KQStatus Walk(kq::SparseFile* file, Offsets* offsets) {
    return kq::WalkExtents(
        file,
        [](void* context, const SparseExtent& extent) {
          static_cast<Offsets*>(context)->push_back(extent.Offset);
          return kq::Success();
        },
        offsets);
  }
};

TEST_F(ExtentTree, QueryFindsWhatOverlapsAndNothingThatTouches) {
  const kq::SparseFileOwner file = Open();
  for (const std::int64_t offset : {300, 100, 200}) {
    ASSERT_EQ(InsertExtent(file.get(), Extent(offset, 50)).status, 0);
  }
  EXPECT_EQ(Found(file.get(), 0, 100), Offsets{});
  EXPECT_EQ(Found(file.get(), 0, 101), Offsets{100});
  EXPECT_EQ(Found(file.get(), 149, 1), Offsets{100});
  EXPECT_EQ(Found(file.get(), 150, 50), Offsets{});
  EXPECT_EQ(Found(file.get(), 149, 52), (Offsets{100, 200}));
  EXPECT_EQ(Found(file.get(), 120, 10), Offsets{100});
  EXPECT_EQ(Found(file.get(), 0, 1000), (Offsets{100, 200, 300}));
  EXPECT_EQ(Found(file.get(), 350, 1000), Offsets{});
}

TEST_F(ExtentTree, OffsetsCountAsSignedNumbers) {
  const kq::SparseFileOwner file = Open();
  for (const std::int64_t offset : {std::int64_t{0}, INT64_MIN, std::int64_t{-10}}) {
    ASSERT_EQ(InsertExtent(file.get(), Extent(offset, 10)).status, 0);
  }
  EXPECT_EQ(Found(file.get(), -5, 6), (Offsets{-10, 0}));
  EXPECT_EQ(Found(file.get(), INT64_MIN, 1), Offsets{INT64_MIN});
  EXPECT_EQ(Found(file.get(), INT64_MAX - 5, 100), Offsets{});
}

// A root of two extents over three leaves of two each, at 0, 10, ..., 70.
SparseModel TwoLevels() {
  SparseModel model;
  ModelNode root;
  root.leaf = false;
  root.count = 2;
  for (int i = 0; i < 3; ++i) {
    ModelNode leaf;
    leaf.count = 2;
    leaf.extents[0] = {30 * i, 10, 8192};
    leaf.extents[1] = {30 * i + 10, 10, 8192};
    root.children[static_cast<std::size_t>(i)] = model.AppendNode(leaf);
    if (i < 2) root.extents[static_cast<std::size_t>(i)] = {30 * i + 20, 10, 8192};
  }
  model.SetRoot(model.AppendNode(root));
  model.CollectExtents();
  return model;
}

TEST_F(ExtentTree, QueryAnswersInRisingOrderAcrossLevels) {
  for (const std::uint16_t cacheNodes : std::vector<std::uint16_t>{1, 2, 10}) {
    const kq::SparseFileOwner file = OpenModel(TwoLevels(), cacheNodes);
    for (std::int64_t start = -1; start <= 81; ++start) {
      for (std::int64_t end = start + 1; end <= 82; ++end) {
        Offsets expected;
        for (std::int64_t offset = 0; offset <= 70; offset += 10) {
          if (offset < end && offset + 10 > start) expected.push_back(offset);
        }
        ASSERT_EQ(Found(file.get(), start, static_cast<std::uint32_t>(end - start)), expected)
            << start << " " << end;
      }
    }
  }
}

TEST_F(ExtentTree, QueryLeavesTheNodesInTheOrderInWhichItUsedThem) {
  const SparseModel model = TwoLevels();
  const std::vector<std::uint64_t>& children = model.nodes().at(model.root()).children;
  const auto cached = [](const kq::SparseFileOwner& file) {
    std::vector<std::uint64_t> positions;
    for (const kq::CachedNode* node = file->Nodes.first(); node != nullptr;
         node = node->orderLinks.next) {
      positions.push_back(node->Position);
    }
    return positions;
  };
  using Positions = std::vector<std::uint64_t>;
  kq::SparseFileOwner file = OpenModel(model);
  // Up to the root's first extent: child 0, then the root once more.
  Found(file.get(), 0, 30);
  EXPECT_EQ(cached(file), (Positions{model.root(), children[0]}));
  // Nothing in the root overlaps: the leaf was looked at last.
  Found(file.get(), 30, 20);
  EXPECT_EQ(cached(file), (Positions{children[1], model.root(), children[0]}));
  // Behind the last extent of the root comes the last child, and then nothing.
  file = OpenModel(model);
  Found(file.get(), 50, 20);
  EXPECT_EQ(cached(file), (Positions{children[2], model.root()}));
  // All: each child between two looks at the root, but for the last.
  file = OpenModel(model);
  Found(file.get(), 0, 80);
  EXPECT_EQ(cached(file), (Positions{children[2], model.root(), children[1], children[0]}));
}

TEST_F(ExtentTree, FirstSplitMakesARootOfOneOverLeavesOf145And145) {
  const kq::SparseFileOwner file = Open(kq::SparseMode::kCreateNew, 1);
  for (int i = 0; i < 291; ++i) {
    ASSERT_EQ(InsertExtent(file.get(), Extent(10 * i, 10)).status, 0);
  }
  EXPECT_EQ(file->RootNode, 8192U);
  EXPECT_EQ(File().size(), 16384U);

  ASSERT_EQ(InsertExtent(file.get(), Extent(2910, 10)).status, 0);
  // The new root is appended first, then the right leaf.
  EXPECT_EQ(file->RootNode, 16384U);
  EXPECT_EQ(File().size(), 32768U);
  EXPECT_EQ(Get64(File(), 4), 8192U);  // the block lags behind until it is written next
  ASSERT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);

  const SparseModel found(File());
  ASSERT_EQ(found.root(), 16384U);
  const ModelNode& root = found.nodes().at(16384);
  EXPECT_FALSE(root.leaf);
  ASSERT_EQ(root.count, 1U);
  EXPECT_EQ(root.extents[0].offset, 1450);
  EXPECT_EQ(root.children[0], 8192U);
  EXPECT_EQ(root.children[1], 24576U);
  const ModelNode& left = found.nodes().at(8192);
  const ModelNode& right = found.nodes().at(24576);
  EXPECT_TRUE(left.leaf);
  EXPECT_TRUE(right.leaf);
  EXPECT_EQ(left.count, 145U);
  EXPECT_EQ(right.count, 146U);  // 291 extents between the two
  EXPECT_EQ(left.extents[144].offset, 1440);
  EXPECT_EQ(left.extents[290].offset, 2900);  // what moved away still stands there
  EXPECT_EQ(right.extents[0].offset, 1460);
  EXPECT_EQ(right.extents[145].offset, 2910);
}

TEST_F(ExtentTree, SplitOfANodeWithChildrenMovesThemToo) {
  const SparseModel full = FullTree();
  // At both ends, and on both sides of the extent that moves up in the root and in a leaf.
  const std::pair<std::int64_t, std::uint16_t> cases[] = {
      {-1, 1}, {1, 2}, {289, 3}, {291, 10}, {85117, 1}, {85119, 2}, {100001, 3}, {170525, 10}};
  for (const auto& [offset, cacheNodes] : cases) {
    SCOPED_TRACE(offset);
    SparseModel model = full;
    const std::uint64_t handle = OpenModelHandle(model, cacheNodes);
    const Bytes byte{0x55};
    ASSERT_EQ(KQSparseFileWrite(handle, static_cast<std::uint64_t>(offset), byte.data(), 1, nullptr)
                  .status,
              0);
    ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
    model.Write(offset, byte);
    ASSERT_TRUE(File() == model.File());
  }
}

TEST_F(ExtentTree, FullRootOfAReadOnlyFileIsWriteProtected) {
  const kq::SparseFileOwner file = OpenModel(FullTree(), 10, true);
  ExpectOwnFailure(InsertExtent(file.get(), Extent(1, 1)), -19, "utsparsefile");
}

// A root that is a full leaf, and a full root over full leaves.
TEST_F(ExtentTree, FailedInsertionLeavesTheTreeIfNothingWasLost) {
  SparseModel leafOnly;
  for (int i = 0; i < 291; ++i) leafOnly.Write(2 * i, Bytes(1));
  struct Case {
    const SparseModel model;
    std::uint16_t cacheNodes;  // enough to evict no changed node
    int transfers;
  };
  for (const Case& c : {Case{leafOnly, 3, 5}, Case{FullTree(), 10, 8}}) {
    for (int after = 0; after <= c.transfers; ++after) {
      SCOPED_TRACE(after);
      const kq::SparseFileOwner file = OpenModel(c.model, c.cacheNodes);
      KQStatus status;
      LogOf([&] {
        const FailingCall failing(Call::kSeek, EIO, 100, after);
        status = InsertExtent(file.get(), Extent(1, 1));
      });
      Offsets expected;
      for (const auto& [offset, extent] : c.model.extents()) expected.push_back(offset);
      if (after < c.transfers) {
        ExpectSystemFailure(status, -23, EIO);
      } else {
        EXPECT_EQ(status.status, 0);
        expected.insert(expected.begin() + 1, 1);
      }
      Offsets walked;
      ASSERT_EQ(Walk(file.get(), &walked).status, 0);
      EXPECT_TRUE(walked == expected);
    }
  }
}

// A read takes nothing away, however few nodes there is room for.
TEST_F(ExtentTree, FailedReadWithinAnInsertionLeavesTheTree) {
  SparseModel leafOnly;
  for (int i = 0; i < 291; ++i) leafOnly.Write(2 * i, Bytes(1));
  // A root with a full leaf and an empty one.
  SparseModel below = leafOnly;
  ModelNode root;
  root.leaf = false;
  root.count = 1;
  root.extents[0] = {1000, 1, 8192};
  root.children[0] = below.root();
  root.children[1] = below.AppendNode(ModelNode());
  below.SetRoot(below.AppendNode(root));
  below.CollectExtents();
  for (const SparseModel& model : {leafOnly, below}) {
    Offsets expected;
    for (const auto& [offset, extent] : model.extents()) expected.push_back(offset);
    for (const std::uint16_t cacheNodes : std::vector<std::uint16_t>{1, 2, 3}) {
      for (const Call call : {Call::kRead, Call::kAlignedMalloc}) {
        int failures = 0;
        for (int after = 0;; ++after) {
          SCOPED_TRACE(std::to_string(cacheNodes) + " " + std::to_string(after));
          const kq::SparseFileOwner file = OpenModel(model, cacheNodes);
          KQStatus status;
          LogOf([&] {
            const FailingCall failing(call, EIO, 100, after);
            status = InsertExtent(file.get(), Extent(1, 1));
          });
          Offsets walked;
          ASSERT_EQ(Walk(file.get(), &walked).status, 0);
          if (status.status == 0) {
            EXPECT_EQ(walked.size(), expected.size() + 1);
            break;
          }
          ++failures;
          EXPECT_EQ(status.status, call == Call::kRead ? -23 : -8);
          EXPECT_TRUE(walked == expected);
          ASSERT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
          EXPECT_EQ(SparseModel(File()).extents().size(), expected.size());
        }
        EXPECT_GE(failures, call == Call::kRead ? 3 : 2);
      }
    }
  }
}

TEST_F(ExtentTree, WalkMeetsAllExtentsInOrder) {
  const SparseModel model = FullTree();
  Offsets expected;
  for (const auto& [offset, extent] : model.extents()) expected.push_back(offset);
  for (const std::uint16_t cacheNodes : std::vector<std::uint16_t>{1, 10}) {
    const kq::SparseFileOwner file = OpenModel(model, cacheNodes, true);
    Offsets walked;
    ASSERT_EQ(Walk(file.get(), &walked).status, 0);
    EXPECT_TRUE(walked == expected);
  }
}

TEST_F(ExtentTree, WalkEndsWithTheVisitsFailure) {
  const kq::SparseFileOwner file = OpenModel(TwoLevels());
  int visits = 0;
  const KQStatus status = kq::WalkExtents(
      file.get(),
      [](void* context, const SparseExtent&) {
        KQStatus stop{};
        if (++*static_cast<int*>(context) == 3) stop.status = -5;
        return stop;
      },
      &visits);
  EXPECT_EQ(status.status, -5);
  EXPECT_EQ(visits, 3);
}

TEST_F(ExtentTree, EachAllocationOfAQueryIsNeeded) {
  const kq::SparseFileOwner file = OpenModel(TwoLevels());
  ASSERT_EQ(Query(file.get()).status, 0);  // all nodes are in the cache now
  for (int after = 0; after < 8; ++after) {
    const FailingCall failing(Call::kMalloc, ENOMEM, 1, after);
    ExpectOwnFailure(Query(file.get()), -8, "utsparsefile");
  }
  EXPECT_EQ(Query(file.get()).status, 0);
}

// Trees that lead in circles are told as corrupt, by all that goes through them, and in short time.
class DamagedTree : public ExtentTree {
 protected:
  void ExpectCorrupt(const SparseModel& model) {
    const kq::SparseFileOwner file = OpenModel(model);
    ExpectOwnFailure(Query(file.get()), -1392, "utsparsefile");
    Offsets offsets;
    ExpectOwnFailure(Walk(file.get(), &offsets), -1392, "utsparsefile");
  }
};

TEST_F(DamagedTree, RootThatIsItsOwnChild) {
  SparseModel model = TwoLevels();
  for (const std::size_t child : {0U, 1U, 2U}) {
    SparseModel damaged = model;
    damaged.NodeAt(model.root()).children[child] = model.root();
    ExpectCorrupt(damaged);
  }
}

TEST_F(DamagedTree, EmptyNodeThatIsItsOwnChild) {
  SparseModel model;
  ModelNode node;
  node.leaf = false;
  const std::uint64_t position = model.AppendNode(node);
  model.NodeAt(position).children[0] = position;
  model.SetRoot(position);
  ExpectCorrupt(model);
  const kq::SparseFileOwner file = OpenModel(model);
  ExpectOwnFailure(InsertExtent(file.get(), Extent(0, 1)), -1392, "utsparsefile");
}

TEST_F(DamagedTree, RootInTheHeaderBlockOrBehindTheEnd) {
  // Both read as an empty node with children, which leads to the header block again.
  for (const std::uint64_t root : {0ULL, 1ULL << 30}) {
    SparseModel model = TwoLevels();
    model.SetRoot(root);
    ExpectCorrupt(model);
  }
}

// Clients have such files, and take what they are given.
TEST_F(DamagedTree, ChildThatLeadsElsewhereIsNotNoticed) {
  SparseModel model = TwoLevels();
  std::vector<std::uint64_t>& children = model.NodeAt(model.root()).children;
  std::swap(children[0], children[1]);
  const kq::SparseFileOwner swapped = OpenModel(model);
  const Offsets inOrderOfTheTree = {30, 40, 20, 0, 10, 50, 60, 70};
  Offsets walked;
  ASSERT_EQ(Walk(swapped.get(), &walked).status, 0);
  EXPECT_EQ(walked, inOrderOfTheTree);
  EXPECT_EQ(Found(swapped.get(), 0, 80), inOrderOfTheTree);
  EXPECT_EQ(Found(swapped.get(), 0, 20), Offsets{});  // the place for it is the other leaf's
  EXPECT_EQ(Found(swapped.get(), 65, 1), Offsets{60});

  children[0] = children[1];
  const kq::SparseFileOwner twice = OpenModel(model);
  EXPECT_EQ(Found(twice.get(), 0, 80), (Offsets{0, 10, 20, 0, 10, 50, 60, 70}));
  EXPECT_EQ(Found(twice.get(), 30, 20), Offsets{});

  model.SetRoot(children[2]);
  const kq::SparseFileOwner lower = OpenModel(model);
  EXPECT_EQ(Found(lower.get(), 0, 80), (Offsets{60, 70}));
}

TEST_F(DamagedTree, ManyWaysThroughFewNodesEndSoon) {
  // Each node leads to the next 292 times, which makes 292 to the power of 60.
  SparseModel model;
  ModelNode leaf;
  leaf.count = 1;
  leaf.extents[0] = {5, 1, 8192};
  std::uint64_t below = model.AppendNode(leaf);
  for (int level = 0; level < 60; ++level) {
    ModelNode node;
    node.leaf = false;
    node.count = 291;
    for (std::size_t i = 0; i < 291; ++i) {
      node.extents[i] = {static_cast<std::int64_t>(10 * (i + 1)), 1, 8192};
    }
    node.children.assign(292, below);
    below = model.AppendNode(node);
  }
  model.SetRoot(below);
  ExpectCorrupt(model);
}

TEST_F(DamagedTree, PositionNobodyCanSeekTo) {
  SparseModel model = TwoLevels();
  model.NodeAt(model.root()).children[1] = ~std::uint64_t{0};
  const kq::SparseFileOwner file = OpenModel(model);
  KQStatus status;
  const std::string log = LogOf([&] { status = Query(file.get()); });
  ExpectSystemFailure(status, -87, EINVAL);
  EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFA9"));
}

}  // namespace
}  // namespace kqtest
