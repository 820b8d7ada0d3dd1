#include "kqimage/image/chain_finder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "kqimage/terminal/failure.h"
#include "tests/support/test_seed.h"

namespace kqimage {
namespace {

// Identifiers are a number in the first byte; 0 as a parent makes a base.
ImageFile File(const std::string& path, std::uint8_t id, std::uint8_t parent,
               std::uint32_t part = 0, bool isLast = true) {
  ImageFile file = {.path = path};
  file.info.imageId[0] = id;
  file.info.parentImageId[0] = parent;
  file.info.partIndex = part;
  file.info.lastPart = isLast ? 0xFFFFFFFFu : 0;
  return file;
}

std::vector<std::string> Paths(const Chain& chain) {
  std::vector<std::string> paths;
  for (const ImageFile& file : chain) paths.push_back(file.path);
  return paths;
}

std::string MessageOf(const ImageFile& newest, const std::vector<ImageFile>& candidates) {
  try {
    AssembleChain(newest, candidates, "in the folder F");
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "no failure";
}

using PathList = std::vector<std::string>;

TEST(AssembleChain, GoesFromBaseToNewestWhateverTheOrder) {
  std::vector<ImageFile> files = {File("a", 1, 0), File("b", 2, 1), File("c", 3, 2),
                                  File("d", 4, 3)};
  const ImageFile newest = files[3];
  const unsigned seed = kqtest::TestSeed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 20; ++round) {
    std::shuffle(files.begin(), files.end(), random);
    EXPECT_EQ(Paths(AssembleChain(newest, files, "")), (PathList{"a", "b", "c", "d"}));
  }
}

TEST(AssembleChain, LeavesOutNewerImagesBranchesAndStrangers) {
  const std::vector<ImageFile> files = {File("newer", 3, 2), File("a", 1, 0), File("b", 2, 1),
                                        File("branch", 4, 1), File("stranger", 9, 0)};
  EXPECT_EQ(Paths(AssembleChain(files[2], files, "")), (PathList{"a", "b"}));
}

TEST(AssembleChain, TakesAllPartsOfSplitImages) {
  const std::vector<ImageFile> files = {File("a.tw2", 1, 0, 2, true), File("a.twf", 1, 0, 0, false),
                                        File("b.tw1", 2, 1, 1, true), File("b.twi", 2, 1, 0, false),
                                        File("a.tw1", 1, 0, 1, false)};
  const PathList expected = {"a.twf", "a.tw1", "a.tw2", "b.twi", "b.tw1"};
  EXPECT_EQ(Paths(AssembleChain(files[3], files, "")), expected);
  EXPECT_EQ(Paths(AssembleChain(files[2], files, "")), expected) << "named by a later part";
}

TEST(AssembleChain, NamesTheMissingParent) {
  EXPECT_EQ(MessageOf(File("c", 3, 2), {File("a", 1, 0)}),
            "the parent of c is missing: no file in the folder F is the image "
            "00000002-0000-0000-0000-000000000000");
}

TEST(AssembleChain, NamesTheMissingPart) {
  EXPECT_EQ(MessageOf(File("a", 1, 0, 0, false), {File("a.tw2", 1, 0, 2)}),
            "part number 2 of the image a is missing: no file in the folder F holds it");
}

TEST(AssembleChain, RefusesToChooseBetweenCopies) {
  EXPECT_EQ(MessageOf(File("b", 2, 1), {File("a", 1, 0), File("copy of a", 1, 0)}),
            "a and copy of a are the same image (00000001-0000-0000-0000-000000000000): name all "
            "files of the chain to say which one counts");
}

TEST(AssembleChain, TheNamedFileWinsOverItsCopies) {
  const ImageFile newest = File("b", 2, 1);
  EXPECT_EQ(Paths(AssembleChain(newest, std::vector{File("0", 2, 1), File("a", 1, 0)}, "")),
            (PathList{"a", "b"}));
}

TEST(AssembleChain, EndsOnImagesThatAreTheirOwnAncestors) {
  const char* message = "the image a is its own ancestor: its header is damaged";
  EXPECT_EQ(MessageOf(File("a", 1, 2), {File("b", 2, 1)}), message);
  EXPECT_EQ(MessageOf(File("a", 1, 2), {File("b", 2, 1), File("a", 1, 2)}), message);
}

}  // namespace
}  // namespace kqimage
