// What a read delivers: which file wins, holes, alignment, and the statuses of the read itself.
#include <algorithm>
#include <random>

#include "image/chain_test_support.h"
#include "image/chunk_cache.h"
#include "tests/support/test_seed.h"

namespace kq {
namespace {

class KQImageFilesReadTest : public ::testing::Test {
 protected:
  ImageFolder folder_;
  ImageSpec base_;

  void SetUp() override {
    base_.chunks = {RawChunk({{0, 8}}, PatternBytes(1, 8 * 512)),
                    RawChunk({{0x10000, 4}, {0x20000, 4}}, PatternBytes(2, 8 * 512))};
  }
  void TearDown() override { EXPECT_EQ(OpenFileCount(), 0u); }

  ImageSpec Increment(std::vector<ChunkSpec> chunks) {
    ImageSpec spec;
    spec.header = kqtest::IncrementOf(base_.header, kqtest::MakeId(2));
    spec.chunks = std::move(chunks);
    return spec;
  }
  std::string BaseFile() { return folder_.Write("base", base_); }
};

TEST_F(KQImageFilesReadTest, BadArgumentsAreInvalidParameterOfTheInterface) {
  const TestChain chain(BaseFile());
  Bytes buffer(16, 0xAA);
  std::uint32_t count = 7;
  KQStatus status = KQImageFilesRead(0, 0, buffer.data(), 16, &count);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(buffer, Bytes(16));

  count = 7;
  status = KQImageFilesRead(chain.handle, 0, nullptr, 16, &count);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(count, 0u);

  count = 7;
  buffer.assign(16, 0xAA);
  status = KQImageFilesRead(chain.handle, 0, buffer.data(), 0, &count);
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(buffer, Bytes(16, 0xAA));
  EXPECT_EQ(KQImageFilesRead(chain.handle, 0, nullptr, 0, nullptr).status, -87);
}

TEST_F(KQImageFilesReadTest, UnknownHandleIsInvalidParameterOfTheObjectManager) {
  EXPECT_STREQ(ExpectFailedRead(0x7777777777, 0, 100, -87).file, "objmgr");
}

TEST_F(KQImageFilesReadTest, CountMayBeNull) {
  const TestChain chain(BaseFile());
  Bytes buffer(512);
  EXPECT_EQ(KQImageFilesRead(chain.handle, 0, buffer.data(), 512, nullptr).status, 0);
  EXPECT_EQ(buffer, PatternBytes(1, 512));
}

TEST_F(KQImageFilesReadTest, HolesAndWhatLiesBehindEverythingReadAsZero) {
  const TestChain chain(BaseFile());
  ExpectRead(chain.handle, 0x8000, Bytes(1000));
  ExpectRead(chain.handle, 0x40000000000, Bytes(1000));
  ExpectRead(chain.handle, 0x7FFFFFFFFFFFFFFF, Bytes(1000));
  ExpectRead(chain.handle, UINT64_MAX - 999, Bytes(1000));
  ExpectRead(chain.handle, UINT64_MAX, Bytes(1000));  // runs beyond the largest offset
  ExpectRead(chain.handle, UINT64_MAX, Bytes(1));
}

TEST_F(KQImageFilesReadTest, RunsOfOneChunkMayLieFarApart) {
  const TestChain chain(BaseFile());
  const Bytes data = PatternBytes(2, 8 * 512);
  ExpectRead(chain.handle, 0xFE00, Join({Bytes(512), Slice(data, 0, 2048), Bytes(512)}));
  ExpectRead(chain.handle, 0x1FFFF, Join({Bytes(1), Slice(data, 2048, 2048), Bytes(1)}));
  ExpectRead(chain.handle, 0x10000,
             Join({Slice(data, 0, 2048), Bytes(0x10000 - 2048), Slice(data, 2048, 2048)}));
}

TEST_F(KQImageFilesReadTest, AnyOffsetLengthAndBufferAlignmentWorks) {
  const TestChain chain(BaseFile());
  Bytes volume = Join({PatternBytes(1, 8 * 512), Bytes(0x1000)});
  for (std::size_t offset = 0; offset < 1100; offset += 37) {
    for (const std::size_t length : {1u, 3u, 511u, 513u, 4000u}) {
      const ReadResult result =
          ReadChain(chain.handle, offset, static_cast<std::uint32_t>(length), offset % 17);
      ASSERT_EQ(result.status.status, 0);
      ASSERT_EQ(result.count, length);
      ASSERT_TRUE(result.data == Slice(volume, offset, length)) << offset << " " << length;
    }
  }
}

TEST_F(KQImageFilesReadTest, NewerFileWinsAndOlderOnesFillTheRest) {
  const std::string next = folder_.Write(
      "next", Increment({RawChunk({{512, 2}, {0x10200, 1}}, PatternBytes(3, 3 * 512))}));
  const TestChain chain(BaseFile() + "|" + next);
  ASSERT_EQ(chain.opened.status, 0);
  Bytes expected = PatternBytes(1, 8 * 512);
  kqtest::SetBytes(&expected, 512, Slice(PatternBytes(3, 1536), 0, 1024));
  ExpectRead(chain.handle, 0, expected);
  ExpectRead(chain.handle, 700, Slice(expected, 700, 2000));
  expected = Slice(PatternBytes(2, 4096), 0, 2048);
  kqtest::SetBytes(&expected, 512, Slice(PatternBytes(3, 1536), 1024, 512));
  ExpectRead(chain.handle, 0x10000, expected);
}

TEST_F(KQImageFilesReadTest, OlderFileIsNotLookedAtOnceTheRangeIsCovered) {
  base_.chunks[0].indexFileOffset = 0;  // any look at this chunk fails the read
  const std::string next =
      folder_.Write("next", Increment({RawChunk({{0, 1}}, PatternBytes(3, 512)),
                                       RawChunk({{512, 1}}, PatternBytes(4, 512))}));
  const TestChain chain(BaseFile() + "|" + next);
  ASSERT_EQ(chain.opened.status, 0);
  ExpectRead(chain.handle, 0, Join({PatternBytes(3, 512), PatternBytes(4, 512)}));
  ExpectFailedRead(chain.handle, 0, 1025, -87);
}

TEST_F(KQImageFilesReadTest, ChunkInsideTheHeaderIsInvalidParameter) {
  base_.header.laterSectors = Bytes(512);
  base_.chunks[0].indexFileOffset = 1023;
  const TestChain chain(BaseFile());
  EXPECT_STREQ(ExpectFailedRead(chain.handle, 0, 512, -87).file, "utimagefile");
  // The chunk before the range is looked at too, though it does not reach it.
  ExpectFailedRead(chain.handle, 0x8000, 512, -87);
  ExpectRead(chain.handle, 0x10000, Slice(PatternBytes(2, 4096), 0, 2048));
}

TEST_F(KQImageFilesReadTest, ChunksOfOneFileThatOverlapReadAsTheFirstInTheIndex) {
  base_.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 2048)),
                  RawChunk({{1024, 4}}, PatternBytes(2, 2048))};
  const TestChain chain(BaseFile());
  ExpectRead(chain.handle, 0,
             Join({PatternBytes(1, 2048), Slice(PatternBytes(2, 2048), 1024, 1024)}));
  // Read from inside the second chunk, the first is not looked at.
  ExpectRead(chain.handle, 1024, Join({PatternBytes(2, 2048)}));
}

TEST_F(KQImageFilesReadTest, RunThatReachesBeyondItsChunkReadsAsZero) {
  base_.chunks = {RawChunk({{0, 8}}, PatternBytes(1, 8 * 512))};
  base_.chunks[0].expandedSectors = 3;
  base_.chunks[0].storedSectors = 3;
  const TestChain chain(BaseFile());
  ExpectRead(chain.handle, 0, PatternBytes(1, 1024));
  ExpectRead(chain.handle, 0, Bytes(1025));  // one byte too many leaves the whole piece out
  ExpectRead(chain.handle, 1024, Bytes(100));
}

TEST_F(KQImageFilesReadTest, RunThatBeginsBehindItsChunkIsCorrupt) {
  base_.chunks = {RawChunk({{0, 1}, {0x4000, 1}, {0x8000, 1}}, PatternBytes(1, 3 * 512))};
  base_.chunks[0].expandedSectors = 2;
  base_.chunks[0].storedSectors = 2;
  const TestChain chain(BaseFile());
  ExpectRead(chain.handle, 0, PatternBytes(1, 512));
  ExpectFailedRead(chain.handle, 0x4000, 1, -1392);  // begins at the end: its one "byte" is beyond
  ExpectFailedRead(chain.handle, 0x8000, 1, -1392);
  ExpectFailedRead(chain.handle, 0, 0x8001, -1392);
}

// The check counts sectors as bytes: a run of n sectors that begins n bytes before the chunk's end
// passes, and is left out by the copy.
TEST_F(KQImageFilesReadTest, RunCheckCountsSectorsAsBytes) {
  base_.chunks = {RawChunk({{0, 1}, {0x4000, 512}}, PatternBytes(1, 512))};
  base_.chunks[0].wholeBody = PatternBytes(1, 1024);
  base_.chunks[0].expandedSectors = 3;
  const TestChain chain(BaseFile());
  ExpectRead(chain.handle, 0x4000, Slice(PatternBytes(1, 1024), 512, 512));
  ExpectRead(chain.handle, 0x4000, Bytes(513));

  base_.chunks[0] = RawChunk({{0, 1}, {0x4000, 513}}, PatternBytes(1, 512));
  base_.chunks[0].wholeBody = PatternBytes(1, 1024);
  base_.chunks[0].expandedSectors = 3;
  base_.header.imageId = kqtest::MakeId(9);
  const TestChain other(folder_.Write("other", base_));
  ExpectFailedRead(other.handle, 0x4000, 1, -1392);
}

TEST_F(KQImageFilesReadTest, NextReadOfAChunkDecodesNothing) {
  const std::string path = BaseFile();
  const TestChain chain(path);
  ExpectRead(chain.handle, 5, Slice(PatternBytes(1, 4096), 5, 1));
  // What the file holds from now on is not looked at for this chunk.
  Bytes image = kqtest::ReadFile(path);
  std::fill(image.begin() + 512, image.end(), std::uint8_t{0x55});
  kqtest::WriteFile(path, image);
  ExpectRead(chain.handle, 0, PatternBytes(1, 4096));
}

TEST_F(KQImageFilesReadTest, ClosedHandleIsUnknown) {
  TestChain chain(BaseFile());
  const std::uint64_t handle = chain.handle;
  EXPECT_EQ(chain.Close().status, 0);
  ExpectFailedRead(handle, 0, 512, -87);
  EXPECT_EQ(KQImageFilesClose(handle, nullptr, nullptr, 0).status, -87);
}

TEST_F(KQImageFilesReadTest, SpentRunListOfZerosIsManyEmptyRunsAtTheStart) {
  // Without an end byte the zeros behind the list read as runs of offset 0 and length 0, each of
  // which seems to reach up to the largest offset.
  base_.chunks = {RawChunk({{0, 1}}, PatternBytes(1, 512))};
  base_.chunks[0].runList = Bytes(504);
  const TestChain chain(BaseFile());
  ExpectRead(chain.handle, 0, PatternBytes(1, 512));
  ExpectRead(chain.handle, 100, Slice(PatternBytes(1, 512), 100, 412));
  ExpectRead(chain.handle, 0, Bytes(513));
  // Such a run ends modulo 2^64, so a range beyond the largest offset is within it. Its bytes are
  // those in front of the run's first sector: the ChunkHead's last, then the data.
  ExpectRead(chain.handle, UINT64_MAX, Join({Bytes(1), PatternBytes(1, 512)}));
}

// A plain model of the read: lists, one step after the other, on the decoded index and heads that
// the test itself composed.
struct ModelRun {
  std::uint64_t offset;
  std::uint32_t sectors;
};
struct ModelChunk {
  std::uint64_t volumeOffset;
  std::uint32_t expanded;
  std::vector<ModelRun> runs;
  Bytes content;  // as expanded
};
using ModelFile = std::vector<ModelChunk>;

// What a reader makes of an encoded list, which may end early: a run that repeats the one before it
// can't be told, and neither can an offset difference whose first byte is the list's end.
std::vector<ModelRun> ModelRuns(const Bytes& list) {
  std::vector<ModelRun> runs;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  std::size_t at = 0;
  while (at < list.size() && list[at] != 0xFF) {
    std::size_t offsetBytes = 8;
    std::size_t lengthBytes = 4;
    bool negative = false;
    if (length != 0) {
      negative = (list[at] & 0x80) != 0;
      offsetBytes = (list[at] >> 3) & 15;
      lengthBytes = list[at] & 7;
      if (offsetBytes + lengthBytes == 0) break;
      ++at;
    }
    std::uint64_t difference = kqtest::GetLe(list, at, offsetBytes);
    if (negative && offsetBytes < 8) difference |= UINT64_MAX << (8 * offsetBytes);
    offset += difference;
    length += static_cast<std::uint32_t>(kqtest::GetLe(list, at + offsetBytes, lengthBytes));
    at += offsetBytes + lengthBytes;
    runs.push_back({offset, length});
  }
  return runs;
}

template <class Entries, class OffsetOf>
std::size_t ModelSearch(const Entries& entries, std::uint64_t offset, OffsetOf offsetOf) {
  std::size_t found = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (offsetOf(entries[i]) <= offset) found = i;
  }
  return found;
}

struct ModelPiece {
  const ModelChunk* chunk;
  std::uint64_t runOffset, first, sectors, start, end;
};

void ModelMerge(std::vector<ModelPiece>* pieces, ModelPiece p) {
  if (pieces->empty() || p.start > pieces->back().end) {
    pieces->push_back(p);
    return;
  }
  for (std::size_t i = 0;; ++i) {
    if (i == pieces->size()) {
      pieces->push_back(p);
      return;
    }
    const ModelPiece h = (*pieces)[i];
    const auto at = pieces->begin() + static_cast<std::ptrdiff_t>(i);
    if (h.start > p.end) {
      pieces->insert(at, p);
      return;
    }
    if (p.start > h.end) continue;
    if (p.start < h.start) {
      ModelPiece part = p;
      part.end = h.start - 1;
      pieces->insert(at, part);
      ++i;
    }
    p.start = h.end + 1;
    if (p.start > p.end) return;
  }
}

std::int32_t ModelRead(const std::vector<ModelFile>& files, std::uint64_t offset, Bytes* buffer) {
  const std::uint64_t last = offset + buffer->size() - 1;
  std::vector<ModelPiece> pieces;
  for (auto file = files.rbegin(); file != files.rend(); ++file) {
    const auto volumeOffset = [](const ModelChunk& chunk) { return chunk.volumeOffset; };
    for (std::size_t i = ModelSearch(*file, offset, volumeOffset);
         i < file->size() && (*file)[i].volumeOffset <= last; ++i) {
      const ModelChunk& chunk = (*file)[i];
      const auto runOffset = [](const ModelRun& run) { return run.offset; };
      const std::size_t start = ModelSearch(chunk.runs, offset, runOffset);
      std::uint32_t first = 1;  // wraps around behind a run that claims too much
      for (std::size_t j = 0; j < chunk.runs.size(); ++j) {
        const ModelRun& run = chunk.runs[j];
        const std::uint64_t runLast = run.offset + std::uint64_t{run.sectors} * 512 - 1;
        if (j >= start && runLast >= offset) {
          if (run.offset > last) break;
          ModelMerge(&pieces, {&chunk, run.offset, first, run.sectors, std::max(offset, run.offset),
                               std::min(runLast, last)});
        }
        first += run.sectors;
      }
    }
    if (pieces.empty() || pieces.front().start > offset) continue;
    std::uint64_t end = pieces.front().end;
    for (std::size_t i = 1; i < pieces.size() && pieces[i].start == end + 1; ++i) {
      end = pieces[i].end;
    }
    if (end >= last) break;
  }
  for (const ModelPiece& piece : pieces) {
    if (piece.chunk->expanded < 2) return -1392;
    const std::uint64_t size = std::uint64_t{piece.chunk->expanded} * 512;
    if (512 * piece.first + piece.sectors > size) return -1392;
    const std::uint64_t source = 512 * piece.first + piece.start - piece.runOffset;
    const std::uint64_t count = piece.end - piece.start + 1;
    if (count > buffer->size() || source + count > size) continue;
    for (std::uint64_t i = 0; i < count; ++i) {
      (*buffer)[piece.start - offset + i] = piece.chunk->content[source + i];
    }
  }
  return 0;
}

TEST_F(KQImageFilesReadTest, HostileRunListsReadAsThePlainModelTells) {
  const std::uint64_t seed = kqtest::TestSeed();
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 60; ++round) {
    std::vector<ModelFile> model;
    std::string files;
    ImageSpec spec = base_;
    spec.header.imageId = kqtest::MakeId(1000);
    const int fileCount = 1 + static_cast<int>(random() % 3);
    for (int f = 0; f < fileCount; ++f) {
      if (f != 0) {
        spec.header =
            kqtest::IncrementOf(spec.header, kqtest::MakeId(1000 + static_cast<std::uint32_t>(f)));
      }
      spec.chunks.clear();
      ModelFile modelFile;
      std::uint64_t at = random() % 4096;
      const std::size_t chunkCount = random() % 6;
      for (std::size_t c = 0; c < chunkCount; ++c) {
        ModelChunk chunk;
        chunk.volumeOffset = at;
        // Runs rise, but overlap, are empty, or claim far more than there is.
        std::uint64_t runAt = at;
        const std::size_t runCount = random() % 12;
        std::vector<std::pair<std::uint64_t, std::uint32_t>> runs;
        for (std::size_t r = 0; r < runCount; ++r) {
          const std::uint32_t kind = static_cast<std::uint32_t>(random() % 16);
          const auto sectors = kind == 0   ? 0u
                               : kind == 1 ? 0xFFFFFFFFu
                               : kind == 2 ? 400u
                                           : static_cast<std::uint32_t>(1 + random() % 3);
          runs.emplace_back(runAt, sectors);
          runAt += random() % 3 == 0 ? random() % 100 : random() % 3000;
        }
        chunk.expanded = 1 + static_cast<std::uint32_t>(random() % 30);
        const Bytes body = PatternBytes(random(), (chunk.expanded - 1) * std::size_t{512});
        ChunkSpec chunkSpec;
        chunkSpec.runList = Join({kqtest::EncodeRunList(runs), {0xFF}});
        chunk.runs = ModelRuns(*chunkSpec.runList);
        chunkSpec.wholeBody = body;
        chunkSpec.expandedSectors = chunk.expanded;
        chunkSpec.indexVolumeOffset = chunk.volumeOffset;
        spec.chunks.push_back(chunkSpec);
        // A run's place in the chunk may wrap around to the ChunkHead, so that counts as content.
        kqtest::Set32(&chunk.content, 0, chunk.expanded);
        kqtest::Set32(&chunk.content, 4, chunk.expanded);
        kqtest::Append(&chunk.content, *chunkSpec.runList);
        chunk.content.resize(512);
        kqtest::Append(&chunk.content, body);
        modelFile.push_back(chunk);
        at += 1 + random() % 6000;
        // An index entry follows one with a length, so only its first offset can end the list.
      }
      if (!modelFile.empty() && (modelFile[0].volumeOffset & 0xFF) == 0xFF) modelFile.clear();
      model.push_back(modelFile);
      files += folder_.Write("image" + std::to_string(f), spec) + "|";
    }
    const TestChain chain(files);
    ASSERT_EQ(chain.opened.status, 0);
    for (int i = 0; i < 60; ++i) {
      const std::uint64_t offset = random() % 20000;
      Bytes expected(1 + random() % (i % 2 == 0 ? 600 : 20000));
      const std::int32_t status = ModelRead(model, offset, &expected);
      if (status == 0) {
        ExpectRead(chain.handle, offset, expected);
      } else {
        ExpectFailedRead(chain.handle, offset, static_cast<std::uint32_t>(expected.size()), status);
      }
      if (::testing::Test::HasFailure()) FAIL() << "round " << round << " read " << i;
    }
  }
}

TEST_F(KQImageFilesReadTest, RandomBytesInHeadsAndIndexGiveAStatus) {
  const std::uint64_t seed = kqtest::TestSeed();
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  testing::internal::CaptureStderr();  // bad lists are told there, line by line
  for (int round = 0; round < 300; ++round) {
    base_.header.compressionType = static_cast<std::uint32_t>(round % 3 == 0 ? 0 : 4 + round % 3);
    ImageLayout layout;
    Bytes image = kqtest::BuildImage(base_, &layout);
    const std::uint64_t regions[] = {layout.chunkOffsets[0], layout.chunkOffsets[1],
                                     layout.indexOffset + 8, layout.indexOffset + 16};
    for (int i = static_cast<int>(random() % 12); i >= 0; --i) {
      image[regions[random() % 4] + random() % 40] = static_cast<std::uint8_t>(random());
    }
    const TestChain chain(folder_.WriteBytes("image", image));
    if (chain.opened.status != 0) continue;
    for (int i = 0; i < 10; ++i)
      ReadChain(chain.handle, random() % 0x30000, static_cast<std::uint32_t>(1 + random() % 9000));
  }
  testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace kq
