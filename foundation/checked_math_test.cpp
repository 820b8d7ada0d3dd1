#include "foundation/checked_math.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t kMax = ~std::uint64_t{0};

TEST(CheckedAdd, GivesTheSumUpToTheLargestNumber) {
  std::uint64_t result = 7;
  EXPECT_TRUE(kq::CheckedAdd(kMax - 5, 5, &result));
  EXPECT_EQ(result, kMax);
  EXPECT_TRUE(kq::CheckedAdd(0, 0, &result));
  EXPECT_EQ(result, 0U);
}

TEST(CheckedAdd, RefusesAnOverflowAndLeavesTheResult) {
  std::uint64_t result = 7;
  EXPECT_FALSE(kq::CheckedAdd(kMax, 1, &result));
  EXPECT_FALSE(kq::CheckedAdd(kMax, kMax, &result));
  EXPECT_EQ(result, 7U);
}

TEST(CheckedMultiply, GivesTheProductUpToTheLargestNumber) {
  std::uint64_t result = 7;
  EXPECT_TRUE(kq::CheckedMultiply(0xFFFFFFFF, 0x100000001, &result));
  EXPECT_EQ(result, kMax);
  EXPECT_TRUE(kq::CheckedMultiply(kMax, 0, &result));
  EXPECT_EQ(result, 0U);
}

TEST(CheckedMultiply, RefusesAnOverflowAndLeavesTheResult) {
  std::uint64_t result = 7;
  EXPECT_FALSE(kq::CheckedMultiply(std::uint64_t{1} << 32, std::uint64_t{1} << 32, &result));
  EXPECT_EQ(result, 7U);
}

TEST(CheckedRoundUp, GivesTheNextMultiple) {
  std::uint64_t result = 7;
  EXPECT_TRUE(kq::CheckedRoundUp(0, 512, &result));
  EXPECT_EQ(result, 0U);
  EXPECT_TRUE(kq::CheckedRoundUp(1, 512, &result));
  EXPECT_EQ(result, 512U);
  EXPECT_TRUE(kq::CheckedRoundUp(512, 512, &result));
  EXPECT_EQ(result, 512U);
  EXPECT_TRUE(kq::CheckedRoundUp(10, 3, &result));
  EXPECT_EQ(result, 12U);
  EXPECT_TRUE(kq::CheckedRoundUp(kMax - 511, 512, &result));
  EXPECT_EQ(result, kMax - 511);
}

TEST(CheckedRoundUp, RefusesAnOverflowAndLeavesTheResult) {
  std::uint64_t result = 7;
  EXPECT_FALSE(kq::CheckedRoundUp(kMax - 510, 512, &result));
  EXPECT_FALSE(kq::CheckedRoundUp(kMax, 4096, &result));
  EXPECT_EQ(result, 7U);
}

}  // namespace
