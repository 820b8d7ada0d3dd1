#include "image/chunk_header_cache.h"

#include <vector>

#include "image/allocation_calls_test.h"
#include "image/chain_test_support.h"
#include "image/image_room.h"

namespace kq {
namespace {

class ChunkHeaderCacheTest : public ::testing::Test {
 protected:
  ImageFolder folder_;
  OpenImageFile* file_ = nullptr;

  void SetUp() override { ImageRoomStart(Configuration()); }
  void TearDown() override {
    OpenImageFileRelease(file_);
    ImageRoomStart(Configuration());
  }

  // A file with one chunk for each count of runs.
  void OpenFile(const std::vector<std::uint32_t>& runCounts, std::uint32_t number = 1) {
    ImageSpec spec;
    spec.header.sectorSize = 4096;
    spec.header.imageId = kqtest::MakeId(number);
    std::uint64_t at = 0;
    for (const std::uint32_t runCount : runCounts) {
      std::vector<VolumeRun> runs;
      for (std::uint32_t i = 0; i < runCount; ++i) runs.push_back({at + i * 0x4000u, 1 + i % 3});
      ChunkSpec chunk = RawChunk(runs, {});
      chunk.indexVolumeOffset = at;
      spec.chunks.push_back(chunk);
      at += 0x10000000;
    }
    const std::string path = folder_.Write("image" + std::to_string(number), spec);
    ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &file_).status, 0);
    ASSERT_EQ(file_->ChunkCount, runCounts.size());
  }

  ChunkHeaderEntry* Get(std::uint32_t chunkNumber) {
    ChunkHeaderEntry* entry = nullptr;
    const KQStatus status =
        ChunkHeaderGet(file_, file_->IndexEntries[chunkNumber - 1], chunkNumber, &entry);
    EXPECT_EQ(status.status, 0);
    return entry;
  }
  void GetAndPut(std::uint32_t chunkNumber) { ChunkHeaderPut(Get(chunkNumber)); }

  static std::uint64_t CountedBytes() {
    const MutexLock lock(chunkHeaderCacheMutex);
    return chunkHeaderCacheBytes;
  }
  // The numbers of the cached chunks, most recently used first, in both orders.
  std::vector<std::uint32_t> Order() {
    const MutexLock lock(chunkHeaderCacheMutex);
    std::vector<std::uint32_t> order;
    for (const ChunkHeaderEntry* entry = chunkHeaderOrder.first(); entry != nullptr;
         entry = ChunkHeaderOrder::Next(entry)) {
      order.push_back(entry->ChunkNumber);
    }
    std::vector<std::uint32_t> ofFile;
    for (const ChunkHeaderEntry* entry = file_->CachedHeads.first(); entry != nullptr;
         entry = CachedHeadList::Next(entry)) {
      ofFile.push_back(entry->ChunkNumber);
    }
    EXPECT_EQ(order, ofFile);
    return order;
  }
};

using Numbers = std::vector<std::uint32_t>;

TEST_F(ChunkHeaderCacheTest, EntryTellsTheHeadAndItsRuns) {
  OpenFile({2, 5});
  ChunkHeaderEntry* entry = Get(2);
  EXPECT_EQ(entry->ChunkNumber, 2u);
  EXPECT_EQ(entry->VolumeOffset, 0x10000000u);
  EXPECT_EQ(entry->FileOffset, file_->IndexEntries[1].FileOffset);
  EXPECT_EQ(entry->StoredSectors, 1u + 1 + 2 + 3 + 1 + 2);
  EXPECT_EQ(entry->ExpandedSectors, entry->StoredSectors);
  ASSERT_EQ(entry->RunCount, 5u);
  std::uint32_t first = 1;  // sector 0 is the head
  for (std::uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(entry->Runs[i].VolumeOffset, 0x10000000u + i * 0x4000u);
    EXPECT_EQ(entry->Runs[i].Sectors, 1 + i % 3);
    EXPECT_EQ(entry->Runs[i].FirstSector, first);
    first += 1 + i % 3;
  }
  ChunkHeaderPut(entry);
}

// There are more of them than the index has buckets, so some share one.
TEST_F(ChunkHeaderCacheTest, ThousandsOfHeadsAreToldApartByTheirNumbers) {
  constexpr std::uint32_t kHeads = 5000;
  OpenFile({1});
  std::vector<ChunkHeaderEntry*> entries;
  for (std::uint32_t number = 1; number <= kHeads; ++number) {
    ChunkHeaderEntry* entry = nullptr;
    ASSERT_EQ(ChunkHeaderGet(file_, file_->IndexEntries[0], number, &entry).status, 0);
    EXPECT_EQ(entry->ChunkNumber, number);
    entries.push_back(entry);
    ChunkHeaderPut(entry);
  }
  for (std::uint32_t number = 1; number <= kHeads; ++number) {
    ChunkHeaderEntry* entry = nullptr;
    ASSERT_EQ(ChunkHeaderGet(file_, file_->IndexEntries[0], number, &entry).status, 0);
    EXPECT_EQ(entry, entries[number - 1]);
    ChunkHeaderPut(entry);
  }
}

// While one thread has read a chunk's head and is about to enter it, another one does the same.
TEST_F(ChunkHeaderCacheTest, HeadThatTwoReadAtOnceIsEnteredOnce) {
  OpenFile({2});
  GetAndPut(1);
  const std::uint64_t cost = CountedBytes();
  ResetChunkHeaderCache();

  ChunkHeaderEntry* others = nullptr;
  ChunkHeaderEntry* own = nullptr;
  {
    const kqtest::BeforeNextAllocation meanwhile([&] { others = Get(1); });
    own = Get(1);
  }
  ASSERT_NE(others, nullptr);
  EXPECT_EQ(own, others);
  EXPECT_EQ(Order(), Numbers{1});
  EXPECT_EQ(CountedBytes(), cost);
  const auto users = [&] {
    const MutexLock lock(chunkHeaderCacheMutex);
    return own->refCount;
  };
  EXPECT_EQ(users(), 2u);
  ChunkHeaderPut(own);
  ChunkHeaderPut(others);
  EXPECT_EQ(users(), 0u);
}

TEST_F(ChunkHeaderCacheTest, CostFollowsTheSizeClassOfTheRunTable) {
  const std::vector<std::uint32_t> counts = {0, 1, 16, 17, 32, 33, 64, 65, 100};
  const std::vector<std::uint64_t> costs = {80,   336,  336,           592,           592,
                                            1104, 1104, 16 * (65 + 5), 16 * (100 + 5)};
  OpenFile(counts);
  std::uint64_t counted = 0;
  for (std::uint32_t i = 0; i < counts.size(); ++i) {
    GetAndPut(i + 1);
    counted += costs[i];
    EXPECT_EQ(CountedBytes(), counted) << counts[i] << " runs";
  }
  // Evicted, each takes the same away, but for the one without runs.
  {
    const MutexLock lock(chunkHeaderCacheMutex);
    for (std::uint32_t i = 0; i < counts.size(); ++i) {
      EXPECT_TRUE(ChunkHeaderEvictOne());
      if (counts[i] != 0) counted -= costs[i];
      EXPECT_EQ(chunkHeaderCacheBytes, counted);
    }
    EXPECT_FALSE(ChunkHeaderEvictOne());
    EXPECT_EQ(chunkHeaderCacheBytes, 80u);
  }
}

TEST_F(ChunkHeaderCacheTest, ChunkWithoutRunsHasNoTable) {
  OpenFile({0});
  ChunkHeaderEntry* entry = Get(1);
  EXPECT_EQ(entry->RunCount, 0u);
  EXPECT_EQ(entry->Runs, nullptr);
  ChunkHeaderPut(entry);
}

TEST_F(ChunkHeaderCacheTest, HitMovesToTheFrontAndReadsNothing) {
  OpenFile({1, 1, 1});
  GetAndPut(1);
  GetAndPut(2);
  GetAndPut(3);
  EXPECT_EQ(Order(), (Numbers{3, 2, 1}));
  ChunkHeaderEntry* first = Get(1);
  EXPECT_EQ(Order(), (Numbers{1, 3, 2}));
  ChunkHeaderEntry* again = Get(1);
  EXPECT_EQ(first, again);
  ChunkHeaderPut(first);
  ChunkHeaderPut(again);
  EXPECT_EQ(CountedBytes(), 3 * 336u);
}

TEST_F(ChunkHeaderCacheTest, LeastRecentlyUsedGoesFirst) {
  OpenFile({1, 1, 1, 1});
  ChunkHeaderCacheMaxBytes = 3 * 336;
  GetAndPut(1);
  GetAndPut(2);
  GetAndPut(3);
  GetAndPut(1);
  GetAndPut(4);
  EXPECT_EQ(Order(), (Numbers{4, 1, 3}));
  EXPECT_EQ(CountedBytes(), 3 * 336u);
}

TEST_F(ChunkHeaderCacheTest, EntryInUseIsNotEvicted) {
  OpenFile({1, 1, 1});
  ChunkHeaderCacheMaxBytes = 1;
  ChunkHeaderEntry* first = Get(1);
  ChunkHeaderEntry* second = Get(2);
  EXPECT_EQ(Order(), (Numbers{2, 1}));
  EXPECT_EQ(CountedBytes(), 2 * 336u) << "above the limit as long as both are in use";
  ChunkHeaderPut(first);
  EXPECT_EQ(Order(), (Numbers{2}));
  ChunkHeaderPut(second);
  EXPECT_EQ(Order(), (Numbers{}));
  EXPECT_EQ(CountedBytes(), 0u);
}

TEST_F(ChunkHeaderCacheTest, ClosingAFileLeavesTheCounterHigher) {
  OpenFile({1, 0, 20});
  for (std::uint32_t i = 1; i <= 3; ++i) GetAndPut(i);
  OpenImageFileRelease(file_);
  file_ = nullptr;
  EXPECT_EQ(CountedBytes(), 336u + 80 + 592);
  {
    const MutexLock lock(chunkHeaderCacheMutex);
    EXPECT_TRUE(chunkHeaderOrder.empty());
  }

  // Once the drift is above the limit, the cache holds only what is being used right now.
  ChunkHeaderCacheMaxBytes = 1000;
  OpenFile({1, 1}, 2);
  ChunkHeaderEntry* first = Get(1);
  ChunkHeaderEntry* second = Get(2);
  EXPECT_EQ(Order(), (Numbers{2, 1}));
  ChunkHeaderPut(first);
  ChunkHeaderPut(second);
  EXPECT_EQ(Order(), (Numbers{}));
  EXPECT_EQ(CountedBytes(), 336u + 80 + 592);
}

TEST_F(ChunkHeaderCacheTest, HeadBehindTheFilesEndIsEmpty) {
  OpenFile({1});
  ChunkHeaderEntry* entry = nullptr;
  // Zeros read as runs of offset 0 and length 0, as many as fit.
  ASSERT_EQ(ChunkHeaderGet(file_, {0, 0x10000000}, 9, &entry).status, 0);
  EXPECT_EQ(entry->StoredSectors, 0u);
  EXPECT_EQ(entry->RunCount, (4096u - 8) / 12);
  ChunkHeaderPut(entry);
  // At an odd place such a read fails.
  const KQStatus status = ChunkHeaderGet(file_, {0, 0x10000001}, 10, &entry);
  EXPECT_EQ(status.status, -31);
  EXPECT_EQ(entry, nullptr);
}

TEST_F(ChunkHeaderCacheTest, BadRunListIsToldInTheLogOnceForEachPass) {
  ImageSpec spec;
  ChunkSpec chunk = RawChunk({{0, 1}}, PatternBytes(1, 512));
  chunk.runList = kqtest::EncodeRunList(
      std::vector<std::pair<std::uint64_t, std::uint32_t>>{{0, 1}});  // zero behind it
  spec.chunks = {chunk};
  ASSERT_EQ(OpenImageFileOpen(folder_.Write("a", spec).c_str(), nullptr, &file_).status, 0);
  testing::internal::CaptureStderr();
  GetAndPut(1);
  GetAndPut(1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ASSERT: zero-length run!\nASSERT: zero-length run!\n");
}

}  // namespace
}  // namespace kq
