// Several threads on chains that share files, and closes that meet reads.
#include <atomic>
#include <random>
#include <thread>

#include "image/chain_test_support.h"
#include "image/image_room.h"

namespace kq {
namespace {

class ChainThreadsTest : public ::testing::Test {
 protected:
  ImageFolder folder_;
  Bytes volume_ = PatternBytes(1, 256 * 1024);

  void TearDown() override {
    EXPECT_EQ(OpenFileCount(), 0u);
    ImageRoomStart(Configuration());
  }

  std::string Write(std::uint32_t compressionType) {
    ImageSpec spec;
    spec.header.compressionType = compressionType;
    for (std::size_t at = 0; at < volume_.size(); at += 16 * 512) {
      const Bytes part = Slice(volume_, at, 16 * 512);
      spec.chunks.push_back(RawChunk({{at, 16}}, part));
    }
    return folder_.Write("image", spec);
  }

  // The correct bytes, or an unknown handle where a close may have come first.
  void ReadAtRandom(std::uint64_t handle, std::uint32_t seed, int count) const {
    std::mt19937 random(seed);
    for (int i = 0; i < count; ++i) {
      const std::size_t offset = random() % (volume_.size() - 20000);
      const auto length = static_cast<std::uint32_t>(1 + random() % 20000);
      const ReadResult result = ReadChain(handle, offset, length);
      ASSERT_EQ(result.status.status, 0);
      ASSERT_TRUE(result.data == Slice(volume_, offset, length));
    }
  }
};

TEST_F(ChainThreadsTest, HandlesOverOneFileReadInParallel) {
  // So small that chunks are decoded, evicted and decoded again all the time.
  ImageRoomStart({.chunkCacheMaxBytes = 30000, .chunkHeaderCacheMaxBytes = 2000});
  for (const std::uint32_t type : {0u, 6u}) {
    const std::string path = Write(type);
    const TestChain chains[] = {TestChain(path), TestChain(path), TestChain(path)};
    EXPECT_EQ(OpenFileCount(), 1u);
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < 3; ++i) {
      threads.emplace_back([&, i] { ReadAtRandom(chains[i].handle, i, 300); });
    }
    threads.emplace_back([&] { ReadAtRandom(chains[0].handle, 9, 300); });
    for (std::thread& thread : threads) thread.join();
  }
}

TEST_F(ChainThreadsTest, OpensAndClosesOfOneFileMayRace) {
  const std::string path = Write(6);
  std::vector<std::thread> threads;
  for (std::uint32_t i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 50; ++round) {
        const TestChain chain(path);
        ASSERT_EQ(chain.opened.status, 0);
        ReadAtRandom(chain.handle, i, 2);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ChainThreadsTest, CloseLetsARunningReadFinish) {
  const std::string path = Write(0);
  int completed = 0;
  for (int round = 0; round < 200; ++round) {
    TestChain chain(path);
    std::atomic<bool> started = false;
    ReadResult result;
    std::thread reader([&, handle = chain.handle] {
      started = true;
      result = ReadChain(handle, 0, static_cast<std::uint32_t>(volume_.size()));
    });
    while (!started) std::this_thread::yield();
    EXPECT_EQ(chain.Close().status, 0);
    reader.join();
    if (result.status.status == 0) {
      ++completed;
      EXPECT_EQ(result.count, volume_.size());
      EXPECT_TRUE(result.data == volume_);
    } else {
      // The close came before the read had found its handle.
      EXPECT_EQ(result.status.status, -87);
      EXPECT_EQ(result.count, 0u);
      EXPECT_TRUE(result.data == Bytes(volume_.size()));
    }
  }
  std::printf("%d of 200 reads met the close\n", completed);
}

}  // namespace
}  // namespace kq
