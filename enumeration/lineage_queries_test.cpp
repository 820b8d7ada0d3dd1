#include "enumeration/lineage_queries.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "enumeration/enumeration_test_support.h"

namespace kq {
namespace {

using kqtest::Listed;
using kqtest::MemoryCatalogue;

std::string Roots(const MemoryCatalogue& catalogue, const EnumeratedFile* file) {
  FileList roots;
  const KQStatus status = FindRoots(catalogue.enumeration, *file, &roots);
  if (status.status == 0) return kqtest::NamesOf(roots);
  EXPECT_TRUE(roots.empty());
  EXPECT_STREQ(status.file, kqtest::kModuleName);
  return std::to_string(status.status);
}

std::string Dependents(const MemoryCatalogue& catalogue, const EnumeratedFile* file) {
  FileList dependents;
  const KQStatus status = FindPureDependents(catalogue.enumeration, *file, &dependents);
  if (status.status == 0) return kqtest::NamesOf(dependents);
  EXPECT_TRUE(dependents.empty());
  EXPECT_STREQ(status.file, kqtest::kModuleName);
  return std::to_string(status.status);
}

TEST(FindRoots, OfAChainIsItsBase) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 0);
  EnumeratedFile* b = catalogue.Admit("b", 2, 1);
  EnumeratedFile* c = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Roots(catalogue, a), "a");
  EXPECT_EQ(Roots(catalogue, b), "a");
  EXPECT_EQ(Roots(catalogue, c), "a");
}

TEST(FindRoots, ARootNeedNotBeABase) {
  MemoryCatalogue catalogue;
  EnumeratedFile* b = catalogue.Admit("b", 2, 99);
  EnumeratedFile* c = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Roots(catalogue, b), "b");
  EXPECT_EQ(Roots(catalogue, c), "b");
}

TEST(FindRoots, IncompleteParentsAreSkipped) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0, true);
  EnumeratedFile* b = catalogue.Admit("b", 2, 1);
  EnumeratedFile* c = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Roots(catalogue, b), "b");
  EXPECT_EQ(Roots(catalogue, c), "b");
  catalogue.Admit("a-whole", 1, 0);
  EXPECT_EQ(Roots(catalogue, c), "a-whole");
}

TEST(FindRoots, OfAnIncompleteFileAreRefused) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  EXPECT_EQ(Roots(catalogue, catalogue.Admit("b", 2, 1, true)), "-18");
}

TEST(FindRoots, AreRepeatedForEachWay) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b1", 2, 1);
  catalogue.Admit("b2", 2, 1);
  EnumeratedFile* c = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Roots(catalogue, c), "a a");
  catalogue.Admit("a2", 1, 0);
  EXPECT_EQ(Roots(catalogue, c), "a a2 a a2");
}

TEST(FindRoots, NearerOnesComeFirst) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("c-far", 3, 2);
  catalogue.Admit("c-near", 3, 0);
  catalogue.Admit("c-middle", 3, 1);
  EXPECT_EQ(Roots(catalogue, catalogue.Admit("d", 4, 3)), "c-near a a");
}

TEST(FindRoots, EquallyNearOnesComeInTheOrderOfTheirWays) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a-second", 12, 0);
  catalogue.Admit("a-first", 11, 0);
  catalogue.Admit("b1", 2, 11);
  catalogue.Admit("b2", 2, 12);
  EXPECT_EQ(Roots(catalogue, catalogue.Admit("c", 3, 2)), "a-first a-second");
}

TEST(FindPureDependents, AreTheFileAndAllBelowItEachBeforeItsChildren) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 0);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("c", 3, 1);
  catalogue.Admit("c1", 31, 3);
  EnumeratedFile* b1 = catalogue.Admit("b1", 21, 2);
  catalogue.Admit("b2", 22, 2);
  catalogue.Admit("b1x", 211, 21);
  catalogue.Admit("other", 9, 0);
  EXPECT_EQ(Dependents(catalogue, a), "a b b1 b1x b2 c c1");
  EXPECT_EQ(Dependents(catalogue, b1), "b1 b1x");
}

TEST(FindPureDependents, OfALoneFileAreTheFileWhateverItsState) {
  MemoryCatalogue catalogue;
  EXPECT_EQ(Dependents(catalogue, catalogue.Admit("orphan", 1, 99)), "orphan");
  EXPECT_EQ(Dependents(catalogue, catalogue.Admit("broken", 2, 0, true)), "broken");
}

TEST(FindPureDependents, IncompleteFilesAreNotSkipped) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 0, true);
  catalogue.Admit("b", 2, 1, true);
  catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Dependents(catalogue, a), "a b c");
}

TEST(FindPureDependents, AreRepeatedForEachCopyOfTheirParent) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 0);
  catalogue.Admit("b1", 2, 1);
  catalogue.Admit("b2", 2, 1);
  catalogue.Admit("c", 3, 2);
  catalogue.Admit("d", 4, 3);
  EXPECT_EQ(Dependents(catalogue, a), "a b1 c d b2 c d");
}

// Cycles.

TEST(Cycles, TwoFilesThatNameEachOtherAreVisitedOnceEach) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 2);
  EnumeratedFile* b = catalogue.Admit("b", 2, 1);
  EnumeratedFile* c = catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Dependents(catalogue, a), "a b c");
  EXPECT_EQ(Dependents(catalogue, b), "b a c");
  EXPECT_EQ(Dependents(catalogue, c), "c");
  EXPECT_EQ(Roots(catalogue, a), "-18");
  EXPECT_EQ(Roots(catalogue, b), "-18");
  EXPECT_EQ(Roots(catalogue, c), "-18");
}

TEST(Cycles, ARingOfManyFilesEnds) {
  constexpr std::uint32_t kFiles = 100000;
  MemoryCatalogue catalogue;
  EnumeratedFile* first = nullptr;
  for (std::uint32_t i = 0; i < kFiles; ++i) {
    EnumeratedFile* file = catalogue.Admit("r", i + 1, i == 0 ? kFiles : i);
    if (i == 0) first = file;
  }
  FileList dependents;
  ASSERT_EQ(FindPureDependents(catalogue.enumeration, *first, &dependents).status, 0);
  ASSERT_EQ(dependents.size(), kFiles);
  for (std::uint32_t i = 0; i < kFiles; ++i) ASSERT_EQ(dependents[i]->admissionNumber, i);
  EXPECT_EQ(Roots(catalogue, first), "-18");
}

TEST(Cycles, AWayOutOfTheCycleLeadsToARoot) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 2);
  EnumeratedFile* b = catalogue.Admit("b", 2, 1);
  catalogue.Admit("b-base", 2, 0);
  EnumeratedFile* c = catalogue.Admit("c", 3, 1);
  EXPECT_EQ(Roots(catalogue, a), "b-base");
  EXPECT_EQ(Roots(catalogue, b), "b-base");
  EXPECT_EQ(Roots(catalogue, c), "b-base");
  EXPECT_EQ(Dependents(catalogue, b), "b a c");
}

TEST(Cycles, AreVisitedAnewEachTimeThatAWayEntersThem) {
  MemoryCatalogue catalogue;
  EnumeratedFile* top = catalogue.Admit("top", 9, 0);
  catalogue.Admit("way1", 3, 9);
  catalogue.Admit("way2", 3, 9);
  // In the cycle of a and b; it is entered through a copy of a.
  catalogue.Admit("a", 1, 2);
  catalogue.Admit("a-entry", 1, 3);
  catalogue.Admit("b", 2, 1);
  EXPECT_EQ(Dependents(catalogue, top), "top way1 a-entry b a way2 a-entry b a");
}

TEST(Cycles, CopiesInACycleDoNotMultiply) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = nullptr;
  for (int i = 0; i < 20; ++i) {
    a = catalogue.Admit("a" + std::to_string(i), 1, 2);
    catalogue.Admit("b" + std::to_string(i), 2, 1);
  }
  FileList dependents;
  ASSERT_EQ(FindPureDependents(catalogue.enumeration, *a, &dependents).status, 0);
  EXPECT_EQ(dependents.size(), 40u);
  EXPECT_EQ(Roots(catalogue, a), "-18");
}

// Size.

TEST(LongChains, OfManyIncrementsNeedNoStack) {
  constexpr std::uint32_t kFiles = 100000;
  MemoryCatalogue catalogue;
  EnumeratedFile* base = catalogue.Admit("f", 1, 0);
  EnumeratedFile* last = base;
  for (std::uint32_t i = 2; i <= kFiles; ++i) last = catalogue.Admit("f", i, i - 1);
  FileList files;
  ASSERT_EQ(FindPureDependents(catalogue.enumeration, *base, &files).status, 0);
  ASSERT_EQ(files.size(), kFiles);
  EXPECT_EQ(files.back(), last);
  ASSERT_EQ(FindRoots(catalogue.enumeration, *last, &files).status, 0);
  EXPECT_EQ(files, FileList{base});
}

// Every image in two copies: ways double with every generation.
TEST(Copies, ListsThatNoSizeCanTellAreRefusedAtOnce) {
  MemoryCatalogue catalogue;
  EnumeratedFile* base = catalogue.Admit("f", 1, 0);
  EnumeratedFile* last = nullptr;
  for (std::uint32_t i = 2; i <= 60; ++i) {
    catalogue.Admit("f", i, i - 1);
    last = catalogue.Admit("f", i, i - 1);
  }
  EXPECT_EQ(Dependents(catalogue, base), "-8");
  EXPECT_EQ(Roots(catalogue, last), "-8");
}

TEST(Copies, OtherListsAreGivenWithAllRepeats) {
  MemoryCatalogue catalogue;
  EnumeratedFile* base = catalogue.Admit("f", 1, 0);
  EnumeratedFile* last = nullptr;
  for (std::uint32_t i = 2; i <= 12; ++i) {
    catalogue.Admit("f", i, i - 1);
    last = catalogue.Admit("f", i, i - 1);
  }
  FileList files;
  ASSERT_EQ(FindPureDependents(catalogue.enumeration, *base, &files).status, 0);
  EXPECT_EQ(files.size(), 4095u);
  ASSERT_EQ(FindRoots(catalogue.enumeration, *last, &files).status, 0);
  EXPECT_EQ(files, FileList(1024, base));
}

// Sixteen thousand ways, all through the same long chain.
TEST(Copies, ManyWaysThroughALongChainTakeNoLongerThanTheirList) {
  MemoryCatalogue catalogue;
  EnumeratedFile* base = catalogue.Admit("f", 1, 0);
  for (std::uint32_t i = 2; i <= 50000; ++i) catalogue.Admit("f", i, i - 1);
  EnumeratedFile* last = nullptr;
  for (std::uint32_t i = 50001; i <= 50015; ++i) {
    catalogue.Admit("f", i, i - 1);
    last = catalogue.Admit("f", i, i - 1);
  }
  FileList roots;
  ASSERT_EQ(FindRoots(catalogue.enumeration, *last, &roots).status, 0);
  EXPECT_EQ(roots, FileList(16384, base));
}

// Walks step by step as the words of the contract go, for catalogues without cycles.
void PlainDependents(const EnumeratedFile& file, FileList* list) {
  list->push_back(&file);
  for (const EnumeratedFile* child : file.children) PlainDependents(*child, list);
}

FileList PlainRoots(const EnumeratedFile& start) {
  FileList roots;
  std::deque<const EnumeratedFile*> queue = {&start};
  while (!queue.empty()) {
    const EnumeratedFile* file = queue.front();
    queue.pop_front();
    int found = 0;
    for (const EnumeratedFile* parent : file->parents) {
      if (parent->isIncomplete) continue;
      queue.push_back(parent);
      ++found;
    }
    if (found == 0) roots.push_back(file);
  }
  return roots;
}

TEST(LineageQueries, WalkAsThePlainWalksDo) {
  for (std::uint32_t seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    MemoryCatalogue catalogue;
    FileList all;
    // An image's parent has a smaller number, so there is no cycle; admissions come in any order.
    for (int i = 0; i < 24; ++i) {
      const auto id = static_cast<std::uint32_t>(random() % 12 + 1);
      const auto parent = static_cast<std::uint32_t>(random() % id);
      all.push_back(catalogue.Admit("n" + std::to_string(i), id, parent, random() % 6 == 0));
    }
    for (const EnumeratedFile* file : all) {
      FileList expected;
      PlainDependents(*file, &expected);
      FileList list;
      EXPECT_EQ(FindPureDependents(catalogue.enumeration, *file, &list).status, 0);
      EXPECT_EQ(kqtest::NamesOf(list), kqtest::NamesOf(expected));
      if (file->isIncomplete) continue;
      EXPECT_EQ(FindRoots(catalogue.enumeration, *file, &list).status, 0);
      EXPECT_EQ(kqtest::NamesOf(list), kqtest::NamesOf(PlainRoots(*file)));
    }
  }
}

class LineageQueryTest : public kqtest::EnumerationTest {};

TEST_F(LineageQueryTest, ListsComeThroughTheHandle) {
  Write("a.twf", {.id = 1});
  Write("b.twi", {.id = 2, .parent = 1});
  Write("c.twi", {.id = 3, .parent = 2, .isLast = false});
  Add();
  EXPECT_EQ(Roots("b.twi"), Names("a.twf"));
  EXPECT_EQ(Roots("c.twi"), (Listed{-18, ""}));
  EXPECT_EQ(Dependents("a.twf"), Names("a.twf|b.twi|c.twi"));
}

TEST_F(LineageQueryTest, AnOrphanCanBeItsOwnRoot) {
  Write("a.twf", {.id = 1, .isLast = false});
  Write("b.twi", {.id = 2, .parent = 1});
  Add();
  EXPECT_EQ(Roots("b.twi"), Names("b.twi"));
  EXPECT_EQ(Orphans(), Ask(KQImageFilesEnumerationQueryAllOrphans));
}

TEST_F(LineageQueryTest, FilesThatNameEachOtherEndEveryQuery) {
  Write("a.twi", {.id = 1, .parent = 2});
  Write("b.twi", {.id = 2, .parent = 1});
  Add();
  EXPECT_EQ(Dependents("a.twi"), Names("a.twi|b.twi"));
  EXPECT_EQ(Roots("a.twi"), (Listed{-18, ""}));
  EXPECT_EQ(Chain("a.twi"), (Listed{-18, ""}));
  EXPECT_EQ(Fostered(), (Listed{-18, ""}));
}

}  // namespace
}  // namespace kq
