#include "kqimage/pieces/block_compare.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "tests/support/test_seed.h"

namespace kqimage {
namespace {

using Bytes = std::vector<std::byte>;

TEST(IsZero, SeesASingleBitAnywhere) {
  Bytes bytes(3 * kBlockBytes + 1);
  EXPECT_TRUE(IsZero(bytes));
  for (const std::size_t at : {std::size_t{0}, std::size_t{1}, kBlockBytes, bytes.size() - 1}) {
    bytes[at] = std::byte{1};
    EXPECT_FALSE(IsZero(bytes)) << at;
    bytes[at] = std::byte{0};
  }
  EXPECT_TRUE(IsZero({}));
}

TEST(NonZeroStretches, JoinsNeighboursAndSkipsZeroBlocks) {
  Bytes bytes(6 * kBlockBytes);
  bytes[0] = std::byte{1};
  bytes[2 * kBlockBytes - 1] = std::byte{1};
  bytes[4 * kBlockBytes + 7] = std::byte{1};
  const std::vector<Stretch> expected = {{0, 2 * kBlockBytes}, {4 * kBlockBytes, kBlockBytes}};
  EXPECT_EQ(NonZeroStretches(bytes), expected);
}

TEST(NonZeroStretches, LastStretchEndsWithThePiece) {
  Bytes bytes(kBlockBytes + 100);
  bytes.back() = std::byte{1};
  const std::vector<Stretch> expected = {{kBlockBytes, 100}};
  EXPECT_EQ(NonZeroStretches(bytes), expected);
}

TEST(NonZeroStretches, OfZerosAndOfNothingAreNone) {
  EXPECT_TRUE(NonZeroStretches(Bytes(kBlockBytes * 2 + 1)).empty());
  EXPECT_TRUE(NonZeroStretches({}).empty());
}

TEST(DifferentStretches, CoverExactlyTheBlocksThatDiffer) {
  const unsigned seed = kqtest::TestSeed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 200; ++round) {
    const std::size_t size = 1 + random() % (20 * kBlockBytes);
    Bytes a(size);
    for (std::byte& byte : a) byte = static_cast<std::byte>(random());
    Bytes b = a;
    for (auto changes = random() % 6; changes > 0; --changes) {
      b[random() % size] ^= std::byte{0x10};
    }
    std::vector<bool> isCovered(size);
    std::size_t end = 0;
    for (const Stretch& stretch : DifferentStretches(a, b)) {
      EXPECT_EQ(stretch.offset % kBlockBytes, 0u);
      EXPECT_TRUE(stretch.offset > end || end == 0) << "neighbours are joined";
      end = stretch.offset + stretch.length;
      ASSERT_LE(end, size);
      for (std::size_t i = stretch.offset; i < end; ++i) isCovered[i] = true;
    }
    for (std::size_t block = 0; block < size; block += kBlockBytes) {
      const std::size_t length = std::min(kBlockBytes, size - block);
      const bool differs = !std::equal(a.begin() + static_cast<std::ptrdiff_t>(block),
                                       a.begin() + static_cast<std::ptrdiff_t>(block + length),
                                       b.begin() + static_cast<std::ptrdiff_t>(block));
      for (std::size_t i = block; i < block + length; ++i) ASSERT_EQ(isCovered[i], differs) << i;
    }
  }
}

}  // namespace
}  // namespace kqimage
