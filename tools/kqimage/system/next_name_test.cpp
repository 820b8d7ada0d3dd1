#include "kqimage/system/next_name.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

class NextNameTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = std::filesystem::canonical(pattern);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Put(const std::string& name) const {
    std::ofstream(folder_ / name).put('x');
    return (folder_ / name).string();
  }
  std::string Next(const std::string& name) const {
    return std::filesystem::path(NextIncrementPath(Put(name))).filename().string();
  }

  std::filesystem::path folder_;
};

TEST_F(NextNameTest, ContinuesTheSeriesBesideTheImage) {
  EXPECT_EQ(NextIncrementPath(Put("a-b001.twf")), (folder_ / "a-b001-i001.twi").string());
  EXPECT_EQ(Next("a-b001-i001.twi"), "a-b001-i002.twi");
  EXPECT_EQ(Next("a-i999.twi"), "a-i1000.twi");
}

TEST_F(NextNameTest, StepsOverFilesThatAreThere) {
  Put("a-i001.twi");
  Put("a-i002.twi");
  EXPECT_EQ(Next("a.twf"), "a-i003.twi");
}

TEST_F(NextNameTest, BehindALinkTheNameLiesBesideItsTarget) {
  std::filesystem::create_directory(folder_ / "real");
  Put("real/a.twf");
  std::filesystem::create_symlink("real/a.twf", folder_ / "link.twf");
  EXPECT_EQ(NextIncrementPath((folder_ / "link.twf").string()),
            (folder_ / "real/a-i001.twi").string());
}

TEST_F(NextNameTest, OtherExtensionsNeedANameFromTheUser) {
  EXPECT_THROW(Next("a.tw1"), UsageFailure);
  EXPECT_THROW(Next("volume"), UsageFailure);
}

TEST_F(NextNameTest, AnotherFolderGetsTheNameThatIsFreeInBoth) {
  const std::string image = Put("a.twf");
  const std::filesystem::path other = folder_ / "other";
  std::filesystem::create_directory(other);
  EXPECT_EQ(NextIncrementPath(image, other.string()), (other / "a-i001.twi").string());
  Put("a-i001.twi");
  EXPECT_EQ(NextIncrementPath(image, other.string()), (other / "a-i002.twi").string());
  Put("other/a-i002.twi");
  EXPECT_EQ(NextIncrementPath(image, other.string()), (other / "a-i003.twi").string());
}

TEST_F(NextNameTest, AFullImageIsNamedAfterItsSource) {
  const auto next = [&](const std::string& source) {
    return std::filesystem::path(NextBasePath(source, folder_.string())).filename().string();
  };
  EXPECT_EQ(next("/dev/sdb1"), "sdb1-b001.twf");
  EXPECT_EQ(next("some/disk.img"), "disk-b001.twf");
  EXPECT_EQ(next("odd \xFF\n|\"'.img"), "odd \xFF\n|\"'-b001.twf");
  Put("disk-b001.twf");
  std::filesystem::create_symlink("nowhere", folder_ / "disk-b002.twf");
  std::filesystem::create_directory(folder_ / "disk-b003.twf");
  EXPECT_EQ(next("disk.img"), "disk-b004.twf");
  EXPECT_THROW(next(".."), UsageFailure);
  EXPECT_THROW(next("folder/"), UsageFailure);
}

TEST_F(NextNameTest, TheKeyFileBelongsToTheBase) {
  EXPECT_EQ(KeyFilePath(Put("a-b001-i002.twi")), (folder_ / "a-b001.twk").string());
  EXPECT_EQ(KeyFilePath(Put("a.twf")), std::nullopt);
  EXPECT_THROW(KeyFilePath((folder_ / "missing-b001.twf").string()), Failure);
}

}  // namespace
}  // namespace kqimage
