#include "sparse/node_cache.h"

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {
namespace {

using kq::CachedNode;
using kq::GetNode;

// A file with a number of leaves behind the root, each with one extent.
class NodeCacheTest : public SparseTest {
 protected:
  SparseModel model_;
  std::vector<std::uint64_t> leaves_;
  kq::SparseFileOwner file_;

  void OpenWithLeaves(std::uint16_t cacheNodes, bool readOnly = false) {
    for (int i = 0; i < 6; ++i) {
      ModelNode leaf;
      leaf.count = 1;
      leaf.extents[0] = {1000 * (i + 1), 10, 8192};
      leaves_.push_back(model_.AppendNode(leaf));
    }
    file_ = OpenModel(model_, cacheNodes, readOnly);
  }

  // Asks for a leaf, and tells whether the file was read for it.
  bool IsRead(std::size_t leaf) {
    const CallCounter reads(Call::kRead);
    CachedNode* node = nullptr;
    EXPECT_EQ(GetNode(file_.get(), leaves_[leaf], &node).status, 0);
    if (node != nullptr) {
      EXPECT_EQ(node->Position, leaves_[leaf]);
      EXPECT_EQ(node->Node().Extents[0].Offset, 1000 * static_cast<int>(leaf + 1));
    }
    return reads.count() != 0;
  }

  KQStatus Change(std::size_t leaf, std::uint32_t length) {
    CachedNode* node = nullptr;
    KQ_RETURN_IF_FAILED(GetNode(file_.get(), leaves_[leaf], &node));
    node->Store(4 + 8, &length, sizeof length);
    return kq::Success();
  }

  std::uint64_t LengthOnDisk(std::size_t leaf) const {
    return Get32(File(), leaves_[leaf] + 4 + 8);
  }
};

// The offsets of the writes made while it lives.
class WrittenOffsets {
 public:
  const std::vector<std::int64_t>& seen() const { return written_; }

 private:
  std::int64_t at_ = 0;
  std::vector<std::int64_t> written_;
  BeforeCall seeks_{Call::kSeek, [this](const CallRecord& record) { at_ = record.offset; }};
  BeforeCall writes_{Call::kWrite, [this](const CallRecord&) { written_.push_back(at_); }};
};

using Offsets = std::vector<std::int64_t>;

TEST_F(NodeCacheTest, NodeIsReadOnceWhileItStays) {
  OpenWithLeaves(3);
  EXPECT_TRUE(IsRead(0));
  EXPECT_FALSE(IsRead(0));
  EXPECT_TRUE(IsRead(1));
  EXPECT_FALSE(IsRead(0));
  EXPECT_FALSE(IsRead(1));
  EXPECT_EQ(file_->Nodes.CacheCount(), 2);
}

TEST_F(NodeCacheTest, LongestUnusedNodeGoesFirst) {
  OpenWithLeaves(3);
  IsRead(0);
  IsRead(1);
  IsRead(2);
  EXPECT_FALSE(IsRead(0));  // used again: 1 is the oldest now
  EXPECT_TRUE(IsRead(3));
  EXPECT_FALSE(IsRead(2));
  EXPECT_FALSE(IsRead(0));
  EXPECT_TRUE(IsRead(1));  // 3 goes for it
  EXPECT_TRUE(IsRead(3));
  EXPECT_EQ(file_->Nodes.CacheCount(), 3);
}

TEST_F(NodeCacheTest, LimitOfOneKeepsTheLastNodeAlone) {
  OpenWithLeaves(1);
  EXPECT_TRUE(IsRead(0));
  EXPECT_FALSE(IsRead(0));
  EXPECT_TRUE(IsRead(1));
  EXPECT_TRUE(IsRead(0));
  EXPECT_EQ(file_->Nodes.CacheCount(), 1);
}

TEST_F(NodeCacheTest, LimitOfZeroIsOne) {
  OpenWithLeaves(0);
  EXPECT_EQ(file_->Nodes.CacheLimit, 1);
  EXPECT_TRUE(IsRead(0));
  EXPECT_TRUE(IsRead(1));
  EXPECT_EQ(file_->Nodes.CacheCount(), 1);
}

TEST_F(NodeCacheTest, LargestLimitHolds) {
  OpenWithLeaves(65535);
  for (std::size_t i = 0; i < 6; ++i) EXPECT_TRUE(IsRead(i));
  for (std::size_t i = 0; i < 6; ++i) EXPECT_FALSE(IsRead(i));
}

// A full cache is looked into through its index, whose lists must stay short wherever nodes lie.
TEST(NodeCacheIndex, PositionsSpreadOverAllLists) {
  const int cache = 0;
  for (const std::uint64_t distance :
       {4096U, 8192U, 64U * 4096U, 201U * 4096U, 1U << 20, 1U << 30}) {
    std::vector<int> lists(4096);
    for (std::uint64_t i = 0; i < 65535; ++i) ++lists[kq::HashOf(&cache, i * distance) >> 52];
    EXPECT_LT(*std::max_element(lists.begin(), lists.end()), 64) << distance;  // 16 on average
  }
}

TEST_F(NodeCacheTest, UnchangedNodeIsNotWritten) {
  OpenWithLeaves(1);
  IsRead(0);
  ASSERT_EQ(Change(0, 10).status, 0);  // the value it has
  ASSERT_EQ(kq::SetNodeCount(file_.get(), leaves_[0], 1).status, 0);
  const WrittenOffsets written;
  IsRead(1);
  EXPECT_EQ(written.seen(), Offsets{});
  EXPECT_FALSE(file_->HeaderInUse);
}

TEST_F(NodeCacheTest, FirstChangedNodeIsWrittenBehindTheMark) {
  OpenWithLeaves(1);
  ASSERT_EQ(Change(0, 11).status, 0);
  EXPECT_EQ(File()[12], 0);
  {
    const WrittenOffsets written;
    IsRead(1);
    EXPECT_EQ(written.seen(), (Offsets{0, static_cast<std::int64_t>(leaves_[0])}));
  }
  EXPECT_EQ(File()[12], 1);
  EXPECT_EQ(LengthOnDisk(0), 11U);
  EXPECT_TRUE(file_->HeaderInUse);

  ASSERT_EQ(Change(1, 12).status, 0);
  const WrittenOffsets written;
  IsRead(2);
  EXPECT_EQ(written.seen(), Offsets{static_cast<std::int64_t>(leaves_[1])});
}

TEST_F(NodeCacheTest, ReadOnlyFileIsNeverWritten) {
  OpenWithLeaves(1, true);
  ASSERT_EQ(Change(0, 11).status, 0);
  const WrittenOffsets written;
  IsRead(1);
  EXPECT_EQ(written.seen(), Offsets{});
  EXPECT_TRUE(IsRead(0));
}

TEST_F(NodeCacheTest, ChangesAreLostWithTheWriteThatFails) {
  for (const int goThrough : {0, 1}) {  // the mark fails, the node itself
    SCOPED_TRACE(goThrough);
    leaves_.clear();
    model_ = SparseModel();
    OpenWithLeaves(2);
    IsRead(1);
    ASSERT_EQ(Change(0, 11).status, 0);
    IsRead(1);
    CachedNode* node = nullptr;
    std::string log;
    {
      const FailingCall failing(Call::kWrite, ENOSPC, 100, goThrough);
      log = LogOf(
          [&] { ExpectSystemFailure(GetNode(file_.get(), leaves_[2], &node), -112, ENOSPC); });
    }
    EXPECT_EQ(WithoutLineNumbers(log), WriterLine(101, "0xFFFFFF90"));
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(file_->HeaderInUse, goThrough == 1);
    EXPECT_EQ(file_->Nodes.CacheCount(), 1);
    EXPECT_FALSE(IsRead(1));
    EXPECT_TRUE(IsRead(0));
    EXPECT_EQ(file_->Nodes.first()->Node().Extents[0].Length, 10U);
  }
}

TEST_F(NodeCacheTest, FailedReadLeavesTheOtherNodes) {
  OpenWithLeaves(3);
  IsRead(0);
  CachedNode* node = nullptr;
  {
    const FailingCall failing(Call::kRead, EIO, 100);
    const std::string log =
        LogOf([&] { ExpectSystemFailure(GetNode(file_.get(), leaves_[1], &node), -23, EIO); });
    EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFE9"));
  }
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(file_->Nodes.CacheCount(), 1);
  EXPECT_FALSE(IsRead(0));
  EXPECT_TRUE(IsRead(1));
}

TEST_F(NodeCacheTest, NoMemoryForANodeIsTold) {
  for (const Call call : {Call::kMalloc, Call::kAlignedMalloc}) {
    leaves_.clear();
    model_ = SparseModel();
    OpenWithLeaves(3);
    const FailingCall failing(call, ENOMEM);
    CachedNode* node = nullptr;
    ExpectOwnFailure(GetNode(file_.get(), leaves_[1], &node), -8, "utsparsefile");
    EXPECT_EQ(failing.failures(), 1);
    EXPECT_EQ(file_->Nodes.CacheCount(), 0);
  }
}

TEST_F(NodeCacheTest, MagicIsNotTested) {
  OpenWithLeaves(3);
  Patch(leaves_[0], Bytes{'X', 0, 0xFF, 'Y'});
  EXPECT_TRUE(IsRead(0));
}

TEST_F(NodeCacheTest, NodeBehindTheEndReadsAsZero) {
  OpenWithLeaves(3);
  CachedNode* node = nullptr;
  ASSERT_EQ(GetNode(file_.get(), 1 << 30, &node).status, 0);
  EXPECT_EQ(node->Buffer.size(), 8192U);
  EXPECT_EQ(Bytes(node->Buffer.data(), node->Buffer.data() + 8192), Bytes(8192));
  // The same where a node was in that memory before.
  IsRead(0);
  IsRead(1);
  ASSERT_EQ(GetNode(file_.get(), (1 << 30) + 8192, &node).status, 0);
  EXPECT_EQ(Bytes(node->Buffer.data(), node->Buffer.data() + 8192), Bytes(8192));
}

TEST_F(NodeCacheTest, WhatCannotBeANodeIsCorrupt) {
  const std::vector<std::function<void(ModelNode*)>> damages = {
      [](ModelNode* node) { node->count = 292; },
      [](ModelNode* node) { node->count = 0xFFFFFFFF; },
      [](ModelNode* node) { node->extents[1].length = 0; },
      [](ModelNode* node) { node->extents[0].length = 11; },  // over the next one's start
      [](ModelNode* node) { std::swap(node->extents[0], node->extents[1]); },
      [](ModelNode* node) { node->extents[2].offset = INT64_MAX - 9; },
  };
  for (std::size_t i = 0; i <= damages.size(); ++i) {
    SCOPED_TRACE(i);
    SparseModel model;
    ModelNode leaf;
    leaf.count = 3;
    for (int j = 0; j < 3; ++j) {
      leaf.extents[static_cast<std::size_t>(j)] = {10 * (j - 1), 10, 8192};
    }
    if (i < damages.size()) damages[i](&leaf);
    const std::uint64_t position = model.AppendNode(leaf);
    const kq::SparseFileOwner file = OpenModel(model);
    CachedNode* node = nullptr;
    const KQStatus status = GetNode(file.get(), position, &node);
    if (i == damages.size()) {
      EXPECT_EQ(status.status, 0);
    } else {
      ExpectOwnFailure(status, -1392, "utsparsefile");
      EXPECT_EQ(node, nullptr);
      EXPECT_EQ(file->Nodes.CacheCount(), 0);
    }
  }
}

TEST_F(NodeCacheTest, CountIsStoredAndFetched) {
  OpenWithLeaves(1);
  std::uint32_t count = 0;
  ASSERT_EQ(kq::GetNodeCount(file_.get(), leaves_[0], &count).status, 0);
  EXPECT_EQ(count, 1U);
  ASSERT_EQ(kq::SetNodeCount(file_.get(), leaves_[0], 0).status, 0);
  IsRead(1);
  ASSERT_EQ(kq::GetNodeCount(file_.get(), leaves_[0], &count).status, 0);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(Get32(File(), leaves_[0] + 8160), 0U);
}

TEST_F(NodeCacheTest, NewNodeIsAppendedAtOnceAndNotCached) {
  OpenWithLeaves(3);
  Bytes expected = File();
  const std::size_t end = expected.size();
  SetBytes(&expected, end, Bytes{'N', 'O', 'D', 'E'});
  Set32(&expected, end + 8160, 145);
  SetBytes(&expected, end + 8164, Bytes{1});
  expected.resize(end + 8192);
  std::uint64_t position = 0;
  ASSERT_EQ(kq::AllocateNode(file_.get(), 145, 1, &position).status, 0);
  EXPECT_EQ(position, end);
  EXPECT_EQ(File(), expected);
  EXPECT_EQ(file_->Nodes.CacheCount(), 0);
  EXPECT_FALSE(file_->HeaderInUse);
}

TEST_F(NodeCacheTest, NewNodeInAFileOfBrokenUnitsIsCorrupt) {
  OpenWithLeaves(3);
  Bytes broken = File();
  broken.push_back(1);
  WriteFile(path_, broken);
  std::uint64_t position = 5;
  ExpectOwnFailure(kq::AllocateNode(file_.get(), 0, 1, &position), -1392, "utsparsefile");
  EXPECT_EQ(position, 0U);
  EXPECT_EQ(File(), broken);
}

TEST_F(NodeCacheTest, NoMemoryForANewNodeIsTold) {
  OpenWithLeaves(3);
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  std::uint64_t position = 5;
  ExpectOwnFailure(kq::AllocateNode(file_.get(), 0, 1, &position), -8, "utsparsefile");
}

}  // namespace
}  // namespace kqtest
