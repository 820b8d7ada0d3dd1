#include "kqimage/volume/volume_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "kqimage/pieces/block_compare.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kCell = kPieceBytes;

class VolumeSourceTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    fd_ = UniqueFd(mkstemp(pattern.data()));
    ASSERT_TRUE(fd_);
    path_ = pattern;
  }
  void TearDown() override { std::filesystem::remove(path_); }

  void SetSize(std::uint64_t size) const {
    ASSERT_EQ(ftruncate(fd_.Get(), static_cast<off_t>(size)), 0);
  }
  void Put(std::uint64_t offset, const std::vector<char>& bytes) const {
    ASSERT_EQ(pwrite(fd_.Get(), bytes.data(), bytes.size(), static_cast<off_t>(offset)),
              std::ssize(bytes));
  }

  struct Seen {
    std::uint64_t offset;
    std::uint64_t length;
    bool isZero;
    bool operator==(const Seen&) const = default;
  };
  std::vector<Seen> Walk(VolumeSource::Holes holes) const {
    const VolumeSource source(path_);
    const ReadAhead::Producer produce = source.Pieces(holes);
    std::vector<std::byte> buffer(kPieceBytes, std::byte{0xEE});
    std::vector<Seen> seen;
    Piece piece = {.buffer = buffer.data()};
    while (produce(piece)) {
      seen.push_back({piece.offset, piece.length, piece.isZero});
      piece = {.buffer = buffer.data()};
    }
    return seen;
  }

  UniqueFd fd_;
  std::string path_;
};

TEST_F(VolumeSourceTest, PiecesLieOnAGridAndCoverTheVolume) {
  SetSize(9 * kCell + 5);
  Put(3 * kCell + 17 * kBlockBytes, {1});
  const std::vector<Seen> joined = {
      {0, 3 * kCell, true}, {3 * kCell, kCell, false}, {4 * kCell, 5 * kCell + 5, true}};
  EXPECT_EQ(Walk(VolumeSource::Holes::kJoined), joined);
  std::vector<Seen> single;
  for (std::uint64_t cell = 0; cell < 9; ++cell) single.push_back({cell * kCell, kCell, cell != 3});
  single.push_back({9 * kCell, 5, true});
  EXPECT_EQ(Walk(VolumeSource::Holes::kCellByCell), single);
}

TEST_F(VolumeSourceTest, TheBufferBehindTheVolumesEndIsZeroToTheEndOfTheBlock) {
  Put(0, std::vector<char>(kBlockBytes + 10, 'x'));
  const VolumeSource source(path_);
  std::vector<std::byte> buffer(kPieceBytes, std::byte{0xEE});
  Piece piece = {.buffer = buffer.data()};
  ASSERT_TRUE(source.Pieces(VolumeSource::Holes::kJoined)(piece));
  EXPECT_EQ(piece.length, kBlockBytes + 10);
  EXPECT_EQ(buffer[kBlockBytes + 9], std::byte{'x'});
  EXPECT_TRUE(IsZero(std::span(buffer).subspan(kBlockBytes + 10, kBlockBytes - 10)));
}

TEST_F(VolumeSourceTest, AFileThatShrinksIsAFailureInDataAndInHoles) {
  for (const bool isHole : {false, true}) {
    SetSize(0);
    SetSize(2 * kCell);
    if (!isHole) Put(0, std::vector<char>(2 * kCell, 'x'));
    const VolumeSource source(path_);
    ReadAhead::Producer produce = source.Pieces(VolumeSource::Holes::kJoined);
    SetSize(kCell / 2);
    std::vector<std::byte> buffer(kPieceBytes);
    Piece piece = {.buffer = buffer.data()};
    EXPECT_THROW(produce(piece), Failure) << isHole;
  }
}

TEST_F(VolumeSourceTest, WhatHasNoBytesIsRefused) {
  EXPECT_THROW(VolumeSource{path_}, Failure) << "an empty file";
  EXPECT_THROW(VolumeSource{"/dev/null"}, Failure);
  EXPECT_THROW(VolumeSource{"/tmp"}, Failure);
  EXPECT_THROW(VolumeSource{path_ + ".missing"}, Failure);
}

TEST_F(VolumeSourceTest, APipeIsRefusedAtOnce) {
  const std::string pipe = path_ + ".pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THROW(VolumeSource{pipe}, Failure);
  std::filesystem::remove(pipe);
}

}  // namespace
}  // namespace kqimage
