#include <gtest/gtest.h>

#include <map>
#include <random>

#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

constexpr std::uint32_t kSector = 512;

class NewImageWrite : public testing::Test {
 protected:
  // An image whose chunks hold up to dataSectors sectors.
  static HeaderFields FieldsForChunksOf(std::uint32_t dataSectors) {
    HeaderFields fields;
    fields.laterSectors = LaterSectorsForBuffer(kSector, (dataSectors + 1) * kSector);
    return fields;
  }

  struct Piece {
    std::uint64_t offset;
    Bytes data;
  };

  ParsedImage WriteAll(const HeaderFields& fields, const std::vector<Piece>& pieces) {
    Writer writer(path_, Template(fields));
    EXPECT_EQ(writer.status().status, 0);
    for (const Piece& piece : pieces) {
      EXPECT_EQ(writer.Write(piece.offset, piece.data).status, 0);
    }
    EXPECT_EQ(writer.Close().status, 0);
    return ParseFile(writer.File());
  }

  TempDir folder_;
  std::string path_ = folder_.Path("new.twf");
};

Bytes Sectors(std::uint64_t seed, std::size_t count) { return Noise(seed, count * kSector); }

TEST_F(NewImageWrite, ASizeOfZeroDoesNothing) {
  Writer writer(path_, Template(HeaderFields()));
  EXPECT_EQ(KQNewImageFileWrite(writer.handle(), nullptr, 0, 5).status, 0);
  EXPECT_EQ(KQNewImageFileWrite(0, nullptr, 0, 5).status, 0);
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_FALSE(writer.FileExists());
}

TEST_F(NewImageWrite, NullHandleAndNullDataAreInvalid) {
  Writer writer(path_, Template(HeaderFields()));
  EXPECT_EQ(KQNewImageFileWrite(writer.handle(), nullptr, 512, 0).status, -87);
  EXPECT_EQ(KQNewImageFileWrite(0, "data", 4, 0).status, -87);
  EXPECT_EQ(KQNewImageFileClose(0, nullptr).status, -87);
  EXPECT_EQ(writer.Close().status, 0);
}

TEST_F(NewImageWrite, AdjacentPiecesMakeOneRun) {
  const ParsedImage image =
      WriteAll(HeaderFields(),
               {{0x10000, Sectors(1, 3)}, {0x10600, Sectors(2, 2)}, {0x10A00, Sectors(3, 1)}});
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].runs, (std::vector<VolumeRun>{{0x10000, 6}}));
  Bytes data = Sectors(1, 3);
  Append(&data, Sectors(2, 2));
  Append(&data, Sectors(3, 1));
  EXPECT_EQ(image.chunks[0].data, data);
}

TEST_F(NewImageWrite, AGapOrAStepBackwardsBeginsANewRun) {
  const ParsedImage image = WriteAll(HeaderFields(), {{0x10000, Sectors(1, 1)},
                                                      {0x10400, Sectors(2, 1)},
                                                      {0x10200, Sectors(3, 1)},
                                                      {0x10200, Sectors(4, 2)}});
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].runs,
            (std::vector<VolumeRun>{{0x10000, 1}, {0x10400, 1}, {0x10200, 1}, {0x10200, 2}}));
}

// An entry without any difference is the byte 0, which ends the list for readers: what a client
// writes behind a run that it has just written is lost to them within this chunk.
TEST_F(NewImageWrite, ARunWrittenTwiceInARowMakesAnEntryOfOneZeroByte) {
  Writer writer(path_, Template(HeaderFields()));
  for (const std::uint64_t offset : {0x10000u, 0x10000u, 0x20000u}) {
    ASSERT_EQ(writer.Write(offset, Sectors(offset, 1)).status, 0);
  }
  ASSERT_EQ(writer.Close().status, 0);
  const Bytes file = writer.File();
  const Bytes list = {0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x18, 0, 0, 1, 0xFF};
  EXPECT_EQ(Bytes(file.begin() + 520, file.begin() + 520 + std::ptrdiff_t(list.size())), list);
}

// A run at the end of the 64-bit range is not continued by one at its start.
TEST_F(NewImageWrite, ARunDoesNotWrapAround) {
  const ParsedImage image =
      WriteAll(HeaderFields(), {{0xFFFFFFFFFFFFFE00, Sectors(1, 1)}, {0, Sectors(2, 1)}});
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].runs, (std::vector<VolumeRun>{{0xFFFFFFFFFFFFFE00, 1}, {0, 1}}));
}

TEST_F(NewImageWrite, TheRunListOfAChunkHasTheBytesOfTheFormat) {
  const ParsedImage image = WriteAll(HeaderFields(), {{0x100000, Sectors(1, 8)},
                                                      {0x200000, Sectors(2, 8)},
                                                      {0x1F0000, Sectors(3, 16)},
                                                      {0x1F2000, Sectors(4, 16)}});
  ASSERT_EQ(image.chunks.size(), 1u);
  // 0x1F2000 continues the run before it.
  const Bytes merged = {0, 0,    0x10, 0, 0,    0,    0, 0, 8,    0,    0,
                        0, 0x18, 0,    0, 0x10, 0x91, 0, 0, 0x18, 0xFF, 0};
  Bytes head = image.chunks[0].runList;
  head.resize(merged.size());
  EXPECT_EQ(head, merged);
}

TEST_F(NewImageWrite, AShrinkingRunTakesFourBytesOfLength) {
  const ParsedImage image =
      WriteAll(HeaderFields(), {{0x10000, Sectors(1, 9)}, {0x18000, Sectors(2, 5)}});
  const Bytes expected = {0, 0,    1, 0,    0,    0,    0,    0,    9,    0, 0,
                          0, 0x14, 0, 0x80, 0xFC, 0xFF, 0xFF, 0xFF, 0xFF, 0};
  Bytes head = image.chunks[0].runList;
  head.resize(expected.size());
  EXPECT_EQ(head, expected);
}

// 0xFE000 bytes fill a chunk behind a header of two sectors of 4096.
TEST_F(NewImageWrite, TheIndexHasTheBytesOfTheFormat) {
  HeaderFields fields;
  fields.sectorSize = 4096;
  fields.laterSectors = PatternBytes(1, 4096);
  const ParsedImage image =
      WriteAll(fields, {{0, Noise(1, 253 * 4096)}, {0x80000, Noise(2, 4096)}});
  EXPECT_EQ(image.indexPayload,
            (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0x20, 0, 0, 0x1B, 0, 0, 8, 0, 0xC0, 0x0F, 0xFF}));
  ASSERT_EQ(image.chunks.size(), 2u);
  EXPECT_EQ(image.chunks[0].fileOffset, 0x2000u);
  EXPECT_EQ(image.chunks[1].fileOffset, 0x100000u);
  EXPECT_EQ(image.lastPart, 0xFFFFFFFFu);
}

TEST_F(NewImageWrite, AWriteLargerThanAChunkIsSplit) {
  const Bytes data = Sectors(1, 25);
  const ParsedImage image = WriteAll(FieldsForChunksOf(10), {{0x4000, data}});
  ASSERT_EQ(image.chunks.size(), 3u);
  const std::uint32_t sectors[] = {10, 10, 5};
  std::uint64_t offset = 0x4000;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(image.chunks[i].runs, (std::vector<VolumeRun>{{offset, sectors[i]}}));
    // Each chunk's list begins anew, with an entry in the full form.
    EXPECT_EQ(Get64(image.chunks[i].runList, 0), offset);
    EXPECT_EQ(Get32(image.chunks[i].runList, 8), sectors[i]);
    EXPECT_EQ(image.chunks[i].indexVolumeOffset, offset);
    offset += sectors[i] * kSector;
  }
  EXPECT_EQ(image.ReadVolume(0x4000, data.size()), data);
}

TEST_F(NewImageWrite, AFullChunkIsWrittenAtOnceAndAPartialOneKept) {
  Writer writer(path_, Template(FieldsForChunksOf(10)));
  const std::uint64_t header = writer.File().size();
  EXPECT_EQ(writer.Write(0, Sectors(1, 9)).status, 0);
  EXPECT_EQ(writer.File().size(), header);
  EXPECT_EQ(writer.Write(0x8000, Sectors(2, 1)).status, 0);
  EXPECT_EQ(writer.File().size(), header + 11 * kSector);
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_EQ(ParseFile(writer.File()).chunks.size(), 1u);
}

// Entries of scattered single sectors take 12 bytes for the first and 4 for each further one. The
// list of a 512-byte sector has 504 bytes, and a run is entered while at least 19 are free: 120
// runs take 12 + 119 * 4 = 488, which leaves 16.
TEST_F(NewImageWrite, ScatteredRunsFillAChunksListLongBeforeItsBuffer) {
  std::vector<Piece> pieces;
  for (std::uint64_t i = 0; i < 250; ++i) pieces.push_back({i * 0x10000, Sectors(i, 1)});
  const ParsedImage image = WriteAll(HeaderFields(), pieces);
  ASSERT_EQ(image.chunks.size(), 3u);
  EXPECT_EQ(image.chunks[0].runs.size(), 120u);
  EXPECT_EQ(image.chunks[1].runs.size(), 120u);
  EXPECT_EQ(image.chunks[2].runs.size(), 10u);
  for (const Piece& piece : pieces) {
    EXPECT_EQ(image.ReadVolume(piece.offset, kSector), piece.data);
  }
}

// One step more of space: entries of 3 bytes leave 19 free after 159 runs (12 + 157 * 3 + 2), so
// that the next run still enters, and 18 or fewer do not.
TEST_F(NewImageWrite, NineteenFreeBytesOfRunListAreEnoughAndEighteenAreNot) {
  for (const int longEntries : {0, 1, 2, 3}) {
    std::vector<Piece> pieces;
    std::uint64_t offset = 0;
    std::size_t used = 12;
    std::size_t expectedRuns = 1;
    pieces.push_back({offset, Sectors(1, 1)});
    for (int i = 0; i < 300; ++i) {
      const bool isLong = i < longEntries;
      offset += isLong ? 0x10000 : 0x400;
      pieces.push_back({offset, Sectors(1, 1)});
      if (504 - used >= 19) {
        used += isLong ? 4 : 3;
        ++expectedRuns;
      }
    }
    const ParsedImage image = WriteAll(HeaderFields(), pieces);
    EXPECT_EQ(image.chunks.at(0).runs.size(), expectedRuns) << longEntries;
    std::size_t decoded = 0;
    DecodeRunList(image.chunks[0].runList, &decoded);
    EXPECT_EQ(decoded, used);
  }
}

// The list is tested before the piece is looked at: a continuation of the last run would take no
// space, and the chunk is flushed all the same.
TEST_F(NewImageWrite, AFullListEndsTheChunkAlsoForAContinuation) {
  std::vector<Piece> pieces;
  for (std::uint64_t i = 0; i < 120; ++i) pieces.push_back({i * 0x10000, Sectors(i, 1)});
  pieces.push_back({119 * 0x10000 + kSector, Sectors(9, 1)});
  const ParsedImage image = WriteAll(HeaderFields(), pieces);
  ASSERT_EQ(image.chunks.size(), 2u);
  EXPECT_EQ(image.chunks[1].runs, (std::vector<VolumeRun>{{119 * 0x10000 + kSector, 1}}));
}

TEST_F(NewImageWrite, APieceBelowASectorIsToldInTheLogAndGoesOn) {
  Writer writer(path_, Template(HeaderFields()));
  ASSERT_EQ(writer.status().status, 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(writer.Write(0x1000, Noise(1, 100)).status, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: zero-length run!\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(writer.Write(0x2000, Sectors(2, 1)).status, 0);
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  const Bytes file = writer.File();
  // Behind a run of length 0 the list goes on with an entry in the full form.
  const Bytes list = {0,    0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,   0,
                      0x10, 0,    0, 0, 0, 0, 0, 1, 0, 0, 0, 0xFF};
  EXPECT_EQ(Bytes(file.begin() + 520, file.begin() + 520 + std::ptrdiff_t(list.size())), list);
  EXPECT_EQ(Get32(file, 512), 3u);
  EXPECT_EQ(Get32(file, 516), 3u);
  Bytes data = Noise(1, 100);
  Append(&data, Sectors(2, 1));
  data.resize(1024);
  EXPECT_EQ(Bytes(file.begin() + 1024, file.begin() + 2048), data);
}

// A disk that was full for a while: what a full chunk couldn't be rid of stays, and the next write
// enters a run of no sectors before the flush is tried again.
TEST_F(NewImageWrite, AWriteBehindAFailedFlushTriesItAgain) {
  const Bytes headerTemplate = Template(FieldsForChunksOf(2));
  Writer writer(path_, headerTemplate);
  ASSERT_EQ(writer.status().status, 0);
  {
    const FileSizeLimit limit(headerTemplate.size());
    EXPECT_EQ(writer.Write(0, Sectors(1, 2)).status, -31);
    testing::internal::CaptureStderr();
    EXPECT_EQ(writer.Write(0x200000, Sectors(2, 1)).status, -31);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: zero-length run!\n");
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(writer.Write(0x300000, Sectors(3, 1)).status, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: zero-length run!\n");
  EXPECT_EQ(writer.Close().status, 0);

  const ParsedImage image = ParseFile(writer.File());
  ASSERT_EQ(image.chunks.size(), 2u);
  EXPECT_EQ(image.chunks[0].runs, (std::vector<VolumeRun>{{0, 2}, {0x200000, 0}, {0x300000, 0}}));
  EXPECT_EQ(image.chunks[0].data, Sectors(1, 2));
  EXPECT_EQ(image.chunks[1].runs, (std::vector<VolumeRun>{{0x300000, 1}}));
  EXPECT_EQ(image.chunks[1].data, Sectors(3, 1));
}

TEST_F(NewImageWrite, ATailBelowASectorGoesIntoTheChunkUncounted) {
  Writer writer(path_, Template(HeaderFields()));
  EXPECT_EQ(writer.Write(0x1000, Noise(1, 700)).status, 0);
  EXPECT_EQ(writer.Close().status, 0);
  const Bytes file = writer.File();
  EXPECT_EQ(Get32(file, 516), 3u);      // ExpandedSectors
  EXPECT_EQ(Get32(file, 520 + 8), 1u);  // sectors of the run
  EXPECT_EQ(Bytes(file.begin() + 1024, file.begin() + 1724), Noise(1, 700));
  EXPECT_EQ(Bytes(file.begin() + 1724, file.begin() + 2048), Bytes(2048 - 1724));
}

// A sector size that does not divide 1 MiB leaves part of a sector at the buffer's end, which
// takes data that no run counts.
TEST_F(NewImageWrite, OddSectorSizesNeverReadOrWriteBeyondTheBuffer) {
  for (const std::uint32_t sectorSize : {20u, 57u, 113u, 114u, 115u, 250u, 1000u, 5000u, 349525u}) {
    HeaderFields fields;
    fields.sectorSize = sectorSize;
    Bytes header(std::max(sectorSize, 2 * 114u) / sectorSize * sectorSize);
    Bytes fixed = Template(HeaderFields());
    fixed.resize(114);
    Set32(&fixed, 4, sectorSize);
    SetBytes(&header, 0, fixed);
    testing::internal::CaptureStderr();
    Writer writer(path_, header);
    ASSERT_EQ(writer.status().status, 0) << sectorSize;
    const Bytes data = Noise(sectorSize, 3000000);
    ASSERT_EQ(writer.Write(0, data).status, 0);
    ASSERT_EQ(writer.Write(0x10000000, {data.data(), 7777}).status, 0);
    ASSERT_EQ(writer.Close("comment").status, 0) << sectorSize;
    testing::internal::GetCapturedStderr();
    const Bytes file = writer.File();
    EXPECT_EQ(file.size() % sectorSize, 0u) << sectorSize;
    // The first chunk's data stands behind its head as given.
    const std::size_t chunk = header.size() + sectorSize;
    const std::size_t bytes = std::size_t{Get32(file, header.size() + 4) - 1} * sectorSize;
    const std::size_t whole = std::min<std::size_t>(bytes, kLargestHeader - chunk);
    EXPECT_TRUE(std::equal(data.begin(), data.begin() + std::ptrdiff_t(whole),
                           file.begin() + std::ptrdiff_t(chunk)))
        << sectorSize;
  }
}

// Against a flat model: any pieces in any order come out where they went in.
TEST_F(NewImageWrite, ScatteredPiecesReadBackWhereTheyWereWritten) {
  for (std::uint32_t seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::map<std::uint64_t, Bytes> pieces;
    std::vector<Piece> order;
    std::uint64_t offset = 0;
    for (int i = 0; i < 200; ++i) {
      offset += (random() % 4 == 0 ? random() % 100000 : 0) * kSector;
      const Bytes data = Sectors(random(), 1 + random() % 20);
      order.push_back({offset, data});
      pieces[offset] = data;
      offset += data.size();
    }
    if (seed % 2 == 0) std::shuffle(order.begin(), order.end(), random);
    const ParsedImage image =
        WriteAll(FieldsForChunksOf(static_cast<std::uint32_t>(1 + random() % 300)), order);
    for (const auto& [at, data] : pieces) {
      // All of a piece lies in few chunks; reading it is cheap.
      ASSERT_EQ(image.ReadVolume(at, data.size()), data);
    }
  }
}

}  // namespace
}  // namespace kqtest
