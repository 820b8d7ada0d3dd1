#include "kqimage/image/family_tree.h"

#include <gtest/gtest.h>

namespace kqimage {
namespace {

// Identifiers are a number in the first bytes; 0 as a parent makes a base.
FamilyMember Member(const std::string& path, std::uint32_t id, std::uint32_t parent,
                    std::uint64_t time = 0) {
  FamilyMember member;
  member.path = path;
  for (std::size_t i = 0; i < 4; ++i) {
    member.info.basic.imageId[i] = static_cast<std::uint8_t>(id >> (8 * i));
    member.info.basic.parentImageId[i] = static_cast<std::uint8_t>(parent >> (8 * i));
  }
  member.info.basic.creationTime = time;
  return member;
}

// The drawing as text, families divided by an empty line.
std::string Draw(std::vector<FamilyMember>& members) {
  std::string text;
  for (const FamilyDrawing& family : BuildFamilies(members)) {
    if (!text.empty()) text += "\n";
    for (const FamilyLine& line : family) text += line.indent + members[line.member].path + "\n";
  }
  return text;
}
std::string Draw(std::vector<FamilyMember>&& members) { return Draw(members); }

TEST(BuildFamilies, AChainIsOneColumn) {
  EXPECT_EQ(Draw({Member("c", 3, 2), Member("a", 1, 0), Member("b", 2, 1)}), "a\n  b\n  c\n");
}

TEST(BuildFamilies, BranchesStandBelowTheFileThatTheyLeave) {
  EXPECT_EQ(
      Draw({Member("a", 1, 0), Member("b", 2, 1), Member("side", 4, 2, 1), Member("side2", 5, 4),
            Member("side3", 6, 2, 2), Member("c", 3, 2, 3), Member("d", 7, 3), Member("e", 8, 7)}),
      "a\n"
      "  b\n"
      "  ├─ side\n"
      "  │  side2\n"
      "  └─ side3\n"
      "  c\n"
      "  d\n"
      "  e\n");
}

TEST(BuildFamilies, FamiliesAndOrphansComeInTheOrderOfTheirPaths) {
  EXPECT_EQ(Draw({Member("z", 1, 0), Member("m", 5, 99), Member("a", 2, 0), Member("n", 6, 5)}),
            "a\n\nm\n  n\n\nz\n");
}

TEST(BuildFamilies, NoNumberOfImagesNeedsMoreStackOrIndentation) {
  constexpr std::uint32_t kFiles = 100000;
  std::vector<FamilyMember> members;
  for (std::uint32_t id = 1; id <= kFiles; ++id) {
    // A branch leaves every file of the chain.
    members.push_back(Member("f", id, id - 1));
    members.push_back(Member("side", kFiles + id, id));
  }
  const auto families = BuildFamilies(members);
  ASSERT_EQ(families.size(), 1u);
  EXPECT_EQ(families[0].size(), members.size());
  for (const FamilyLine& line : families[0]) ASSERT_LT(line.indent.size(), 20u);
}

TEST(BuildFamilies, ChildrenHangBelowACompleteCopy) {
  std::vector<FamilyMember> members = {Member("a", 1, 0), Member("a-copy", 1, 0),
                                       Member("b", 2, 1)};
  members[0].isIncomplete = true;
  EXPECT_EQ(Draw(members), "a\n\na-copy\n  b\n");
  EXPECT_EQ(members[0].copyOf, 1u);
  EXPECT_EQ(members[1].copyOf, std::nullopt);
  EXPECT_EQ(members[2].buildsOn, 1u);
}

TEST(BuildFamilies, ARingBeginsAtItsFirstPath) {
  std::vector<FamilyMember> members = {Member("r", 3, 2), Member("q", 2, 1), Member("p", 1, 3),
                                       Member("tail", 4, 2, 1)};
  EXPECT_EQ(Draw(members), "p\n  q\n  └─ tail\n  r\n");
  EXPECT_TRUE(members[2].isInRing);
  EXPECT_FALSE(members[0].isInRing || members[1].isInRing || members[3].isInRing);
}

TEST(BuildFamilies, NothingGivesNothing) { EXPECT_EQ(Draw({}), ""); }

}  // namespace
}  // namespace kqimage
