#include "kqimage/system/output_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

using Existing = OutputFile::Existing;
using Growth = OutputFile::Growth;

class OutputFileTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    path_ = (folder_ / "out").string();
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  static void Write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
  }
  static std::string Read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  std::size_t FilesInFolder() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder_),
                                                  std::filesystem::directory_iterator()));
  }

  std::filesystem::path folder_;
  std::string path_;
};

TEST_F(OutputFileTest, WithoutCommitNothingIsLeft) {
  for (const Growth growth : {Growth::kUnderFinalName, Growth::kUnderPartialName}) {
    {
      const OutputFile file(path_, Existing::kRefuse, growth);
      Write(file.WritePath(), "half");
      EXPECT_EQ(FilesInFolder(), 1u);
    }
    EXPECT_EQ(FilesInFolder(), 0u);
  }
}

TEST_F(OutputFileTest, APartialNameBecomesTheFinalOneWithTheCommit) {
  OutputFile file(path_, Existing::kRefuse, Growth::kUnderPartialName);
  EXPECT_FALSE(std::filesystem::exists(path_));
  Write(file.WritePath(), "all");
  file.Commit();
  EXPECT_EQ(Read(path_), "all");
  EXPECT_EQ(FilesInFolder(), 1u);
}

TEST_F(OutputFileTest, AnExistingFileIsRefusedUntouched) {
  Write(path_, "old");
  for (const Growth growth : {Growth::kUnderFinalName, Growth::kUnderPartialName}) {
    EXPECT_THROW(OutputFile(path_, Existing::kRefuse, growth), Failure);
  }
  EXPECT_EQ(Read(path_), "old");
  EXPECT_EQ(FilesInFolder(), 1u);
}

TEST_F(OutputFileTest, AReplacedFileStaysWholeUntilTheCommit) {
  Write(path_, "old");
  {
    const OutputFile file(path_, Existing::kReplace, Growth::kUnderFinalName);
    Write(file.WritePath(), "half");
    EXPECT_EQ(Read(path_), "old");
  }
  EXPECT_EQ(Read(path_), "old");
  EXPECT_EQ(FilesInFolder(), 1u);
  OutputFile file(path_, Existing::kReplace, Growth::kUnderFinalName);
  Write(file.WritePath(), "new");
  file.Commit();
  EXPECT_EQ(Read(path_), "new");
  EXPECT_EQ(FilesInFolder(), 1u);
}

TEST_F(OutputFileTest, AReplacementKeepsTheModeAndTheLink) {
  const std::string real = (folder_ / "real").string();
  Write(real, "old");
  std::filesystem::permissions(real, std::filesystem::perms(0640));
  std::filesystem::create_symlink("real", path_);
  OutputFile file(path_, Existing::kReplace, Growth::kUnderPartialName);
  Write(file.WritePath(), "new");
  file.Commit();
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  EXPECT_EQ(Read(real), "new");
  EXPECT_EQ(std::filesystem::status(real).permissions(), std::filesystem::perms(0640));
}

TEST_F(OutputFileTest, ANewFileFollowsTheUmask) {
  const mode_t before = umask(027);
  OutputFile file(path_, Existing::kRefuse, Growth::kUnderPartialName);
  umask(before);
  file.Commit();
  EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0640));
}

TEST_F(OutputFileTest, ANameTakenMeanwhileIsNeverOverwritten) {
  auto file = std::make_unique<OutputFile>(path_, Existing::kRefuse, Growth::kUnderPartialName);
  Write(path_, "somebody else's");
  EXPECT_THROW(file->Commit(), Failure);
  file.reset();
  EXPECT_EQ(Read(path_), "somebody else's");
  EXPECT_EQ(FilesInFolder(), 1u);
}

TEST_F(OutputFileTest, AFileThatTookTheNameOfOursIsNotRemoved) {
  {
    const OutputFile file(path_, Existing::kRefuse, Growth::kUnderFinalName);
    Write((folder_ / "other").string(), "somebody else's");
    std::filesystem::rename(folder_ / "other", path_);
  }
  EXPECT_EQ(Read(path_), "somebody else's");
}

TEST_F(OutputFileTest, OnlyRegularFilesAreReplaced) {
  std::filesystem::create_directory(path_);
  EXPECT_THROW(OutputFile(path_, Existing::kReplace, Growth::kUnderFinalName), Failure);
  std::filesystem::create_symlink("nowhere", folder_ / "dangling");
  EXPECT_THROW(
      OutputFile((folder_ / "dangling").string(), Existing::kReplace, Growth::kUnderFinalName),
      Failure);
}

TEST_F(OutputFileTest, TheLongestNameWorks) {
  const std::string longest = (folder_ / std::string(255, 'n')).string();
  OutputFile file(longest, Existing::kRefuse, Growth::kUnderPartialName);
  file.Commit();
  EXPECT_TRUE(std::filesystem::exists(longest));
}

}  // namespace
}  // namespace kqimage
