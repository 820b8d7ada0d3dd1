#include "enumeration/shortest_path.h"

#include <gtest/gtest.h>

#include "enumeration/enumeration_test_support.h"

namespace kq {
namespace {

using kqtest::Listed;
using kqtest::MakeId;
using kqtest::MemoryCatalogue;

std::string PathTo(MemoryCatalogue* catalogue, EnumeratedFile* target) {
  FileList path;
  const KQStatus status = ShortestPathToBase(catalogue->enumeration, target, &path);
  if (status.status != 0) {
    EXPECT_TRUE(path.empty());
    EXPECT_STREQ(status.file, kqtest::kModuleName);
    return std::to_string(status.status);
  }
  return kqtest::NamesOf(path);
}

TEST(ShortestPathToBase, OfABaseIsTheBaseAlone) {
  MemoryCatalogue catalogue;
  EnumeratedFile* base = catalogue.Admit("a", 1, 0);
  catalogue.Admit("b", 2, 1);
  EXPECT_EQ(PathTo(&catalogue, base), "a");
}

TEST(ShortestPathToBase, RunsFromTheBaseDown) {
  MemoryCatalogue catalogue;
  EnumeratedFile* target = catalogue.Admit("d", 4, 3);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("c", 3, 2);
  EXPECT_EQ(PathTo(&catalogue, target), "a b c d");
}

TEST(ShortestPathToBase, NeedsEveryParent) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  EnumeratedFile* without = catalogue.Admit("c", 3, 2);
  EnumeratedFile* below = catalogue.Admit("d", 4, 3);
  EXPECT_EQ(PathTo(&catalogue, without), "-18");
  EXPECT_EQ(PathTo(&catalogue, below), "-18");
}

TEST(ShortestPathToBase, OfAnIncompleteTargetIsRefused) {
  MemoryCatalogue catalogue;
  EnumeratedFile* base = catalogue.Admit("a", 1, 0, true);
  EXPECT_EQ(PathTo(&catalogue, base), "-18");
  catalogue.Admit("b", 2, 0);
  EnumeratedFile* child = catalogue.Admit("c", 3, 2, true);
  EXPECT_EQ(PathTo(&catalogue, child), "-18");
}

TEST(ShortestPathToBase, AnIncompleteFileOnTheOnlyWayIsRefused) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b", 2, 1, true);
  EnumeratedFile* target = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(PathTo(&catalogue, target), "-18");
}

TEST(ShortestPathToBase, PassesTheCopyAdmittedFirstCompleteOrNot) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b-broken", 2, 1, true);
  catalogue.Admit("b-whole", 2, 1);
  EnumeratedFile* target = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(PathTo(&catalogue, target), "a b-broken c");
}

TEST(ShortestPathToBase, EndsAtTheFirstBaseCompleteOrNot) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a-broken", 1, 0, true);
  catalogue.Admit("a-whole", 1, 0);
  EnumeratedFile* target = catalogue.Admit("b", 2, 1);
  EXPECT_EQ(PathTo(&catalogue, target), "a-broken b");
}

TEST(ShortestPathToBase, CanEndAtABaseOfAnotherSet) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a-other", 1, 0)->imageSetId = MakeId(77);
  catalogue.Admit("a-own", 1, 0);
  EnumeratedFile* target = catalogue.Admit("b", 2, 1);
  EXPECT_EQ(PathTo(&catalogue, target), "a-other b");
}

TEST(ShortestPathToBase, NeedsABaseOfTheTargetsSet) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0)->imageSetId = MakeId(77);
  EnumeratedFile* target = catalogue.Admit("b", 2, 1);
  EXPECT_EQ(PathTo(&catalogue, target), "-18");
}

TEST(ShortestPathToBase, FilesBetweenCanBeOfAnySet) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b", 2, 1)->imageSetId = MakeId(77);
  EnumeratedFile* target = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(PathTo(&catalogue, target), "a b c");
}

TEST(ShortestPathToBase, TakesTheWayOfFewestFiles) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("c-long", 3, 2);
  catalogue.Admit("c-short", 3, 1);
  EnumeratedFile* target = catalogue.Admit("d", 4, 3);
  EXPECT_EQ(PathTo(&catalogue, target), "a c-short d");
}

TEST(ShortestPathToBase, ABaseAmongCopiesOfAnIncrementIsTheShortestWay) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b-increment", 2, 1);
  catalogue.Admit("b-base", 2, 0);
  EnumeratedFile* target = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(PathTo(&catalogue, target), "b-base c");
}

TEST(ShortestPathToBase, OfEquallyShortWaysTheFirstMetWins) {
  MemoryCatalogue catalogue;
  catalogue.Admit("c1", 3, 2);
  catalogue.Admit("c2", 3, 2);
  catalogue.Admit("a1", 1, 0);
  catalogue.Admit("a2", 1, 0);
  catalogue.Admit("b2", 2, 1);
  catalogue.Admit("b1", 2, 1);
  EnumeratedFile* target = catalogue.Admit("d", 4, 3);
  EXPECT_EQ(PathTo(&catalogue, target), "a1 b2 c1 d");
}

TEST(ShortestPathToBase, NothingRemainsFromOneSearchToTheNext) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  EnumeratedFile* b = catalogue.Admit("b", 2, 1);
  EnumeratedFile* c = catalogue.Admit("c", 3, 2);
  EnumeratedFile* d = catalogue.Admit("d", 4, 2);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(PathTo(&catalogue, c), "a b c");
    EXPECT_EQ(PathTo(&catalogue, d), "a b d");
    EXPECT_EQ(PathTo(&catalogue, b), "a b");
  }
}

TEST(ShortestPathToBase, ACycleBesideTheWayIsLeftAlone) {
  MemoryCatalogue catalogue;
  catalogue.Admit("x", 2, 3);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("a", 1, 0);
  EnumeratedFile* target = catalogue.Admit("c", 3, 2);
  // c's parents are x and b, and x's parent is c.
  EXPECT_EQ(PathTo(&catalogue, target), "a b c");
}

TEST(ShortestPathToBase, ALongChainNeedsNoStack) {
  constexpr std::uint32_t kFiles = 100000;
  MemoryCatalogue catalogue;
  EnumeratedFile* last = catalogue.Admit("f", 1, 0);
  for (std::uint32_t i = 2; i <= kFiles; ++i) last = catalogue.Admit("f", i, i - 1);
  FileList path;
  ASSERT_EQ(ShortestPathToBase(catalogue.enumeration, last, &path).status, 0);
  ASSERT_EQ(path.size(), kFiles);
  for (std::uint32_t i = 0; i < kFiles; ++i) ASSERT_EQ(path[i]->admissionNumber, i);
}

class ShortestPathQueryTest : public kqtest::EnumerationTest {};

TEST_F(ShortestPathQueryTest, OfACompleteBaseIsOneFileWithItsDirectory) {
  Write("a-b001.twf", {.id = 1});
  Write("a-b001-i001.twi", {.id = 2, .parent = 1});
  Add();
  EXPECT_EQ(Ask(KQImageFilesEnumerationQueryShortestPathToBase, Path("a-b001.twf"), 0, nullptr),
            (Listed{0, "\"" + Path("a-b001.twf") + "\""}));
}

TEST_F(ShortestPathQueryTest, GivesTheWorkedExample) {
  Write("a-b001.twf", {.id = 1});
  Write("a-b001-i001.twi", {.id = 2, .parent = 1});
  Add();
  const std::string target = Path("a-b001-i001.twi");
  EXPECT_EQ(Ask(KQImageFilesEnumerationQueryShortestPathToBase, target, 0, nullptr),
            (Listed{0, "\"" + Path("a-b001.twf") + "\" \"a-b001-i001.twi\""}));
  EXPECT_EQ(Ask(KQImageFilesEnumerationQueryShortestPathToBase, target, 5, "|"),
            (Listed{0, Path("a-b001.twf") + "|" + target}));
}

TEST_F(ShortestPathQueryTest, AChainOverTwoDirectoriesNeedsFullPaths) {
  const std::string one = MakeFolder("one");
  const std::string two = MakeFolder("two");
  kqtest::WriteImage(one + "/a.twf", {.id = 1});
  kqtest::WriteImage(two + "/b.twi", {.id = 2, .parent = 1});
  Add(two);
  Add(one);
  EXPECT_EQ(Chain("two/b.twi"), Names("one/a.twf|b.twi"));
  EXPECT_EQ(Ask(KQImageFilesEnumerationQueryShortestPathToBase, two + "/b.twi",
                KQ_LIST_NO_QUOTES | KQ_LIST_FULL_PATHS),
            Names("one/a.twf|" + two + "/b.twi"));
}

TEST_F(ShortestPathQueryTest, ASplitBaseWithAMissingPartBreaksAllBelowIt) {
  Write("a.twf", {.id = 1, .isLast = false});
  Write("b.twi", {.id = 2, .parent = 1});
  Write("c.twi", {.id = 3, .parent = 2});
  Add();
  for (const char* name : {"a.twf", "b.twi", "c.twi"}) EXPECT_EQ(Chain(name), (Listed{-18, ""}));
  std::uint8_t answer = 0;
  EXPECT_EQ(KQImageFilesEnumerationQueryImageHasDescendants(handle_, Path("b.twi").c_str(), &answer)
                .status,
            0);
  EXPECT_EQ(answer, 1);
}

TEST_F(ShortestPathQueryTest, ACompleteCopyOfASplitBaseHealsTheChain) {
  Write("a.twf", {.id = 1, .isLast = false});
  Write("b.twi", {.id = 2, .parent = 1});
  Add();
  const std::string copies = MakeFolder("copies");
  kqtest::WriteImage(copies + "/a.twf", {.id = 1});
  Add(copies);
  // There is a sound chain now, and the list still passes the copy admitted first.
  EXPECT_EQ(Chain("b.twi"), Names("a.twf|b.twi"));
}

}  // namespace
}  // namespace kq
