#include "kqimage/verify/range_set.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <random>

#include "tests/support/test_seed.h"

namespace kqimage {
namespace {

TEST(RangeSet, JoinsNeighboursAndCutsHoles) {
  RangeSet set;
  set.Add({10, 10});
  set.Add({30, 10});
  set.Add({20, 10});
  EXPECT_EQ(set.Ranges(), (std::vector<VolumeRange>{{10, 30}}));
  set.Remove({15, 5});
  EXPECT_EQ(set.Ranges(), (std::vector<VolumeRange>{{10, 5}, {20, 20}}));
  set.CutAt(25);
  EXPECT_EQ(set.Ranges(), (std::vector<VolumeRange>{{10, 5}, {20, 5}}));
  EXPECT_EQ(set.TotalBytes(), 10u);
}

TEST(RangeSet, ARangeBeyondTheLargestOffsetIsCutThere) {
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  RangeSet set;
  set.Add({kLargest - 10, 100});
  EXPECT_EQ(set.Ranges(), (std::vector<VolumeRange>{{kLargest - 10, 10}}));
  set.Add({5, 0});
  EXPECT_EQ(set.TotalBytes(), 10u);
  set.Remove({0, kLargest});
  EXPECT_TRUE(set.IsEmpty());
}

TEST(RangeSet, AgreesWithASetOfSingleBytes) {
  std::mt19937_64 random(kqtest::TestSeed());
  std::array<bool, 65> model = {};
  RangeSet set;
  for (int step = 0; step < 20000; ++step) {
    const VolumeRange range = {random() % 64, random() % 20};
    const bool isAdded = random() % 2 == 0;
    isAdded ? set.Add(range) : set.Remove(range);
    for (std::uint64_t at = range.offset; at < range.offset + range.length && at < 64; ++at) {
      model[at] = isAdded;
    }
    set.CutAt(64);
    std::vector<VolumeRange> expected;
    for (std::uint64_t at = 0; at < 64; ++at) {
      if (!model[at]) continue;
      if (at == 0 || !model[at - 1]) expected.push_back({at, 0});
      ++expected.back().length;
    }
    ASSERT_EQ(set.Ranges(), expected);
  }
}

}  // namespace
}  // namespace kqimage
