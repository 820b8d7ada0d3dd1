#include "enumeration/enumerated_file.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

TEST(PlainPath, DropsThePrefixOfLongPaths) { EXPECT_EQ(PlainPath(R"(\\?\C:\img\)"), R"(C:\img\)"); }

TEST(PlainPath, KeepsAPathThatIsThePrefixAlone) { EXPECT_EQ(PlainPath(R"(\\?\)"), R"(\\?\)"); }

TEST(PlainPath, KeepsEveryOtherPath) {
  for (const char* path : {"", "/", "/img/", R"(\\.\C:\)", R"(/\\?\img/)", R"(\\?)"}) {
    EXPECT_EQ(PlainPath(path), path);
  }
}

TEST(EnumeratedDirectory, HasBothFormsOfItsPath) {
  const EnumeratedDirectory usual("/img/");
  EXPECT_EQ(usual.path, "/img/");
  EXPECT_EQ(usual.plainPath, "/img/");
  const EnumeratedDirectory prefixed(R"(\\?\C:\)");
  EXPECT_EQ(prefixed.path, R"(\\?\C:\)");
  EXPECT_EQ(prefixed.plainPath, R"(C:\)");
}

TEST(EnumeratedFile, BeginsUnvisitedUnlinkedAndComplete) {
  const EnumeratedFile file;
  EXPECT_EQ(file.pathLevel, -1);
  EXPECT_EQ(file.pathPredecessor, nullptr);
  EXPECT_FALSE(file.isIncomplete);
  EXPECT_FALSE(file.unlinkOnDestroy);
  EXPECT_TRUE(file.parents.empty() && file.children.empty() && file.parts.empty());
}

TEST(EnumeratedFile, UnlinksItselfWhenToldTo) {
  EnumeratedFile parent;
  EnumeratedFile child;
  EnumeratedFile other;
  {
    EnumeratedFile file;
    file.unlinkOnDestroy = true;
    file.parents = {&parent};
    file.children = {&child};
    parent.children = {&file, &other, &file};
    child.parents = {&other, &file};
  }
  EXPECT_EQ(parent.children, FileLinks{&other});
  EXPECT_EQ(child.parents, FileLinks{&other});
}

TEST(EnumeratedFile, LeavesItsRelativesAloneOtherwise) {
  EnumeratedFile parent;
  {
    EnumeratedFile file;
    file.parents = {&parent};
    parent.children = {&file};
  }
  EXPECT_EQ(parent.children.size(), 1u);
}

}  // namespace
}  // namespace kq
