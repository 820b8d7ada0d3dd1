#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

#include "header/read_header.h"
#include "tests/support/image_builder.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::Get32;
using kqtest::ImageLayout;
using kqtest::ImageSpec;
using kqtest::PatternBytes;
using kqtest::Set64;

class ReadChunkIndexHeadTest : public testing::Test {
 protected:
  KQStatus Read(const Bytes& file, HeapBuffer* head) {
    kqtest::WriteFile(path_, file);
    ImageHeader header;
    std::memcpy(&header, file.data(), sizeof header);
    OSFile* opened = nullptr;
    const KQStatus status = OSFileOpen(path_.c_str(), O_RDONLY, 0, &opened);
    if (status.status != 0) return status;
    const OSFileOwner owner(opened);
    return ReadChunkIndexHead(MakeAlignedFile(opened), header, head);
  }
  void ExpectFailure(const Bytes& file, std::int32_t status, const char* module) {
    HeapBuffer head = HeapBuffer::Allocate(1);
    const KQStatus outcome = Read(file, &head);
    EXPECT_EQ(outcome.status, status);
    EXPECT_STREQ(outcome.file, module);
    EXPECT_FALSE(head);
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

ImageSpec SpecWith(std::uint32_t sectorSize) {
  ImageSpec spec;
  spec.header.sectorSize = sectorSize;
  spec.header.laterSectors = PatternBytes(3, sectorSize);
  spec.chunks = {kqtest::RawChunk({{0x10000, 2}}, PatternBytes(4, std::size_t{2} * sectorSize))};
  spec.index.lastPart = 0x12345678;
  return spec;
}

TEST_F(ReadChunkIndexHeadTest, GivesTheFirstSectorOfTheIndex) {
  for (const std::uint32_t sectorSize : {256u, 512u, 1024u, 2048u, 4096u, 300u, 130u}) {
    SCOPED_TRACE(sectorSize);
    ImageLayout layout;
    const Bytes file = kqtest::BuildImage(SpecWith(sectorSize), &layout);
    HeapBuffer head;
    ASSERT_EQ(Read(file, &head).status, 0);
    EXPECT_EQ(std::memcmp(head.data(), file.data() + layout.indexOffset, sectorSize), 0);
    EXPECT_EQ(Get32(head.bytes(), 8), 0x12345678u);
  }
}

TEST_F(ReadChunkIndexHeadTest, FileHoldsItsHeaderAndOneSectorMore) {
  Bytes file = kqtest::BuildImage(SpecWith(512));  // two header sectors
  file.resize(1536);
  std::fill(file.begin() + 1024, file.end(), std::uint8_t{0});
  Set64(&file, 1024, 1024);
  HeapBuffer head;
  EXPECT_EQ(Read(file, &head).status, 0);

  for (const std::size_t length : {114u, 511u, 512u, 1023u, 1024u, 1535u}) {
    SCOPED_TRACE(length);
    Bytes cut = file;
    cut.resize(length);
    ExpectFailure(cut, -1392, "kqimageapi");
  }
}

TEST_F(ReadChunkIndexHeadTest, HeaderOfAnySizeIsComparedWithoutWrapping) {
  const std::pair<std::uint32_t, std::uint32_t> sizes[] = {{0xFFFFFFFF, 0xFFFFFFFF},
                                                           {0x80000000, 0x80000000},
                                                           {0xFFFFFFFF, 1},
                                                           {512, 0xFFFFFFFF},
                                                           {0x10000, 0x10000}};
  for (const auto& [sectorSize, headerSectors] : sizes) {
    Bytes file = kqtest::BuildImage(SpecWith(512));
    kqtest::Set32(&file, 4, sectorSize);
    kqtest::Set32(&file, 8, headerSectors);
    ExpectFailure(file, -1392, "kqimageapi");
  }
}

TEST_F(ReadChunkIndexHeadTest, PointerSectorIsZeroBehindThePointer) {
  for (const std::uint32_t sectorSize : {512u, 300u}) {
    ImageLayout layout;
    const Bytes file = kqtest::BuildImage(SpecWith(sectorSize), &layout);
    for (const std::size_t place : {8u, 9u, 100u, sectorSize - 1}) {
      SCOPED_TRACE(place);
      Bytes damaged = file;
      damaged[layout.pointerOffset + place] = 1;
      ExpectFailure(damaged, -1392, "kqimageapi");
    }
  }
}

TEST_F(ReadChunkIndexHeadTest, IndexLiesBehindTheHeader) {
  ImageSpec spec = SpecWith(512);
  for (const std::uint64_t pointer : {0u, 1u, 512u, 1023u}) {
    spec.index.pointer = pointer;
    ExpectFailure(kqtest::BuildImage(spec), -1392, "kqimageapi");
  }
  spec.index.pointer = 1024;  // the first chunk: not looked at
  HeapBuffer head;
  EXPECT_EQ(Read(kqtest::BuildImage(spec), &head).status, 0);
}

// What the direct read can't fill keeps the bytes of the pointer sector, whose LastPart place is 0.
TEST_F(ReadChunkIndexHeadTest, IndexBeyondTheFileIsNotNoticedOnTheDirectWay) {
  ImageSpec spec = SpecWith(512);
  ImageLayout layout;
  kqtest::BuildImage(spec, &layout);
  const std::uint64_t fileSize = layout.pointerOffset + 512;
  for (const std::uint64_t pointer : {fileSize, fileSize + 512, std::uint64_t{1} << 40}) {
    spec.index.pointer = pointer;
    HeapBuffer head;
    ASSERT_EQ(Read(kqtest::BuildImage(spec), &head).status, 0);
    EXPECT_EQ(kqtest::Get64(head.bytes(), 0), pointer);
    EXPECT_EQ(Get32(head.bytes(), 8), 0u);
  }
  // The pointer sector itself: read as an index, it is the same bytes.
  spec.index.pointer = layout.pointerOffset;
  HeapBuffer head;
  ASSERT_EQ(Read(kqtest::BuildImage(spec), &head).status, 0);
  EXPECT_EQ(kqtest::Get64(head.bytes(), 0), layout.pointerOffset);
}

TEST_F(ReadChunkIndexHeadTest, IndexCutByTheFileEndKeepsThePointerSectorsRest) {
  ImageSpec spec = SpecWith(512);
  spec.trailing = {};
  ImageLayout layout;
  kqtest::BuildImage(spec, &layout);
  // 128 divides the place, so the read is a direct one and comes back short.
  spec.index.pointer = layout.pointerOffset + 384;
  HeapBuffer head;
  ASSERT_EQ(Read(kqtest::BuildImage(spec), &head).status, 0);
  for (std::size_t i = 0; i < 512; ++i) ASSERT_EQ(head.data()[i], 0) << i;
}

TEST_F(ReadChunkIndexHeadTest, IndexBeyondTheFileAtAnOddPlaceIsGeneralFailure) {
  ImageSpec spec = SpecWith(512);
  ImageLayout layout;
  kqtest::BuildImage(spec, &layout);
  spec.index.pointer = layout.pointerOffset + 1;
  ExpectFailure(kqtest::BuildImage(spec), -31, "kqos");
}

TEST_F(ReadChunkIndexHeadTest, IndexBeyondTheLargestOffsetFailsInTheSeek) {
  ImageSpec spec = SpecWith(512);
  spec.index.pointer = std::numeric_limits<std::uint64_t>::max() - 511;
  ExpectFailure(kqtest::BuildImage(spec), -87, "kqos_linux");
  spec.index.pointer = std::numeric_limits<std::uint64_t>::max();
  HeapBuffer head;
  EXPECT_NE(Read(kqtest::BuildImage(spec), &head).status, 0);
  EXPECT_FALSE(head);
}

TEST_F(ReadChunkIndexHeadTest, SectorsOfAFewBytesStillGiveAWholeHead) {
  for (const std::uint32_t sectorSize : {1u, 7u, 8u, 12u, 15u}) {
    SCOPED_TRACE(sectorSize);
    Bytes file = kqtest::BuildImage(SpecWith(512));
    kqtest::Set32(&file, 4, sectorSize);
    kqtest::Set32(&file, 8, 1);
    file.resize(300);
    std::fill(file.begin() + 300 - sectorSize, file.end(), std::uint8_t{0});
    file[300 - sectorSize] = 200;
    std::fill(file.begin() + 200, file.begin() + 200 + sectorSize, std::uint8_t{0x55});
    HeapBuffer head;
    ASSERT_EQ(Read(file, &head).status, 0);
    ASSERT_GE(head.size(), 16u);
    for (std::size_t i = 0; i < 16; ++i) {
      EXPECT_EQ(head.data()[i], i < sectorSize ? 0x55 : 0) << i;
    }
  }
}

using ReadHeaderAndIndexHeadTest = ReadChunkIndexHeadTest;

TEST_F(ReadHeaderAndIndexHeadTest, GivesAsManyHeaderSectorsAsAreAskedForAndTheHead) {
  const Bytes file = kqtest::BuildImage(SpecWith(512));
  kqtest::WriteFile(path_, file);
  for (const std::uint64_t count : {1u, 2u, 0u}) {
    HeapBuffer sectors;
    ChunkIndexHead head{};
    ASSERT_EQ(ReadHeaderAndIndexHead(path_.c_str(), count, &sectors, &head).status, 0);
    ASSERT_GE(sectors.size(), count == 1 ? 512u : 1024u);
    EXPECT_EQ(std::memcmp(sectors.data(), file.data(), count == 1 ? 512 : 1024), 0) << count;
    EXPECT_EQ(head.LastPart, 0x12345678u);
  }
}

// The header's failures come before those of the tail.
TEST_F(ReadHeaderAndIndexHeadTest, HandsOnTheFirstFailure) {
  HeapBuffer sectors;
  ChunkIndexHead head{};
  KQStatus status = ReadHeaderAndIndexHead(path_.c_str(), 1, &sectors, &head);
  EXPECT_EQ(status.status, -2);
  EXPECT_EQ(status.detail2, 2u);
  Bytes file = kqtest::BuildImage(SpecWith(512));
  kqtest::WriteFile(path_, Bytes(file.begin(), file.begin() + 1024));
  EXPECT_EQ(ReadHeaderAndIndexHead(path_.c_str(), 3, &sectors, &head).status, -2);
  EXPECT_FALSE(sectors);
  EXPECT_EQ(ReadHeaderAndIndexHead(path_.c_str(), 2, &sectors, &head).status, -1392);
}

}  // namespace
}  // namespace kq
