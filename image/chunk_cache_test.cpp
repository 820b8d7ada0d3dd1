#include "image/chunk_cache.h"

#include <vector>

#include "image/chain_test_support.h"
#include "image/image_room.h"

namespace kq {
namespace {

class ChunkCacheTest : public ::testing::Test {
 protected:
  // Never opened: the cache knows a file by its address only.
  OpenImageFile file_;
  OpenImageFile other_;

  void SetUp() override { ImageRoomStart(Configuration()); }
  void TearDown() override { ImageRoomStart(Configuration()); }

  static ExpandedChunk Chunk(std::uint32_t size, std::uint8_t content = 1) {
    ExpandedChunk chunk;
    chunk.Data = HeapBuffer::AllocateZeroed(16);
    chunk.Data.data()[0] = content;
    chunk.PresentBytes = 16;
    chunk.Size = size;
    return chunk;
  }
  ChunkCacheEntry* Insert(const OpenImageFile* file, std::uint64_t offset, std::uint32_t size) {
    ChunkCacheEntry* entry = nullptr;
    EXPECT_EQ(ChunkInsert(file, offset, Chunk(size), &entry).status, 0);
    return entry;
  }
  void InsertAndPut(std::uint64_t offset, std::uint32_t size) {
    ChunkPut(Insert(&file_, offset, size));
  }

  static std::uint64_t CountedBytes() {
    const MutexLock lock(chunkCacheMutex);
    return chunkCacheBytes;
  }
  static std::vector<std::uint64_t> Order() {
    const MutexLock lock(chunkCacheMutex);
    std::vector<std::uint64_t> order;
    for (const ChunkCacheEntry* entry = chunkOrder.first(); entry != nullptr;
         entry = ChunkOrder::Next(entry)) {
      order.push_back(entry->FileOffset);
    }
    return order;
  }
};

using Offsets = std::vector<std::uint64_t>;

TEST_F(ChunkCacheTest, KeyIsFileAndOffset) {
  InsertAndPut(100, 1000);
  EXPECT_EQ(ChunkFind(&file_, 101), nullptr);
  EXPECT_EQ(ChunkFind(&other_, 100), nullptr);
  ChunkCacheEntry* found = ChunkFind(&file_, 100);
  ASSERT_NE(found, nullptr);
  ChunkPut(found);
}

TEST_F(ChunkCacheTest, OnlySizeCounts) {
  InsertAndPut(1, 1000);
  InsertAndPut(2, 2000);
  EXPECT_EQ(CountedBytes(), 3000u);
}

TEST_F(ChunkCacheTest, ChunkAboveTheLimitDrivesOutTheOthersAndGoesAtItsPut) {
  InsertAndPut(1, 1000);
  ChunkCacheEntry* large = Insert(&file_, 2, 3000000000u);
  EXPECT_EQ(Order(), (Offsets{2}));
  EXPECT_EQ(CountedBytes(), 3000000000u);
  ChunkPut(large);
  EXPECT_EQ(CountedBytes(), 0u);
}

TEST_F(ChunkCacheTest, FindMovesToTheFront) {
  InsertAndPut(1, 10);
  InsertAndPut(2, 10);
  InsertAndPut(3, 10);
  EXPECT_EQ(Order(), (Offsets{3, 2, 1}));
  ChunkPut(ChunkFind(&file_, 1));
  EXPECT_EQ(Order(), (Offsets{1, 3, 2}));
}

TEST_F(ChunkCacheTest, LeastRecentlyUsedGoesFirst) {
  ChunkCacheMaxBytes = 300;
  InsertAndPut(1, 100);
  InsertAndPut(2, 100);
  InsertAndPut(3, 100);
  ChunkPut(ChunkFind(&file_, 1));
  InsertAndPut(4, 150);
  EXPECT_EQ(Order(), (Offsets{4, 1}));
  EXPECT_EQ(CountedBytes(), 250u);
}

TEST_F(ChunkCacheTest, AnEvictedChunksMemoryIsForTheNextOfItsSize) {
  ChunkCacheMaxBytes = 150;
  InsertAndPut(1, 100);
  ChunkCacheEntry* first = ChunkFind(&file_, 1);
  const std::uint8_t* memory = first->Chunk.Data.data();
  ChunkPut(first);
  InsertAndPut(2, 100);
  const HeapBuffer other = AllocateChunk(17);
  EXPECT_EQ(other.size(), 17u);
  EXPECT_NE(other.data(), memory);
  const HeapBuffer same = AllocateChunk(16);
  EXPECT_EQ(same.size(), 16u);
  EXPECT_EQ(same.data(), memory);
  const HeapBuffer another = AllocateChunk(16);
  EXPECT_NE(another.data(), memory);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(another.data()) % kSectorAlignment, 0u);
}

TEST_F(ChunkCacheTest, MemoryOfStoredFormsIsUsedAgainWhereItIsLargeEnough) {
  Owned<StoredMemory> first = TakeStoredMemory(1000);
  ASSERT_NE(first, nullptr);
  const StoredMemory* const small = first.get();
  Owned<StoredMemory> second = TakeStoredMemory(5000);
  const StoredMemory* const large = second.get();
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(second->Bytes.data()) % kSectorAlignment, 0u);
  GiveBackStoredMemory(std::move(second));
  GiveBackStoredMemory(std::move(first));
  Owned<StoredMemory> fits = TakeStoredMemory(1001);
  EXPECT_EQ(fits.get(), large);
  Owned<StoredMemory> none = TakeStoredMemory(5000);
  EXPECT_NE(none.get(), large) << "that is in use";
  EXPECT_GE(none->Bytes.size(), 5000u);
  Owned<StoredMemory> exact = TakeStoredMemory(1000);
  EXPECT_EQ(exact.get(), small);
  for (Owned<StoredMemory>* each : {&fits, &none, &exact}) {
    GiveBackStoredMemory(std::move(*each));
  }
}

TEST_F(ChunkCacheTest, OnlyTwoStoredFormsKeepTheirMemoryAndNoLargeOne) {
  std::vector<Owned<StoredMemory>> taken;
  for (std::uint64_t i = 1; i <= 5; ++i) taken.push_back(TakeStoredMemory(i * 1000));
  const StoredMemory* const newest = taken.back().get();
  // The first to come back is the first to go.
  for (Owned<StoredMemory>& each : taken) GiveBackStoredMemory(std::move(each));
  GiveBackStoredMemory(TakeStoredMemory(0x200001));
  Owned<StoredMemory> smallest = TakeStoredMemory(1);
  EXPECT_EQ(smallest.get(), newest);
  Owned<StoredMemory> large = TakeStoredMemory(0x200001);
  EXPECT_EQ(large->Bytes.size(), 0x200001u);
  Owned<StoredMemory> other = TakeStoredMemory(1);
  EXPECT_EQ(other->Bytes.size(), 4000u);
  Owned<StoredMemory> third = TakeStoredMemory(1);
  EXPECT_EQ(third->Bytes.size(), 1u) << "a new one";
}

TEST_F(ChunkCacheTest, TwoEvictedChunksKeepTheirMemoryForTwoThreads) {
  ChunkCacheMaxBytes = 100;
  std::vector<const std::uint8_t*> memories;
  for (std::uint64_t i = 1; i <= 4; ++i) {
    ChunkCacheEntry* entry = Insert(&file_, i, 100);
    memories.push_back(entry->Chunk.Data.data());
    ChunkPut(entry);
  }
  // The first one's went when the third was evicted.
  const HeapBuffer first = AllocateChunk(16);
  const HeapBuffer second = AllocateChunk(16);
  EXPECT_EQ(first.data(), memories[2]);
  EXPECT_EQ(second.data(), memories[1]);
}

// An entry stays what it is while another chunk is decoded into the memory of one that is gone.
TEST_F(ChunkCacheTest, MemoryOfAnEntryInUseIsNobodyElses) {
  ChunkCacheMaxBytes = 1;
  ChunkCacheEntry* used = Insert(&file_, 1, 100);
  InsertAndPut(2, 100);
  const HeapBuffer next = AllocateChunk(16);
  EXPECT_NE(next.data(), used->Chunk.Data.data());
  ChunkPut(used);
}

TEST_F(ChunkCacheTest, EntryInUseSurvivesAndKeepsTheCacheAboveItsLimit) {
  ChunkCacheMaxBytes = 1;
  ChunkCacheEntry* first = Insert(&file_, 1, 100);
  ChunkCacheEntry* second = Insert(&file_, 2, 100);
  EXPECT_EQ(CountedBytes(), 200u);
  EXPECT_EQ(first->Chunk.Data.data()[0], 1);
  ChunkPut(second);
  EXPECT_EQ(Order(), (Offsets{1}));
  ChunkPut(first);
  EXPECT_EQ(Order(), (Offsets{}));
  EXPECT_EQ(CountedBytes(), 0u);
}

TEST_F(ChunkCacheTest, SecondInsertOfAChunkIsDropped) {
  ChunkCacheEntry* first = Insert(&file_, 1, 100);
  InsertAndPut(2, 100);
  ChunkCacheEntry* second = nullptr;
  ASSERT_EQ(ChunkInsert(&file_, 1, Chunk(100, 9), &second).status, 0);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->Chunk.Data.data()[0], 1);
  EXPECT_EQ(Order(), (Offsets{1, 2}));
  EXPECT_EQ(CountedBytes(), 200u);
  {
    const MutexLock lock(chunkCacheMutex);
    EXPECT_EQ(first->refCount, 2u);
  }
  ChunkPut(first);
  ChunkPut(second);
}

TEST_F(ChunkCacheTest, PurgeTakesOneFilesChunksOnly) {
  InsertAndPut(1, 100);
  ChunkPut(Insert(&other_, 7, 50));
  InsertAndPut(2, 100);
  PurgeChunks(&file_);
  EXPECT_EQ(Order(), (Offsets{7}));
  EXPECT_EQ(CountedBytes(), 50u);
}

// The same as clients meet it.
class CachedChainTest : public ChunkCacheTest {
 protected:
  ImageFolder folder_;
  ImageSpec base_;

  void SetUp() override {
    ChunkCacheTest::SetUp();
    base_.chunks = {RawChunk({{0, 8}}, PatternBytes(1, 4096)),
                    RawChunk({{4096, 8}}, PatternBytes(2, 4096))};
  }
};

TEST_F(CachedChainTest, LimitOfOneByteKeepsNothingAndReadsTheSame) {
  ImageRoomStart({.chunkCacheMaxBytes = 1, .chunkHeaderCacheMaxBytes = 1});
  const TestChain chain(folder_.Write("base", base_));
  for (int i = 0; i < 2; ++i) {
    ExpectRead(chain.handle, 0, Join({PatternBytes(1, 4096), PatternBytes(2, 4096)}));
    EXPECT_EQ(CountedBytes(), 0u);
    const MutexLock lock(chunkHeaderCacheMutex);
    EXPECT_TRUE(chunkHeaderOrder.empty());
  }
}

TEST_F(CachedChainTest, ChainsThatShareAFileShareItsChunks) {
  ImageSpec next;
  next.header = kqtest::IncrementOf(base_.header, kqtest::MakeId(2));
  next.chunks = {RawChunk({{0x100000, 1}}, PatternBytes(3, 512))};
  const std::string base = folder_.Write("base", base_);
  TestChain first(base);
  const TestChain second(base + "|" + folder_.Write("next", next));
  ASSERT_EQ(second.opened.status, 0);
  EXPECT_EQ(OpenFileCount(), 2u);
  ExpectRead(first.handle, 0, PatternBytes(1, 4096));
  EXPECT_EQ(CountedBytes(), 9 * 512u);
  ExpectRead(second.handle, 0, PatternBytes(1, 4096));
  EXPECT_EQ(CountedBytes(), 9 * 512u);
  // The base stays open and cached for the other chain.
  first.Close();
  EXPECT_EQ(CountedBytes(), 9 * 512u);
  ExpectRead(second.handle, 4096, PatternBytes(2, 4096));
}

TEST_F(CachedChainTest, ClosingAllChainsEmptiesTheChunksButNotTheHeadersCounter) {
  {
    const TestChain chain(folder_.Write("base", base_));
    ExpectRead(chain.handle, 0, PatternBytes(1, 4096));
    EXPECT_NE(CountedBytes(), 0u);
  }
  EXPECT_EQ(CountedBytes(), 0u);
  const MutexLock lock(chunkHeaderCacheMutex);
  EXPECT_EQ(chunkHeaderCacheBytes, 336u) << "of the one chunk that the range began in";
}

}  // namespace
}  // namespace kq
