#include "kqimage/verify/ordered_sum.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "kqimage/image/sha256.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;

// A file without a name whose chunks begin at the given places; some of its bytes are noise.
struct Image {
  Image(const std::vector<std::uint64_t>& chunks, std::uint64_t indexOffset, std::size_t size) {
    std::mt19937_64 random(size);
    bytes.resize(size);
    for (std::size_t i = 0; i < size; i += 64) bytes[i] = static_cast<std::uint8_t>(random());
    layout.fd = UniqueFd(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_EQ(pwrite(layout.fd.Get(), bytes.data(), size, 0), static_cast<ssize_t>(size));
    layout.fileSize = size;
    layout.hasHeader = true;
    layout.indexOffset = indexOffset;
    for (const std::uint64_t offset : chunks) layout.chunks.push_back({0, offset});
  }

  std::string Digits() const {
    Sha256 sum;
    sum.Update(std::as_bytes(std::span(bytes)));
    return sum.Digits();
  }

  std::vector<std::uint8_t> bytes;
  ImageLayout layout;
};

// A header, chunks of 1 to 1000 bytes, and something behind them.
Image MakeImage(std::size_t chunks) {
  std::mt19937_64 random(chunks);
  std::vector<std::uint64_t> offsets;
  std::uint64_t end = 777777;
  for (std::size_t i = 0; i < chunks; ++i) {
    offsets.push_back(end);
    end += 1 + random() % 1000;
  }
  return Image(offsets, end, end + 600000);
}

TEST(OrderedSum, IsThatOfTheWholeFileWhateverThreadIsFirst) {
  for (const std::size_t threads : {1U, 2U, 7U}) {
    for (const std::size_t chunks : {1U, 2U, 300U}) {
      const Image image = MakeImage(chunks);
      OrderedSum sum(image.layout, threads);
      std::atomic<std::uint32_t> next = 0;
      std::atomic<std::uint64_t> added = 0;
      std::vector<std::thread> running;
      for (std::size_t t = 0; t < threads; ++t) {
        running.emplace_back([&] {
          for (std::uint32_t i = next++; i < chunks; i = next++) {
            const std::span<const std::uint8_t> read = sum.Read(i);
            const std::uint8_t* const begin =
                image.bytes.data() + image.layout.chunks[i].fileOffset;
            EXPECT_TRUE(std::equal(read.begin(), read.end(), begin,
                                   image.bytes.data() + image.layout.ChunkLimit(i)));
            if (i % 3 == 0) std::this_thread::yield();
            added += sum.Done(i);
          }
        });
      }
      for (std::thread& thread : running) thread.join();
      EXPECT_EQ(sum.Digits(), image.Digits());
      EXPECT_EQ(added, image.bytes.size());
    }
  }
}

TEST(OrderedSum, ChunksThatAreDoneOutOfOrderAreAddedInOrder) {
  const Image image = MakeImage(4);
  OrderedSum sum(image.layout, 2);
  for (std::uint32_t i = 0; i < 4; ++i) sum.Read(i);
  EXPECT_EQ(sum.Done(2), 0U);
  EXPECT_EQ(sum.Done(1), 0U);
  EXPECT_EQ(sum.Done(0), image.layout.chunks[3].fileOffset);
  EXPECT_EQ(sum.Done(3), image.bytes.size() - image.layout.chunks[3].fileOffset);
  EXPECT_EQ(sum.Digits(), image.Digits());
}

TEST(OrderedSum, AFileThatEndsEarlierHasNone) {
  Image image = MakeImage(3);
  ASSERT_EQ(
      ftruncate(image.layout.fd.Get(), static_cast<off_t>(image.layout.chunks[1].fileOffset) + 1),
      0);
  image.layout.chunks[2].fileOffset = image.layout.chunks[1].fileOffset + 2;
  OrderedSum sum(image.layout, 1);
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(sum.Read(i).empty(), i != 0);
    sum.Done(i);
  }
  EXPECT_EQ(sum.Digits(), "");
}

TEST(OrderedSum, ThreadsThatAreAheadWaitUntilTheyAreLetGo) {
  const Image image = MakeImage(100);
  OrderedSum sum(image.layout, 1);
  std::atomic<std::uint32_t> read = 0;
  // Nothing is ever done, so that no sum can catch up.
  std::thread ahead([&] {
    for (std::uint32_t i = 0; i < 100 && !sum.Read(i).empty(); ++i) ++read;
  });
  while (read < 3) std::this_thread::yield();
  sum.Stop();
  ahead.join();
  EXPECT_EQ(read, 3U) << "a chunk for the thread, and two more";
}

TEST(OrderedSum, ChunksOutOfOrderOrBeyondAllMeasureAreNotForIt) {
  const auto isFor = [](const std::vector<std::uint64_t>& chunks, std::uint64_t indexOffset) {
    return OrderedSum::IsFor(Image(chunks, indexOffset, 9 * kMebibyte).layout);
  };
  EXPECT_TRUE(isFor({512, 1024, kMebibyte}, 5 * kMebibyte));
  EXPECT_FALSE(isFor({512, 1024, kMebibyte}, 5 * kMebibyte + 1)) << "the last chunk's room";
  EXPECT_FALSE(isFor({512, 5 * kMebibyte}, 6 * kMebibyte)) << "the first one's";
  EXPECT_FALSE(isFor({512, 4096, 1024}, 8192));
  EXPECT_FALSE(isFor({512, 1024, 1024}, 8192));
  EXPECT_FALSE(isFor({512, 1024}, 1024));
  EXPECT_FALSE(isFor({8 * kMebibyte}, 10 * kMebibyte)) << "an index behind the file's end";
  EXPECT_FALSE(isFor({}, 512));
  Image closed({512}, 1024, 2048);
  closed.layout.damages.push_back({.kind = DamageKind::kHeader,
                                   .text = "",
                                   .chunk = {},
                                   .fileOffset = {},
                                   .closesChain = true});
  EXPECT_FALSE(OrderedSum::IsFor(closed.layout));
}

}  // namespace
}  // namespace kqimage
