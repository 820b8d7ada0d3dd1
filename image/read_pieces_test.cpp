#include "image/read_pieces.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <list>
#include <random>
#include <vector>

#include "tests/support/test_seed.h"

namespace kq {
namespace {

struct PlainPiece {
  std::uint32_t run = 0;
  std::uint64_t start = 0;
  std::uint64_t end = 0;

  bool operator==(const PlainPiece&) const = default;
};

void PrintTo(const PlainPiece& piece, std::ostream* out) {
  *out << piece.run << ":[" << piece.start << "," << piece.end << "]";
}

// The merge as plain list walk: from the list's first piece for every piece, one step at a time.
class PlainMerge {
 public:
  void Merge(PlainPiece p) {
    if (list_.empty() || p.start > list_.back().end) {
      list_.push_back(p);
      return;
    }
    while (true) {
      for (auto h = list_.begin(); h != list_.end(); ++h) {
        if (h->start > p.end) {
          list_.insert(h, p);
          return;
        }
        if (p.start > h->end) continue;
        if (p.start < h->start) list_.insert(h, {p.run, p.start, h->start - 1});
        // Beyond the largest offset nothing is left of p.
        if (h->end == UINT64_MAX || h->end + 1 > p.end) return;
        p.start = h->end + 1;
      }
      if (p.start > list_.back().end) {
        list_.push_back(p);
        return;
      }
    }
  }

  bool Cover(std::uint64_t first, std::uint64_t last) const {
    if (list_.empty() || list_.front().start > first) return false;
    std::uint64_t end = list_.front().end;
    for (auto h = std::next(list_.begin()); h != list_.end() && h->start == end + 1; ++h) {
      end = h->end;
    }
    return end >= last;
  }

  std::vector<PlainPiece> Result() const { return {list_.begin(), list_.end()}; }

 private:
  std::list<PlainPiece> list_;
};

ReadPiece PieceOf(const PlainPiece& plain) {
  ReadPiece piece;
  piece.FirstSector = plain.run;
  piece.Start = plain.start;
  piece.End = plain.end;
  return piece;
}

std::vector<PlainPiece> ResultOf(const PieceList& list) {
  std::vector<PlainPiece> result;
  list.ForEach([&](const ReadPiece& piece) {
    result.push_back({piece.FirstSector, piece.Start, piece.End});
    return true;
  });
  return result;
}

std::vector<PlainPiece> Merged(const std::vector<PlainPiece>& pieces) {
  PieceList list;
  for (const PlainPiece& piece : pieces) EXPECT_TRUE(list.Merge(PieceOf(piece)));
  return ResultOf(list);
}

using Pieces = std::vector<PlainPiece>;

TEST(PieceList, FirstPieceWins) {
  EXPECT_EQ(Merged({{1, 10, 19}, {2, 10, 19}}), (Pieces{{1, 10, 19}}));
}

TEST(PieceList, PieceInFrontIsCutWhereThePresentOneBegins) {
  EXPECT_EQ(Merged({{1, 10, 19}, {2, 5, 12}}), (Pieces{{2, 5, 9}, {1, 10, 19}}));
}

TEST(PieceList, PieceBehindIsCutWhereThePresentOneEnds) {
  EXPECT_EQ(Merged({{1, 10, 19}, {2, 15, 25}}), (Pieces{{1, 10, 19}, {2, 20, 25}}));
}

TEST(PieceList, WidePieceFillsAllGaps) {
  EXPECT_EQ(Merged({{1, 10, 19}, {2, 30, 39}, {3, 0, 49}}),
            (Pieces{{3, 0, 9}, {1, 10, 19}, {3, 20, 29}, {2, 30, 39}, {3, 40, 49}}));
}

TEST(PieceList, PieceBetweenTwoIsPutThere) {
  EXPECT_EQ(Merged({{1, 10, 19}, {2, 30, 39}, {3, 22, 25}}),
            (Pieces{{1, 10, 19}, {3, 22, 25}, {2, 30, 39}}));
}

TEST(PieceList, EmptyPieceSplitsWhatIsLaidOverItLater) {
  EXPECT_EQ(Merged({{1, 10, 9}, {2, 0, 19}}), (Pieces{{2, 0, 9}, {1, 10, 9}, {2, 10, 19}}));
}

TEST(PieceList, EmptyPieceInsideAPresentOneIsUsedUp) {
  EXPECT_EQ(Merged({{1, 0, 19}, {2, 10, 9}}), (Pieces{{1, 0, 19}}));
}

TEST(PieceList, EmptyPieceAtAPresentOnesStartIsKept) {
  EXPECT_EQ(Merged({{1, 10, 19}, {2, 10, 9}}), (Pieces{{2, 10, 9}, {1, 10, 19}}));
}

TEST(PieceList, PieceAtTheLargestOffsetEnds) {
  EXPECT_EQ(Merged({{1, UINT64_MAX - 9, UINT64_MAX}, {2, UINT64_MAX - 19, UINT64_MAX - 5}}),
            (Pieces{{2, UINT64_MAX - 19, UINT64_MAX - 10}, {1, UINT64_MAX - 9, UINT64_MAX}}));
}

TEST(PieceList, InvertedPiecesOfARangeBeyondTheLargestOffsetQueueUp) {
  const PlainPiece inverted = {1, UINT64_MAX - 3, 8};
  EXPECT_EQ(Merged({inverted, inverted}), (Pieces{inverted, inverted}));
}

TEST(PieceList, CoverNeedsAnUnbrokenStretch) {
  PieceList list;
  EXPECT_FALSE(list.Cover(0, 0));
  ASSERT_TRUE(list.Merge(PieceOf({1, 0, 9})));
  ASSERT_TRUE(list.Merge(PieceOf({2, 20, 29})));
  EXPECT_TRUE(list.Cover(0, 9));
  EXPECT_FALSE(list.Cover(0, 29));
  ASSERT_TRUE(list.Merge(PieceOf({3, 10, 18})));
  EXPECT_FALSE(list.Cover(0, 29));
  ASSERT_TRUE(list.Merge(PieceOf({4, 0, 29})));
  EXPECT_TRUE(list.Cover(0, 29));
  EXPECT_FALSE(list.Cover(0, 30));
}

TEST(PieceList, StretchThatBeginsBehindTheRangesStartCoversNothing) {
  PieceList list;
  ASSERT_TRUE(list.Merge(PieceOf({1, 1, 9})));
  EXPECT_FALSE(list.Cover(0, 9));
  EXPECT_TRUE(list.Cover(1, 9));
}

TEST(PieceList, RandomPiecesMergeAsThePlainWalkTells) {
  const std::uint64_t seed = kqtest::TestSeed();
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 400; ++round) {
    // Small spaces make overlaps, touching neighbours and empty pieces frequent.
    const std::uint64_t space = 1 + random() % (round % 2 == 0 ? 40 : 4000);
    const std::uint64_t longest = 1 + random() % (round % 3 == 0 ? space : 8);
    const std::uint64_t origin = round % 5 == 0 ? UINT64_MAX - space - longest + 1 : 0;
    PieceList list;
    PlainMerge plain;
    const int count = static_cast<int>(random() % 300);
    for (int i = 0; i < count; ++i) {
      const std::uint64_t start = origin + random() % space;
      // Length 0 is the empty piece; it never stands at offset 0, where it has no end.
      const std::uint64_t length = start == 0 ? 1 + random() % longest : random() % (longest + 1);
      const PlainPiece piece = {static_cast<std::uint32_t>(i), start, start + length - 1};
      plain.Merge(piece);
      ASSERT_TRUE(list.Merge(PieceOf(piece)));
      ASSERT_EQ(list.Cover(origin, origin + space / 2), plain.Cover(origin, origin + space / 2));
    }
    ASSERT_EQ(ResultOf(list), plain.Result()) << "round " << round;
  }
}

TEST(PieceList, KeepsAllFieldsOfAPieceThatIsSplit) {
  ChunkPlace place;
  place.FileOffset = 4711;
  place.StoredSectors = 3;
  PieceList list;
  const ChunkPlace* kept = list.AddChunk(place);
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->FileOffset, 4711u);
  EXPECT_EQ(kept->StoredSectors, 3u);
  ASSERT_TRUE(list.Merge(PieceOf({1, 10, 19})));
  ReadPiece wide;
  wide.Chunk = kept;
  wide.RunVolumeOffset = 2;
  wide.FirstSector = 7;
  wide.Sectors = 9;
  wide.Start = 5;
  wide.End = 30;
  ASSERT_TRUE(list.Merge(wide));
  std::vector<ReadPiece> pieces;
  list.ForEach([&](const ReadPiece& piece) {
    pieces.push_back(piece);
    return true;
  });
  ASSERT_EQ(pieces.size(), 3u);
  for (const ReadPiece& piece : {pieces[0], pieces[2]}) {
    EXPECT_EQ(piece.Chunk, kept);
    EXPECT_EQ(piece.RunVolumeOffset, 2u);
    EXPECT_EQ(piece.FirstSector, 7u);
    EXPECT_EQ(piece.Sectors, 9u);
  }
}

// A wide piece over ever more gaps, again and again: a walk over all pieces for each would take
// 10^10 steps.
TEST(PieceList, WidePiecesOverManyGapsTakeNoQuadraticTime) {
  constexpr std::uint64_t kCount = 100000;
  PieceList list;
  for (std::uint64_t i = 0; i < kCount; ++i) {
    // Every second sector, from the back in strides, so that no piece is simply appended.
    const std::uint64_t at = (kCount - 1 - i) * 2 * 512;
    ASSERT_TRUE(list.Merge(PieceOf({1, at, at + 511})));
  }
  for (std::uint32_t i = 0; i < kCount; ++i) {
    ASSERT_TRUE(list.Merge(PieceOf({2 + i, 0, kCount * 1024 - 1})));
  }
  EXPECT_TRUE(list.Cover(0, kCount * 1024 - 1));
  std::uint64_t pieces = 0;
  list.ForEach([&](const ReadPiece& piece) {
    EXPECT_LE(piece.FirstSector, 2u);
    ++pieces;
    return true;
  });
  EXPECT_EQ(pieces, 2 * kCount);
}

}  // namespace
}  // namespace kq
