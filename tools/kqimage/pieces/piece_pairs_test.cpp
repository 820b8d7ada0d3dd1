#include "kqimage/pieces/piece_pairs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kqimage/pieces/data_cells.h"
#include "kqimage/pieces/volume_pieces.h"
#include "tests/support/test_seed.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kCell = kPieceBytes;

using Bytes = std::vector<std::byte>;

// A pair, and which sides have bytes of it.
struct Seen {
  std::uint64_t offset;
  std::uint64_t length;
  std::string sides;  // "ab", "a", "b" or ""
  bool operator==(const Seen&) const = default;
};

void PrintTo(const Seen& seen, std::ostream* out) {
  *out << seen.offset << "+" << seen.length << seen.sides;
}

std::vector<Seen> Walk(std::uint64_t size, const DataCells& a, const DataCells& b) {
  const auto read = [](std::uint64_t, std::span<std::byte>) {};
  ReadAhead piecesOfA(VolumePieces(size, read, &a));
  ReadAhead piecesOfB(VolumePieces(size, read, &b));
  PiecePairs pairs(piecesOfA, piecesOfB);
  std::vector<Seen> seen;
  while (const PiecePair* pair = pairs.Next()) {
    EXPECT_EQ(pair->first ? pair->first->size() : pair->length, pair->length);
    EXPECT_EQ(pair->second ? pair->second->size() : pair->length, pair->length);
    seen.push_back({pair->offset, pair->length,
                    std::string(pair->first ? "a" : "") + (pair->second ? "b" : "")});
  }
  return seen;
}

TEST(PiecePairs, WhatNeitherSideHasDataOfIsOneStretch) {
  const std::uint64_t size = 9 * kCell + 7;
  DataCells a(size);
  DataCells b(size);
  a.Mark(2 * kCell, 2 * kCell);
  b.Mark(3 * kCell, 1);
  b.Mark(8 * kCell, 1);
  EXPECT_EQ(Walk(size, a, b), (std::vector<Seen>{{0, 2 * kCell, ""},
                                                 {2 * kCell, kCell, "a"},
                                                 {3 * kCell, kCell, "ab"},
                                                 {4 * kCell, 4 * kCell, ""},
                                                 {8 * kCell, kCell, "b"},
                                                 {9 * kCell, 7, ""}}));
}

TEST(PiecePairs, AHugeVolumeWithoutDataIsOneStretch) {
  const std::uint64_t size = std::uint64_t{8} << 40;
  EXPECT_EQ(Walk(size, DataCells(size), DataCells(size)), (std::vector<Seen>{{0, size, ""}}));
}

TEST(PiecePairs, AFailureOfEitherSideComesOut) {
  DataCells cells(3 * kCell);
  cells.Mark(2 * kCell, 1);
  const auto good = [](std::uint64_t, std::span<std::byte>) {};
  const auto bad = [](std::uint64_t, std::span<std::byte>) { throw std::string("bad"); };
  for (const bool isFirstBad : {true, false}) {
    ReadAhead a(VolumePieces(3 * kCell, isFirstBad ? ReadVolume(bad) : good, &cells));
    ReadAhead b(VolumePieces(3 * kCell, isFirstBad ? ReadVolume(good) : bad, &cells));
    PiecePairs pairs(a, b);
    ASSERT_NE(pairs.Next(), nullptr);
    EXPECT_THROW(pairs.Next(), std::string);
  }
}

// A volume of which some cells are only known to be zero and others are zero without that being
// known.
struct Side {
  explicit Side(std::uint64_t size) : bytes(size), cells(size) {}

  ReadAhead::Producer Pieces() const {
    return VolumePieces(
        bytes.size(),
        [this](std::uint64_t offset, std::span<std::byte> out) {
          std::memcpy(out.data(), bytes.data() + offset, out.size());
        },
        &cells);
  }

  Bytes bytes;
  DataCells cells;
};

TEST(PiecePairs, DifferencesAreThoseOfComparingEveryBlock) {
  const unsigned seed = kqtest::TestSeed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 4; ++round) {
    const std::uint64_t size = 5 * kCell + random() % (2 * kCell);
    Side a(size);
    Side b(size);
    for (int i = 0; i < 12; ++i) {
      const std::uint64_t at = random() % size;
      const std::uint64_t length = std::min<std::uint64_t>(size - at, 1 + random() % 9000);
      const auto value = static_cast<std::byte>(random() % 3);  // zero among them
      for (Side* side : {&a, &b}) {
        if (random() % 3 == 0) continue;
        std::memset(side->bytes.data() + at, static_cast<int>(value), length);
        side->cells.Mark(at, length);
      }
    }
    std::vector<Stretch> expected;
    for (std::uint64_t at = 0; at < size; at += kBlockBytes) {
      const std::uint64_t length = std::min<std::uint64_t>(kBlockBytes, size - at);
      if (std::memcmp(a.bytes.data() + at, b.bytes.data() + at, length) != 0) {
        expected.push_back({at, length});
      }
    }
    ReadAhead piecesOfA(a.Pieces());
    ReadAhead piecesOfB(b.Pieces());
    PiecePairs pairs(piecesOfA, piecesOfB);
    std::vector<Stretch> found;
    std::uint64_t end = 0;
    while (const PiecePair* pair = pairs.Next()) {
      EXPECT_EQ(pair->offset, end);
      end += pair->length;
      for (const Stretch& stretch : pair->Differences()) {
        for (std::size_t at = 0; at < stretch.length; at += kBlockBytes) {
          found.push_back({static_cast<std::size_t>(pair->offset) + stretch.offset + at,
                           std::min(kBlockBytes, stretch.length - at)});
        }
      }
    }
    EXPECT_EQ(end, size);
    EXPECT_EQ(found, expected);
  }
}

}  // namespace
}  // namespace kqimage
