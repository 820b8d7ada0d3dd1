#include "enumeration/set_queries.h"

#include <gtest/gtest.h>

#include "enumeration/enumeration_test_support.h"

namespace kq {
namespace {

using kqtest::Listed;
using kqtest::MakeId;
using kqtest::MemoryCatalogue;

template <class Query>
std::string NamesFrom(const Query& query) {
  FileList files;
  const KQStatus status = query(&files);
  if (status.status != 0) {
    EXPECT_TRUE(files.empty());
    EXPECT_STREQ(status.file, kqtest::kModuleName);
    return std::to_string(status.status);
  }
  return kqtest::NamesOf(files);
}

std::string Fostered(const MemoryCatalogue& catalogue) {
  return NamesFrom([&](FileList* files) { return AllFostered(catalogue.enumeration, files); });
}
std::string Orphans(const MemoryCatalogue& catalogue) {
  return NamesFrom([&](FileList* files) { return AllOrphans(catalogue.enumeration, files); });
}
std::string Snapshots(const MemoryCatalogue& catalogue, const Identifier& identifier) {
  return NamesFrom(
      [&](FileList* files) { return SnapshotSet(catalogue.enumeration, identifier, files); });
}

TEST(SetQueries, AnEmptyCatalogueHasNothingToList) {
  const MemoryCatalogue catalogue;
  EXPECT_EQ(Fostered(catalogue), "-18");
  EXPECT_EQ(Orphans(catalogue), "-18");
  EXPECT_EQ(Snapshots(catalogue, MakeId(5)), "-18");
}

TEST(AllFostered, GoesLevelByLevelFromTheBasesInTheOrderOfTheirNames) {
  MemoryCatalogue catalogue;
  catalogue.Admit("z-base", 1, 0);
  catalogue.Admit("child-of-z", 11, 1);
  catalogue.Admit("grandchild", 111, 11);
  catalogue.Admit("second-of-z", 12, 1);
  catalogue.Admit("a-base", 2, 0);
  catalogue.Admit("child-of-a", 21, 2);
  EXPECT_EQ(Fostered(catalogue), "a-base z-base child-of-a child-of-z second-of-z grandchild");
  EXPECT_EQ(Orphans(catalogue), "-18");
}

TEST(AllFostered, EachFileStandsOnce) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a1", 1, 0);
  catalogue.Admit("a2", 1, 0);
  catalogue.Admit("b1", 2, 1);
  catalogue.Admit("b2", 2, 1);
  catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Fostered(catalogue), "a1 a2 b1 b2 c");
}

TEST(AllFostered, ALongChainNeedsNoStack) {
  constexpr std::uint32_t kFiles = 100000;
  MemoryCatalogue catalogue;
  for (std::uint32_t i = 0; i < kFiles; ++i) catalogue.Admit("f", i + 1, i);
  FileList files;
  ASSERT_EQ(AllFostered(catalogue.enumeration, &files).status, 0);
  ASSERT_EQ(files.size(), kFiles);
  for (std::uint32_t i = 0; i < kFiles; ++i) ASSERT_EQ(files[i]->admissionNumber, i);
  EXPECT_EQ(Orphans(catalogue), "-18");
}

TEST(AllFostered, ImageSetsAreNotCompared) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0)->imageSetId = MakeId(70);
  catalogue.Admit("b", 2, 1)->imageSetId = MakeId(71);
  catalogue.Admit("c", 3, 2)->imageSetId = MakeId(72);
  EXPECT_EQ(Fostered(catalogue), "a b c");
}

TEST(AllOrphans, AreIncompleteFilesFilesWithoutParentsAndAllBelowThem) {
  MemoryCatalogue catalogue;
  catalogue.Admit("under-lost", 6, 5);
  catalogue.Admit("base", 1, 0);
  catalogue.Admit("lost", 5, 99);
  catalogue.Admit("broken", 2, 1, true);
  catalogue.Admit("good", 4, 1);
  catalogue.Admit("under-broken", 3, 2);
  EXPECT_EQ(Fostered(catalogue), "base good");
  EXPECT_EQ(Orphans(catalogue), "under-lost lost broken under-broken");
}

TEST(AllOrphans, ComeInTheOrderOfAdmission) {
  MemoryCatalogue catalogue;
  for (const char* name : {"m", "z", "a", "q"}) catalogue.Admit(name, 1, 9);
  EXPECT_EQ(Orphans(catalogue), "m z a q");
}

TEST(AllOrphans, AnIncompleteBaseOrphansWhatHasNoOtherParent) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 0, true);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Fostered(catalogue), "-18");
  EXPECT_EQ(Orphans(catalogue), "a b c");
  catalogue.Admit("a-copy", 1, 0);
  EXPECT_EQ(Fostered(catalogue), "a-copy b c");
  EXPECT_EQ(Orphans(catalogue), "a");
}

TEST(AllOrphans, AreTheMembersOfACycleWithoutABase) {
  MemoryCatalogue catalogue;
  catalogue.Admit("a", 1, 3);
  catalogue.Admit("b", 2, 1);
  catalogue.Admit("c", 3, 2);
  EXPECT_EQ(Fostered(catalogue), "-18");
  EXPECT_EQ(Orphans(catalogue), "a b c");
}

TEST(SnapshotSet, HoldsFosteredFilesInTheOrderOfReaching) {
  MemoryCatalogue catalogue;
  catalogue.Admit("z", 1, 0)->snapshotSetId = MakeId(5);
  catalogue.Admit("z-child", 2, 1)->snapshotSetId = MakeId(5);
  catalogue.Admit("a", 3, 0)->snapshotSetId = MakeId(5);
  catalogue.Admit("other", 4, 0)->snapshotSetId = MakeId(6);
  catalogue.Admit("none", 5, 0);
  catalogue.Admit("orphan", 7, 99)->snapshotSetId = MakeId(5);
  EXPECT_EQ(Snapshots(catalogue, MakeId(5)), "a z z-child");
  EXPECT_EQ(Snapshots(catalogue, MakeId(6)), "other");
  EXPECT_EQ(Snapshots(catalogue, MakeId(7)), "-18");
}

TEST(SnapshotSet, ThatOnlyOrphansBearIsEmpty) {
  MemoryCatalogue catalogue;
  catalogue.Admit("base", 1, 0);
  catalogue.Admit("orphan", 2, 99)->snapshotSetId = MakeId(5);
  catalogue.Admit("broken", 3, 1, true)->snapshotSetId = MakeId(5);
  EXPECT_EQ(Snapshots(catalogue, MakeId(5)), "-18");
}

TEST(SnapshotSet, TheAllZeroOneIsEmpty) {
  MemoryCatalogue catalogue;
  catalogue.Admit("base", 1, 0);
  EXPECT_EQ(Snapshots(catalogue, Identifier{}), "-18");
}

TEST(SnapshotSet, WhetherTheFileHasARecordIsNotAsked) {
  MemoryCatalogue catalogue;
  EnumeratedFile* file = catalogue.Admit("a", 1, 0);
  file->snapshotSetId = MakeId(5);
  file->hasExtendedRecord = false;
  EXPECT_EQ(Snapshots(catalogue, MakeId(5)), "a");
}

TEST(SnapshotSet, IsComparedByAllSixteenBytes) {
  MemoryCatalogue catalogue;
  Identifier identifier = MakeId(5);
  catalogue.Admit("a", 1, 0)->snapshotSetId = identifier;
  EXPECT_EQ(Snapshots(catalogue, identifier), "a");
  for (std::uint8_t& byte : identifier) {
    byte ^= 0x10;
    EXPECT_EQ(Snapshots(catalogue, identifier), "-18");
    byte ^= 0x10;
  }
}

class SetQueryTest : public kqtest::EnumerationTest {};

TEST_F(SetQueryTest, ListsComeThroughTheHandle) {
  Write("a.twf", {.id = 1, .snapshot = 5});
  Write("b.twi", {.id = 2, .parent = 1, .snapshot = 5});
  Write("c.twi", {.id = 3, .parent = 99, .snapshot = 5});
  Add();
  EXPECT_EQ(Fostered(), Names("a.twf|b.twi"));
  EXPECT_EQ(Orphans(), Names("c.twi"));
  EXPECT_EQ(Snapshots(5), Names("a.twf|b.twi"));
  EXPECT_EQ(Snapshots(0), (Listed{-18, ""}));
  EXPECT_EQ(Snapshots(6), (Listed{-18, ""}));
}

TEST_F(SetQueryTest, PartsThatWereFoundOfAnIncompleteOrphanAreListed) {
  Write("a.twf", {.id = 1, .isLast = false});
  Write("a.TW1", {.id = 1, .part = 1, .isLast = false});
  Add();
  EXPECT_EQ(Ask(KQImageFilesEnumerationQueryAllOrphans, KQ_LIST_NO_QUOTES | KQ_LIST_WITH_PARTS),
            Names("a.twf|a.TW1"));
}

TEST_F(SetQueryTest, PartsAreNeitherFosteredNorOrphans) {
  Write("a.twf", {.id = 1, .isLast = false});
  Write("a.TW1", {.id = 1, .part = 1});
  Add();
  EXPECT_EQ(Fostered(), Names("a.twf"));
  EXPECT_EQ(Orphans(), (Listed{-18, ""}));
}

}  // namespace
}  // namespace kq
