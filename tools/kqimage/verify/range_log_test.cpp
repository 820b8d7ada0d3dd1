#include "kqimage/verify/range_log.h"

#include <gtest/gtest.h>

namespace kqimage {
namespace {

using Ranges = std::vector<VolumeRange>;

TEST(RangeLog, RangesThatTouchAreOne) {
  RangeLog log;
  EXPECT_TRUE(log.IsEmpty());
  log.Add({0, 3});
  log.Add({3, 1});
  log.Add({5, 2});
  log.Add({7, 10});
  EXPECT_EQ(log.First(), (Ranges{{0, 4}, {5, 12}}));
  EXPECT_EQ(log.Count(), 2u);
  EXPECT_EQ(log.TotalBytes(), 16u);
  EXPECT_FALSE(log.IsEmpty());
}

TEST(RangeLog, WhatIsNotKeptIsCounted) {
  RangeLog log(2);
  for (const std::uint64_t offset : {10U, 11U, 20U, 21U, 30U, 31U, 32U, 40U}) log.Add({offset, 1});
  EXPECT_EQ(log.First(), (Ranges{{10, 2}, {20, 2}}));
  EXPECT_EQ(log.Count(), 4u);
  EXPECT_EQ(log.TotalBytes(), 8u);
}

TEST(RangeLog, NoneNeedsToBeKept) {
  RangeLog log(0);
  log.Add({1, 1});
  log.Add({2, 1});
  EXPECT_TRUE(log.First().empty());
  EXPECT_EQ(log.Count(), 1u);
  EXPECT_EQ(log.TotalBytes(), 2u);
}

}  // namespace
}  // namespace kqimage
