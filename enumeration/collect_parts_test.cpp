// Split images: where continuation parts are found, and what makes an image incomplete.
#include <gtest/gtest.h>

#include "enumeration/admit_file.h"
#include "enumeration/enumeration_test_support.h"

namespace kq {
namespace {

using kqtest::ImageFile;
using kqtest::ImageSpec;

class CollectPartsTest : public kqtest::EnumerationTest {
 protected:
  CollectPartsTest() { Write("a.twf", {.id = 1, .parent = 2, .isLast = false}); }

  static ImageFile Part(std::uint32_t number, bool isLast) {
    return {.id = 1, .parent = 2, .part = number, .isLast = isLast};
  }

  // The names of a.twf's parts, with "..." behind them if it is incomplete.
  std::string PartsOf(const std::string& name = "a.twf") {
    ImageFilesEnumeration enumeration;
    const EnumeratedDirectory directory(folder_ + "/");
    EXPECT_EQ(AdmitFile(&enumeration, directory, name).status, 0);
    const EnumeratedFile& file = *enumeration.filesByName.begin()->second;
    std::string text;
    for (const auto& part : file.parts) {
      text += (text.empty() ? "" : " ") + part->name;
      EXPECT_EQ(part->directory, &directory);
      EXPECT_FALSE(part->isIncomplete);
    }
    return file.isIncomplete ? text + "..." : text;
  }
};

TEST_F(CollectPartsTest, WithoutAnyPartTheImageIsIncomplete) { EXPECT_EQ(PartsOf(), "..."); }

TEST_F(CollectPartsTest, AFileWithLastPartSetHasNoParts) {
  Write("b.twf", {.id = 1});
  Write("b.TW1", {.id = 1, .part = 1});
  EXPECT_EQ(PartsOf("b.twf"), "");
}

TEST_F(CollectPartsTest, APartHasTheStemOrTheWholeNameAndASuffixInAnyCase) {
  for (const char* name :
       {"a.TW1", "a.tw1", "a.Tw1", "a.tW1", "a.twf.TW1", "a.twf.tw1", "a.twf.Tw1", "a.twf.tW1"}) {
    Write(name, Part(1, true));
    EXPECT_EQ(PartsOf(), name);
    std::filesystem::remove(Path(name));
  }
}

TEST_F(CollectPartsTest, NamesAreTriedInAFixedOrder) {
  const char* const names[] = {"a.TW1", "a.twf.TW1", "a.tw1", "a.twf.tw1",
                               "a.Tw1", "a.twf.Tw1", "a.tW1", "a.twf.tW1"};
  for (const char* name : names) Write(name, Part(1, true));
  for (const char* name : names) {
    EXPECT_EQ(PartsOf(), name);
    std::filesystem::remove(Path(name));
  }
  EXPECT_EQ(PartsOf(), "...");
}

TEST_F(CollectPartsTest, PartsAreNumberedWithoutPadding) {
  for (std::uint32_t i = 1; i <= 12; ++i) Write("a.TW" + std::to_string(i), Part(i, i == 12));
  EXPECT_EQ(PartsOf(),
            "a.TW1 a.TW2 a.TW3 a.TW4 a.TW5 a.TW6 a.TW7 a.TW8 a.TW9 a.TW10 a.TW11 a.TW12");
}

TEST_F(CollectPartsTest, EachPartIsSoughtUnderAllNames) {
  Write("a.TW1", Part(1, false));
  Write("a.twf.tW2", Part(2, false));
  Write("a.tw3", Part(3, true));
  EXPECT_EQ(PartsOf(), "a.TW1 a.twf.tW2 a.tw3");
}

TEST_F(CollectPartsTest, NothingIsSoughtBehindTheLastPart) {
  Write("a.TW1", Part(1, true));
  Write("a.TW2", Part(2, true));
  EXPECT_EQ(PartsOf(), "a.TW1");
}

TEST_F(CollectPartsTest, AMissingPartKeepsThoseBeforeIt) {
  Write("a.TW1", Part(1, false));
  Write("a.TW2", Part(2, false));
  Write("a.TW4", Part(4, true));
  EXPECT_EQ(PartsOf(), "a.TW1 a.TW2...");
}

TEST_F(CollectPartsTest, OnlyTheLastExtensionIsCut) {
  Write("x.y.twi", {.id = 1, .parent = 2, .isLast = false});
  Write("x.TW1", Part(1, true));
  EXPECT_EQ(PartsOf("x.y.twi"), "...");
  Write("x.y.TW1", Part(1, true));
  EXPECT_EQ(PartsOf("x.y.twi"), "x.y.TW1");
}

TEST_F(CollectPartsTest, ADefectFileUnderTheStemIsPassedOverForTheWholeName) {
  kqtest::WriteFile(Path("a.TW1"), std::vector<std::uint8_t>(5000, 'x'));
  Write("a.twf.TW1", Part(1, true));
  EXPECT_EQ(PartsOf(), "a.twf.TW1");
}

TEST_F(CollectPartsTest, ADefectFileUnderTheStemIsPassedOverForTheNextSuffix) {
  kqtest::WriteFile(Path("a.TW1"), std::vector<std::uint8_t>(5000, 'x'));
  Write("a.tw1", Part(1, true));
  EXPECT_EQ(PartsOf(), "a.tw1");
}

TEST_F(CollectPartsTest, ADefectFileUnderTheWholeNameEndsTheSearch) {
  kqtest::WriteFile(Path("a.twf.TW1"), std::vector<std::uint8_t>(5000, 'x'));
  Write("a.tw1", Part(1, true));
  EXPECT_EQ(PartsOf(), "...");
}

TEST_F(CollectPartsTest, APartOfTheWrongImageUnderTheFirstNameEndsTheSearch) {
  Write("a.TW1", {.id = 9, .parent = 2, .part = 1});
  Write("a.twf.TW1", Part(1, true));
  Write("a.tw1", Part(1, true));
  EXPECT_EQ(PartsOf(), "...");
}

TEST_F(CollectPartsTest, APartMustFitItsImage) {
  const auto incomplete = [&](const auto& change) {
    ImageSpec spec = kqtest::SpecOf({.id = 1, .parent = 2, .part = 1, .snapshot = 5});
    change(&spec);
    kqtest::WriteSpec(Path("a.TW1"), spec);
    return PartsOf() == "...";
  };
  EXPECT_FALSE(incomplete([](ImageSpec*) {}));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.partIndex = 2; }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.partIndex = 0; }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.imageId = kqtest::MakeId(3); }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.parentImageId = {}; }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.imageSetId = kqtest::MakeId(3); }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.imageSetId = {}; }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->header.sourceSize = 0; }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) { spec->headerCrc = 1; }));
  EXPECT_TRUE(incomplete([](ImageSpec* spec) {
    spec->header.laterSectors.assign(512, 7);
    spec->extraCrc = 1;
  }));
}

TEST_F(CollectPartsTest, APartTakesItsGenerationsFromTheMainFile) {
  ImageSpec head = kqtest::SpecOf({.id = 1, .parent = 2, .isLast = false});
  head.header.generation = 5;
  head.header.nextGeneration = 6;
  ImageSpec part = kqtest::SpecOf({.id = 1, .parent = 2, .part = 1, .snapshot = 4});
  part.header.generation = 7;
  part.header.nextGeneration = 8;
  kqtest::WriteSpec(Path("a.twf"), head);
  kqtest::WriteSpec(Path("a.TW1"), part);
  ImageFilesEnumeration enumeration;
  const EnumeratedDirectory directory(folder_ + "/");
  ASSERT_EQ(AdmitFile(&enumeration, directory, "a.twf").status, 0);
  const EnumeratedFile& found = *enumeration.filesByName.begin()->second->parts.at(0);
  EXPECT_EQ(found.generation, 5u);
  EXPECT_EQ(found.nextGeneration, 6u);
  EXPECT_EQ(found.partIndex, 1u);
  EXPECT_EQ(found.lastPart, 0xFFFFFFFFu);
  EXPECT_EQ(found.snapshotSetId, kqtest::MakeId(4));
  EXPECT_TRUE(found.hasExtendedRecord);
}

TEST_F(CollectPartsTest, AnIncompleteFileIsLinkedLikeAnyOther) {
  Write("parent.twf", {.id = 2});
  Write("child.twi", {.id = 3, .parent = 1});
  Add();
  EXPECT_EQ(Dependents("parent.twf"), Names("parent.twf|a.twf|child.twi"));
}

TEST_F(CollectPartsTest, PartsAreListedBehindTheirFile) {
  Write("a.twf", {.id = 1, .isLast = false});
  Write("a.TW1", {.id = 1, .part = 1, .isLast = false});
  Write("a.twf.tw2", {.id = 1, .part = 2});
  Write("b.twi", {.id = 3, .parent = 1});
  Add();
  const auto chain = [&](std::uint32_t flags) {
    return Ask(KQImageFilesEnumerationQueryShortestPathToBase, Path("b.twi"), flags).text;
  };
  EXPECT_EQ(chain(6), Path("a.twf") + "|a.TW1|a.twf.tw2|b.twi");
  EXPECT_EQ(chain(7),
            Path("a.twf") + "|" + Path("a.TW1") + "|" + Path("a.twf.tw2") + "|" + Path("b.twi"));
  EXPECT_EQ(chain(4), Path("a.twf") + "|b.twi");
}

}  // namespace
}  // namespace kq
