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
  std::vector<Seen> Walk() const {
    const VolumeSource source(path_);
    const ReadAhead::Producer produce = source.Pieces();
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
  EXPECT_EQ(Walk(), joined);
}

TEST_F(VolumeSourceTest, CellsOutsideHolesAreToldAndTheLastOneAlways) {
  SetSize(12 * kCell + 5);
  Put(3 * kCell + 17 * kBlockBytes, {1});
  Put(6 * kCell - kBlockBytes, std::vector<char>(2 * kBlockBytes, 'x'));  // over a cell's end
  const auto cellsOf = [&](const std::optional<Extent>& part, std::uint64_t size) {
    const DataCells cells = VolumeSource(path_, part).Cells(size);
    std::vector<std::uint64_t> found;
    for (std::uint64_t at = 0; at < size; at += cells.At(at).length) {
      if (cells.At(at).hasData) found.push_back(at / kCell);
    }
    return found;
  };
  using Cells = std::vector<std::uint64_t>;
  EXPECT_EQ(cellsOf({}, 12 * kCell + 5), (Cells{3, 5, 6, 12}));
  EXPECT_EQ(cellsOf({}, 4 * kCell), (Cells{3})) << "a part of it";
  EXPECT_EQ(cellsOf({}, 3 * kCell), (Cells{2}));
  EXPECT_EQ(cellsOf({}, 0), Cells{});
  // On a partition's own grid.
  EXPECT_EQ(cellsOf(Extent{4 * kCell - kBlockBytes, 5 * kCell}, 5 * kCell), (Cells{2, 4}));
}

TEST_F(VolumeSourceTest, EveryCellOfAFileWithoutHolesHasData) {
  Put(0, std::vector<char>(3 * kCell, '\0'));
  const DataCells cells = VolumeSource(path_).Cells(3 * kCell);
  for (std::uint64_t cell = 0; cell < 3; ++cell) EXPECT_TRUE(cells.At(cell * kCell).hasData);
}

TEST_F(VolumeSourceTest, TheBufferBehindTheVolumesEndIsZeroToTheEndOfTheBlock) {
  Put(0, std::vector<char>(kBlockBytes + 10, 'x'));
  const VolumeSource source(path_);
  std::vector<std::byte> buffer(kPieceBytes, std::byte{0xEE});
  Piece piece = {.buffer = buffer.data()};
  ASSERT_TRUE(source.Pieces()(piece));
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
    ReadAhead::Producer produce = source.Pieces();
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
