#include "kqimage/next_name.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "kqimage/failure.h"

namespace kqimage {
namespace {

class NextIncrementPathTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Next(const std::string& name) const {
    return std::filesystem::path(NextIncrementPath((folder_ / name).string())).filename().string();
  }

  std::filesystem::path folder_;
};

TEST_F(NextIncrementPathTest, CountsTheNumberBehindTheTag) {
  EXPECT_EQ(Next("a.twf"), "a-i001.twi");
  EXPECT_EQ(Next("a-b001.twf"), "a-b001-i001.twi");
  EXPECT_EQ(Next("a-b001-i001.twi"), "a-b001-i002.twi");
  EXPECT_EQ(Next("a-i999.twi"), "a-i1000.twi");
  EXPECT_EQ(Next("a-i002-m001.twi"), "a-i003-m001.twi");
  EXPECT_EQ(Next("A-I7.TWI"), "A-i008.twi");
}

TEST_F(NextIncrementPathTest, TakesNoTextForANumber) {
  EXPECT_EQ(Next("a-i12x.twi"), "a-i12x-i001.twi");
  EXPECT_EQ(Next("hi-image.twf"), "hi-image-i001.twi");
  EXPECT_EQ(Next("a-i.twf"), "a-i-i001.twi");
  EXPECT_EQ(Next("a-i12345678901234567890.twf"), "a-i12345678901234567890-i001.twi");
}

TEST_F(NextIncrementPathTest, StepsOverWhateverHasTheName) {
  std::ofstream(folder_ / "a-i001.twi").put('x');
  std::filesystem::create_directory(folder_ / "a-i002.twi");
  std::filesystem::create_symlink("nowhere", folder_ / "a-i003.twi");
  EXPECT_EQ(Next("a.twf"), "a-i004.twi");
}

TEST_F(NextIncrementPathTest, StaysInTheFolder) {
  EXPECT_EQ(NextIncrementPath("some/where/a.twf"), "some/where/a-i001.twi");
  EXPECT_EQ(NextIncrementPath("a.twf"), "a-i001.twi");
}

TEST_F(NextIncrementPathTest, OtherExtensionsNeedANameFromTheUser) {
  EXPECT_THROW(Next("a.tw1"), UsageFailure);
  EXPECT_THROW(Next("twf"), UsageFailure);
}

}  // namespace
}  // namespace kqimage
