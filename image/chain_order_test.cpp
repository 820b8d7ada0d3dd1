// The order of candidates, against the rule as a plain search tells it.
#include "image/chain_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "tests/support/test_seed.h"

namespace kq {
namespace {

// Identifiers are numbers here; 0 is the one of all zeros.
struct File {
  std::uint8_t id = 0;
  std::uint8_t parent = 0;
  std::uint32_t part = 0;
  std::uint32_t lastPart = 1;
};

struct Outcome {
  std::int32_t status = 0;
  std::vector<std::size_t> order;  // positions in the list, as far as the chain went

  friend bool operator==(const Outcome&, const Outcome&) = default;
};

Outcome Order(const std::vector<File>& files) {
  CandidateList named;
  std::vector<const ChainCandidate*> candidates;
  for (const File& file : files) {
    ChainCandidate* candidate = MakeOwned<ChainCandidate>().release();
    candidate->header.ImageId[15] = file.id;
    candidate->header.ParentImageId[15] = file.parent;
    candidate->header.PartIndex = file.part;
    candidate->lastPart = file.lastPart;
    named.items.PushBack(candidate);
    candidates.push_back(candidate);
  }
  CandidateList chain;
  Outcome outcome;
  outcome.status = OrderCandidates(&named, &chain).status;
  for (const ChainCandidate* item = chain.items.first(); item != nullptr;
       item = chain.items.Next(item)) {
    const auto at = std::find(candidates.begin(), candidates.end(), item);
    outcome.order.push_back(static_cast<std::size_t>(at - candidates.begin()));
  }
  return outcome;
}

bool FollowsInModel(const File& b, const File& a) {
  if (a.id == 0 || b.id == 0) return false;
  if (b.part == 0) return b.parent == a.id && a.lastPart != 0;
  return std::uint64_t{b.part} == std::uint64_t{a.part} + 1 && a.lastPart == 0 && b.id == a.id &&
         b.parent == a.parent;
}

// One after the other, always from the list's start.
Outcome OrderInModel(const std::vector<File>& files) {
  std::vector<std::size_t> left(files.size());
  std::iota(left.begin(), left.end(), std::size_t{0});
  Outcome outcome;
  const auto take = [&](auto matches) {
    const auto found = std::find_if(left.begin(), left.end(), matches);
    if (found == left.end()) return false;
    outcome.order.push_back(*found);
    left.erase(found);
    return true;
  };
  const bool hasBase = take([&](std::size_t i) {
    return files[i].id != 0 && files[i].parent == 0 && files[i].part == 0;
  });
  while (hasBase && take([&](std::size_t i) {
           return FollowsInModel(files[i], files[outcome.order.back()]);
         })) {
  }
  const bool whole = hasBase && left.empty() && files[outcome.order.back()].lastPart != 0;
  outcome.status = whole ? 0 : -18;
  return outcome;
}

TEST(OrderCandidates, OfSeveralThatFollowTheFirstOfTheListIsTaken) {
  const Outcome outcome = Order({{3, 1}, {1, 0}, {2, 1}, {9, 1}});
  EXPECT_EQ(outcome, (Outcome{-18, {1, 0}}));
  EXPECT_EQ(Order({{2, 1}, {1, 0}, {3, 1}, {9, 1}}).order, (std::vector<std::size_t>{1, 0}));
}

TEST(OrderCandidates, APartNumberThatWrapsAroundFollowsNothing) {
  // Part 0 whose parent is the image itself: the only candidate that 0xFFFFFFFF plus 1 could mean.
  const std::vector<File> files = {
      {1, 0, 0, 1}, {2, 1, 0, 0}, {2, 1, 1, 0}, {2, 2, 0, 1}, {2, 1, 0xFFFFFFFF, 0}};
  EXPECT_EQ(Order(files), (Outcome{-18, {0, 1, 2}}));
}

TEST(OrderCandidates, AnyListGivesWhatSearchingItFromItsStartGives) {
  const std::uint64_t seed = kqtest::TestSeed();
  std::mt19937_64 random(seed);
  int wholeChains = 0;
  for (int round = 0; round < 3000; ++round) {
    std::vector<File> files;
    const std::size_t count = 1 + random() % 7;
    for (std::size_t i = 0; i < count; ++i) {
      // Mostly the next image or part of a chain, at times any file.
      const File last = files.empty() ? File{0, 0, 0, 1} : files.back();
      File file = last.lastPart != 0 ? File{static_cast<std::uint8_t>(last.id + 1), last.id, 0, 1}
                                     : File{last.id, last.parent, last.part + 1, 1};
      file.lastPart = random() % 3 == 0 && i + 1 < count ? 0 : 1;
      if (random() % 8 == 0) {
        file = {static_cast<std::uint8_t>(random() % 4), static_cast<std::uint8_t>(random() % 4),
                static_cast<std::uint32_t>(random() % 3), static_cast<std::uint32_t>(random() % 2)};
      }
      files.push_back(file);
    }
    std::shuffle(files.begin(), files.end(), random);
    const Outcome expected = OrderInModel(files);
    wholeChains += expected.status == 0 ? 1 : 0;
    ASSERT_EQ(Order(files), expected) << "KQ_TEST_SEED=" << seed << " round " << round;
  }
  EXPECT_GT(wholeChains, 300);
}

// Newest first is where a search from the list's start goes furthest.
TEST(OrderCandidates, TensOfThousandsMayBeNamedNewestFirst) {
  constexpr std::uint32_t kFiles = 20'000;
  CandidateList named;
  for (std::uint32_t i = kFiles; i > 0; --i) {
    ChainCandidate* candidate = MakeOwned<ChainCandidate>().release();
    const std::uint32_t parent = i - 1;
    std::memcpy(candidate->header.ImageId, &i, sizeof i);
    std::memcpy(candidate->header.ParentImageId, &parent, sizeof parent);
    candidate->lastPart = 1;
    named.items.PushBack(candidate);
  }
  CandidateList chain;
  ASSERT_EQ(OrderCandidates(&named, &chain).status, 0);
  std::uint32_t expected = 0;
  for (const ChainCandidate* item = chain.items.first(); item != nullptr;
       item = chain.items.Next(item)) {
    std::uint32_t id = 0;
    std::memcpy(&id, item->header.ImageId, sizeof id);
    ASSERT_EQ(id, ++expected);
  }
  EXPECT_EQ(expected, kFiles);
}

}  // namespace
}  // namespace kq
