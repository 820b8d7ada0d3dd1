#include "enumeration/image_files_enumeration.h"

#include <gtest/gtest.h>

#include "enumeration/enumeration_test_support.h"

namespace kq {
namespace {

using kqtest::MakeId;
using kqtest::MemoryCatalogue;

template <class Map>
std::string KeysAndNames(const Map& map) {
  std::string text;
  for (const auto& [key, file] : map) text += key + "=" + file->name + " ";
  return text;
}

std::string NamesUnder(const FilesByIdentifier& files, const Identifier& identifier) {
  FileList found;
  const auto [first, last] = files.equal_range(IdentifierText(identifier));
  for (auto entry = first; entry != last; ++entry) found.push_back(entry->second);
  return kqtest::NamesOf(found);
}

std::string NamesOf(const FileLinks& links) {
  return kqtest::NamesOf(FileList(links.begin(), links.end()));
}

TEST(ImageFilesEnumeration, LinksAChildThatComesAfterItsParent) {
  MemoryCatalogue catalogue;
  EnumeratedFile* parent = catalogue.Admit("p", 1, 0);
  EnumeratedFile* child = catalogue.Admit("c", 2, 1);
  EXPECT_EQ(NamesOf(parent->children), "c");
  EXPECT_EQ(NamesOf(child->parents), "p");
  EXPECT_TRUE(parent->parents.empty());
  EXPECT_TRUE(child->children.empty());
}

TEST(ImageFilesEnumeration, LinksAParentThatComesAfterItsChild) {
  MemoryCatalogue catalogue;
  EnumeratedFile* child = catalogue.Admit("c", 2, 1);
  EnumeratedFile* parent = catalogue.Admit("p", 1, 0);
  EXPECT_EQ(NamesOf(parent->children), "c");
  EXPECT_EQ(NamesOf(child->parents), "p");
}

TEST(ImageFilesEnumeration, CopiesAreAllParentsInTheOrderOfAdmission) {
  MemoryCatalogue catalogue;
  catalogue.Admit("p-z", 1, 0);
  EnumeratedFile* first = catalogue.Admit("c1", 2, 1);
  catalogue.Admit("p-a", 1, 0);
  EnumeratedFile* second = catalogue.Admit("c2", 2, 1);
  catalogue.Admit("p-m", 1, 0);
  EXPECT_EQ(NamesOf(first->parents), "p-z p-a p-m");
  EXPECT_EQ(NamesOf(second->parents), "p-z p-a p-m");
  for (const EnumeratedFile* parent : first->parents) {
    EXPECT_EQ(NamesOf(parent->children), "c1 c2");
  }
}

TEST(ImageFilesEnumeration, FilesThatNameEachOtherAreLinkedBothWays) {
  MemoryCatalogue catalogue;
  EnumeratedFile* a = catalogue.Admit("a", 1, 2);
  EnumeratedFile* b = catalogue.Admit("b", 2, 1);
  EXPECT_EQ(NamesOf(a->parents), "b");
  EXPECT_EQ(NamesOf(a->children), "b");
  EXPECT_EQ(NamesOf(b->parents), "a");
  EXPECT_EQ(NamesOf(b->children), "a");
}

TEST(ImageFilesEnumeration, EveryFileStandsInThreeMapsAndABaseInTwoMore) {
  MemoryCatalogue catalogue;
  catalogue.Admit("base", 1, 0);
  catalogue.Admit("child", 2, 1);
  catalogue.Admit("broken", 3, 1, true);
  const ImageFilesEnumeration& enumeration = catalogue.enumeration;
  EXPECT_EQ(enumeration.filesByName.size(), 3u);
  EXPECT_EQ(enumeration.filesByImageId.size(), 3u);
  EXPECT_EQ(enumeration.filesByParentId.size(), 3u);
  EXPECT_EQ(KeysAndNames(enumeration.basesByName), "base=base ");
  EXPECT_EQ(enumeration.basesBySetId.size(), 1u);
  EXPECT_EQ(NamesUnder(enumeration.basesBySetId, MakeId(0x5E7)), "base");
  EXPECT_EQ(NamesUnder(enumeration.filesByImageId, MakeId(2)), "child");
  EXPECT_EQ(NamesUnder(enumeration.filesByParentId, MakeId(1)), "child broken");
}

TEST(ImageFilesEnumeration, BasesStandUnderTheAllZeroParent) {
  MemoryCatalogue catalogue;
  catalogue.Admit("b2", 2, 0);
  catalogue.Admit("b1", 1, 0);
  EXPECT_EQ(catalogue.enumeration.filesByParentId.begin()->first.view(),
            "{00000000-0000-0000-0000-000000000000}");
  EXPECT_EQ(NamesUnder(catalogue.enumeration.filesByParentId, Identifier{}), "b2 b1");
}

TEST(ImageFilesEnumeration, NamesAreOrderedAsUnsignedBytesAndCaseCounts) {
  MemoryCatalogue catalogue;
  for (const char* name : {"a\xC3\xA4", "a", "ab", "B", "a\x01", "aB", "\xFF"}) {
    catalogue.Admit(name, 1, 0);
  }
  std::string names;
  for (const auto& [name, file] : catalogue.enumeration.filesByName) names += name + ",";
  EXPECT_EQ(names, "B,a,a\x01,aB,ab,a\xC3\xA4,\xFF,");
}

TEST(ImageFilesEnumeration, EqualNamesStayInTheOrderOfAdmission) {
  MemoryCatalogue catalogue;
  const FileLinks admitted = {catalogue.Admit("n", 3, 0), catalogue.Admit("n", 1, 0),
                              catalogue.Admit("n", 2, 0)};
  FileLinks byName;
  for (const auto& [name, file] : catalogue.enumeration.filesByName) byName.push_back(file.get());
  EXPECT_EQ(byName, admitted);
  FileLinks bases;
  for (const auto& [name, file] : catalogue.enumeration.basesByName) bases.push_back(file);
  EXPECT_EQ(bases, admitted);
}

TEST(ImageFilesEnumeration, CountsAdmissions) {
  MemoryCatalogue catalogue;
  EXPECT_EQ(catalogue.Admit("z", 3, 0)->admissionNumber, 0u);
  EXPECT_EQ(catalogue.Admit("a", 1, 0)->admissionNumber, 1u);
  EXPECT_EQ(catalogue.Admit("m", 2, 0)->admissionNumber, 2u);
}

}  // namespace
}  // namespace kq
