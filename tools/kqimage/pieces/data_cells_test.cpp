#include "kqimage/pieces/data_cells.h"

#include <gtest/gtest.h>

#include "kqimage/pieces/volume_pieces.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kCell = kPieceBytes;

TEST(DataCells, EveryCellThatARangeTouchesIsMarked) {
  DataCells cells(10 * kCell + 5);
  cells.Mark(3 * kCell - 1, 2);        // the end of one and the begin of the next
  cells.Mark(5 * kCell, 0);            // nothing
  cells.Mark(6 * kCell, kCell);        // exactly one
  cells.Mark(10 * kCell + 4, 1000);    // beyond the end
  cells.Mark(UINT64_MAX, UINT64_MAX);  // far beyond
  std::vector<std::uint64_t> found;
  for (std::uint64_t at = 0; at < 10 * kCell + 5; at += cells.At(at).length) {
    if (cells.At(at).hasData) found.push_back(at / kCell);
  }
  EXPECT_EQ(found, (std::vector<std::uint64_t>{2, 3, 6, 10}));
  EXPECT_EQ(cells.At(0).length, 2 * kCell);
  EXPECT_EQ(cells.At(10 * kCell).length, 5u);
}

TEST(DataCells, ARangeOfAnyLengthEndsWithTheVolume) {
  DataCells cells(4 * kCell);
  cells.Mark(kCell, UINT64_MAX);
  EXPECT_FALSE(cells.At(0).hasData);
  for (std::uint64_t cell = 1; cell < 4; ++cell) EXPECT_TRUE(cells.At(cell * kCell).hasData);
}

TEST(DataCells, PiecesWithoutDataAreNotRead) {
  DataCells cells(9 * kCell + 1);
  cells.Mark(4 * kCell, 1);
  cells.Mark(9 * kCell, 1);
  const auto read = [](std::uint64_t offset, std::span<std::byte> bytes) {
    EXPECT_TRUE(offset == 4 * kCell || offset == 9 * kCell) << offset;
    bytes[0] = std::byte{1};
  };
  for (const std::size_t threads : {1U, 3U}) {
    ReadAhead pieces(
        std::vector<ReadAhead::Producer>(threads, VolumePieces(9 * kCell + 1, read, &cells)));
    std::vector<std::uint64_t> lengths;
    std::vector<bool> zero;
    std::uint64_t next = 0;
    while (const Piece* piece = pieces.Next()) {
      EXPECT_EQ(piece->offset, next);
      next += piece->length;
      lengths.push_back(piece->length);
      zero.push_back(piece->isZero);
    }
    EXPECT_EQ(lengths, (std::vector<std::uint64_t>{4 * kCell, kCell, 4 * kCell, 1}));
    EXPECT_EQ(zero, (std::vector<bool>{true, false, true, false}));
  }
}

}  // namespace
}  // namespace kqimage
