#include <gtest/gtest.h>

#include "image/new_image_file.h"
#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

constexpr std::uint32_t kSector = 512;
constexpr char kPassword[] = "secret";

class FlushChunk : public testing::Test {
 protected:
  static HeaderFields Fields(std::uint32_t compressionType, std::uint32_t encryptionType = 0) {
    HeaderFields fields;
    fields.compressionType = compressionType;
    fields.encryptionType = encryptionType;
    return fields;
  }

  // Chunks that hold up to dataSectors sectors.
  static HeaderFields FieldsForChunksOf(std::uint32_t dataSectors, std::uint32_t compressionType) {
    HeaderFields fields = Fields(compressionType);
    fields.laterSectors = LaterSectorsForBuffer(kSector, (dataSectors + 1) * kSector);
    return fields;
  }

  ParsedImage WriteOne(const HeaderFields& fields, const Bytes& data, std::uint64_t offset = 0) {
    const char* password = fields.encryptionType != 0 ? kPassword : nullptr;
    Writer writer(path_, Template(fields), {.password = password});
    EXPECT_EQ(writer.status().status, 0);
    EXPECT_EQ(writer.Write(offset, data).status, 0);
    EXPECT_EQ(writer.Close().status, 0);
    return ParseFile(writer.File(), password);
  }

  TempDir folder_;
  std::string path_ = folder_.Path("new.twf");
};

constexpr std::uint32_t kCompressing[] = {3, 4, 5, 6};

TEST_F(FlushChunk, AnAllZeroChunkHasNoBodyWhereTheImageCompresses) {
  for (const std::uint32_t type : kCompressing) {
    const ParsedImage image = WriteOne(FieldsForChunksOf(10, type), Bytes(20 * kSector), 0x4000);
    ASSERT_EQ(image.chunks.size(), 2u) << type;
    for (const ParsedChunk& chunk : image.chunks) {
      EXPECT_EQ(chunk.storedSectors, 1u);
      EXPECT_EQ(chunk.expandedSectors, 11u);
    }
    // The second entry's length is the one sector of the chunk before it.
    EXPECT_EQ(image.chunks[1].fileOffset - image.chunks[0].fileOffset, kSector);
  }
}

TEST_F(FlushChunk, AnAllZeroChunkIsStoredWholeWithoutCompression) {
  const ParsedImage image = WriteOne(Fields(0), Bytes(20 * kSector));
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].storedSectors, 21u);
  EXPECT_EQ(image.chunks[0].expandedSectors, 21u);
}

TEST_F(FlushChunk, OneByteThatIsNotZeroMakesABody) {
  for (const std::uint32_t type : kCompressing) {
    for (const std::size_t place : {std::size_t{0}, std::size_t{20 * kSector - 1}}) {
      Bytes data(20 * kSector);
      data[place] = 1;
      const ParsedImage image = WriteOne(Fields(type), data);
      ASSERT_EQ(image.chunks.size(), 1u);
      EXPECT_GT(image.chunks[0].storedSectors, 1u) << type;
      EXPECT_EQ(image.chunks[0].data, data) << type;
    }
  }
}

TEST_F(FlushChunk, CompressibleDataIsStoredAsAStream) {
  for (const std::uint32_t type : kCompressing) {
    const Bytes data = Text(type, 200 * kSector);
    const ParsedImage image = WriteOne(Fields(type), data);
    ASSERT_EQ(image.chunks.size(), 1u);
    EXPECT_EQ(image.chunks[0].body, ParsedChunk::Body::kStream);
    EXPECT_LT(image.chunks[0].storedSectors, 150u) << type;
    EXPECT_EQ(image.chunks[0].data, data) << type;
  }
}

TEST_F(FlushChunk, IncompressibleDataIsStoredRaw) {
  for (const std::uint32_t type : kCompressing) {
    for (const std::size_t sectors : {1u, 2u, 100u}) {
      const Bytes data = Noise(type, sectors * kSector);
      const ParsedImage image = WriteOne(Fields(type), data);
      ASSERT_EQ(image.chunks.size(), 1u);
      EXPECT_EQ(image.chunks[0].storedSectors, sectors + 1) << type;
      EXPECT_EQ(image.chunks[0].body, ParsedChunk::Body::kRaw);
      EXPECT_EQ(image.chunks[0].data, data);
    }
  }
}

// A stream must save a whole sector. Noise with a tail of zeros has a stream slightly longer than
// its noise, so the outcome is plain wherever the noise is not close to a sector's end.
TEST_F(FlushChunk, AStreamThatSavesASectorIsTakenAndOneThatDoesNotIsNot) {
  for (const std::uint32_t type : {5u, 6u}) {
    Bytes saves = Noise(3, 8 * kSector);
    std::fill(saves.begin() + 6 * kSector + 100, saves.end(), std::uint8_t{0});
    const ParsedImage taken = WriteOne(Fields(type), saves);
    EXPECT_EQ(taken.chunks[0].body, ParsedChunk::Body::kStream) << type;
    EXPECT_EQ(taken.chunks[0].data, saves);

    Bytes doesNot = Noise(3, 8 * kSector);
    std::fill(doesNot.begin() + 7 * kSector + 400, doesNot.end(), std::uint8_t{0});
    const ParsedImage raw = WriteOne(Fields(type), doesNot);
    EXPECT_EQ(raw.chunks[0].storedSectors, 9u) << type;
    EXPECT_EQ(raw.chunks[0].data, doesNot);
  }
}

// Every length of noise in front of zeros, a byte at a time across a sector's boundary: whatever is
// stored holds the format's count (the parser tests it), never saves nothing, and expands.
TEST_F(FlushChunk, TheCountOfStoredSectorsIsExactAtEverySectorsEdge) {
  for (const std::uint32_t type : {4u, 5u}) {
    std::uint32_t last = 2;
    for (std::size_t noise = 400; noise < 1100; ++noise) {
      Bytes data = Noise(noise, 4 * kSector);
      std::fill(data.begin() + std::ptrdiff_t(noise), data.end(), std::uint8_t{0});
      const ParsedImage image = WriteOne(Fields(type), data);
      ASSERT_EQ(image.chunks[0].data, data) << noise;
      const std::uint32_t stored = image.chunks[0].storedSectors;
      if (image.chunks[0].body == ParsedChunk::Body::kRaw) {
        ASSERT_EQ(stored, 5u);
      } else {
        ASSERT_LT(stored, 5u);
      }
      ASSERT_GE(stored + 1, last);
      last = stored;
    }
  }
}

TEST_F(FlushChunk, FewerThanFourBytesCannotBeCompressed) {
  for (const std::uint32_t type : kCompressing) {
    for (std::size_t bytes = 1; bytes < 4; ++bytes) {
      Writer writer(path_, Template(Fields(type)));
      testing::internal::CaptureStderr();
      ASSERT_EQ(writer.Write(0, Noise(1, bytes)).status, 0);
      testing::internal::GetCapturedStderr();
      auto* image = reinterpret_cast<kq::NewImageFile*>(writer.handle());
      const KQStatus status = kq::FlushChunk(image);
      EXPECT_EQ(status.status, -13) << type << " " << bytes;
      EXPECT_STREQ(status.file, "utimagefile");
      EXPECT_EQ(image->Chunk.ChunkFill, kSector + bytes);
      EXPECT_EQ(writer.File().size(), kSector);
      EXPECT_EQ(writer.Close().status, 0);
      EXPECT_FALSE(writer.FileExists());
    }
  }
}

TEST_F(FlushChunk, FourBytesAreStoredRaw) {
  for (const std::uint32_t type : kCompressing) {
    Writer writer(path_, Template(Fields(type)));
    testing::internal::CaptureStderr();
    ASSERT_EQ(writer.Write(0, Noise(1, 4)).status, 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(writer.Close().status, 0);
    const Bytes file = writer.File();
    EXPECT_EQ(Get32(file, 512), 2u);
    EXPECT_EQ(Get32(file, 516), 2u);
    EXPECT_EQ(Bytes(file.begin() + 1024, file.begin() + 1028), Noise(1, 4));
  }
}

TEST_F(FlushChunk, DataBehindARefusedFlushStillJoinsTheChunk) {
  Writer writer(path_, Template(Fields(5)));
  testing::internal::CaptureStderr();
  ASSERT_EQ(writer.Write(0, Noise(1, 2)).status, 0);
  testing::internal::GetCapturedStderr();
  auto* image = reinterpret_cast<kq::NewImageFile*>(writer.handle());
  ASSERT_EQ(kq::FlushChunk(image).status, -13);
  ASSERT_EQ(writer.Write(0x2000, Noise(2, 1022)).status, 0);
  EXPECT_EQ(writer.Close().status, 0);
  const Bytes file = writer.File();
  EXPECT_EQ(Get32(file, 516), 3u);
  EXPECT_EQ(Get64(file, 520 + 12), 0x2000u);  // the second run, full form
  EXPECT_EQ(Bytes(file.begin() + 1026, file.begin() + 2048), Noise(2, 1022));
}

TEST_F(FlushChunk, TheLastSectorsRestIsZeroAlsoAfterALongerChunk) {
  Writer writer(path_, Template(FieldsForChunksOf(10, 0)));
  const std::uint64_t header = writer.File().size();
  ASSERT_EQ(writer.Write(0, Noise(1, 10 * kSector)).status, 0);
  ASSERT_EQ(writer.Write(0x8000, Noise(2, kSector + 10)).status, 0);
  ASSERT_EQ(writer.Close().status, 0);
  const Bytes file = writer.File();
  const std::size_t tail = header + 11 * kSector + 2 * kSector + 10;
  for (std::size_t i = tail; i < tail + kSector - 10; ++i) ASSERT_EQ(file[i], 0) << i;
}

TEST_F(FlushChunk, AnEmptyChunkIsOnlyBegunAnew) {
  Writer writer(path_, Template(Fields(0)));
  auto* image = reinterpret_cast<kq::NewImageFile*>(writer.handle());
  EXPECT_EQ(kq::FlushChunk(image).status, 0);
  EXPECT_EQ(image->Chunk.ChunkFill, kSector);
  EXPECT_EQ(image->ChunkCount, 0u);
  EXPECT_EQ(Get32({image->Chunk.ChunkBuffer.data(), 8}, 0), 1u);
  EXPECT_EQ(Get32({image->Chunk.ChunkBuffer.data(), 8}, 4), 1u);
  EXPECT_EQ(writer.Close().status, 0);
}

TEST_F(FlushChunk, OnlyTheBodyIsEnciphered) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    const Bytes data = Noise(1, 5 * kSector);
    const ParsedImage image = WriteOne(Fields(0, type), data, 0x123400);
    ASSERT_EQ(image.chunks.size(), 1u);
    EXPECT_EQ(image.chunks[0].runs, (std::vector<VolumeRun>{{0x123400, 5}}));
    EXPECT_EQ(image.chunks[0].data, data) << type;
    EXPECT_NE(image.chunks[0].storedBody, data);
  }
}

TEST_F(FlushChunk, AnEncipheredAllZeroChunkLiesInClear) {
  const ParsedImage image = WriteOne(Fields(6, 4), Bytes(5 * kSector), 0x8000);
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].storedSectors, 1u);
}

TEST_F(FlushChunk, EqualChunksLookEqualUnderRc4AndNotUnderAes) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    HeaderFields fields = Fields(0, type);
    fields.laterSectors.clear();
    Writer writer(path_, Template(fields), {.password = kPassword});
    auto* image = reinterpret_cast<kq::NewImageFile*>(writer.handle());
    for (const std::uint64_t offset : {0x10000u, 0x20000u}) {
      ASSERT_EQ(writer.Write(offset, Noise(1, 4 * kSector)).status, 0);
      ASSERT_EQ(kq::FlushChunk(image).status, 0);
    }
    ASSERT_EQ(writer.Close().status, 0);
    const ParsedImage parsed = ParseFile(writer.File(), kPassword);
    EXPECT_EQ(parsed.chunks[0].storedBody == parsed.chunks[1].storedBody, type == 3) << type;
    EXPECT_EQ(parsed.chunks[1].data, Noise(1, 4 * kSector));
  }
}

TEST_F(FlushChunk, ABodyThatTheCipherCannotTakeIsAnEncryptionFailure) {
  HeaderFields fields = Fields(0, 2);
  fields.sectorSize = 250;
  Writer writer(path_, Template(fields), {.password = kPassword});
  ASSERT_EQ(writer.status().status, 0);
  ASSERT_EQ(writer.Write(0, Noise(1, 250)).status, 0);
  auto* image = reinterpret_cast<kq::NewImageFile*>(writer.handle());
  const KQStatus status = kq::FlushChunk(image);
  EXPECT_EQ(status.status, -6000);
  EXPECT_STREQ(status.file, "utimagefile");
  EXPECT_EQ(writer.File().size(), 250u);
  EXPECT_EQ(writer.Close().status, 0);  // no chunk was written
}

TEST_F(FlushChunk, AFailedWriteIsReturnedAndLeavesTheChunk) {
  Writer writer(path_, Template(FieldsForChunksOf(10, 0)));
  const std::uint64_t header = writer.File().size();
  {
    const FileSizeLimit limit(header);
    const KQStatus status = writer.Write(0, Noise(1, 10 * kSector));
    EXPECT_EQ(status.status, -31);  // EFBIG
    EXPECT_EQ(status.detail1, 27u);
    EXPECT_EQ(status.detail2, 2u);
    EXPECT_STREQ(status.file, "kqos_linux");
    // The chunk is still full, so that a further write fails in the same way.
    EXPECT_EQ(writer.Write(0x8000, Noise(2, kSector)).status, -31);
  }
  EXPECT_EQ(writer.Close().status, 0);
  const ParsedImage image = ParseFile(writer.File());
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].data, Noise(1, 10 * kSector));
}

TEST_F(FlushChunk, AChunkGoesToTheEndOfTheFileAsItIsThen) {
  Writer writer(path_, Template(Fields(0)));
  Bytes longer = writer.File();
  longer.resize(longer.size() + 777);
  WriteFile(path_, longer);
  ASSERT_EQ(writer.Write(0x1000, Noise(1, kSector)).status, 0);
  ASSERT_EQ(writer.Close().status, 0);
  const Bytes file = writer.File();
  const std::ptrdiff_t data = kSector + 777 + kSector;
  EXPECT_EQ(Bytes(file.begin() + data, file.begin() + data + kSector), Noise(1, kSector));
}

// The index begins as one sector and gets one more when 18 bytes or fewer are left for the next
// entry, so it may be one sector longer than its list needs. Each count of chunks around the edges.
TEST_F(FlushChunk, TheIndexGrowsByOneSectorAtATime) {
  HeaderFields fields;
  fields.sectorSize = 256;
  bool sawSpareSector = false;
  for (std::size_t chunks = 1; chunks <= 140; ++chunks) {
    Writer writer(path_, Template(fields));
    auto* object = reinterpret_cast<kq::NewImageFile*>(writer.handle());
    for (std::size_t i = 0; i < chunks; ++i) {
      // Steps up and down of several widths make entries of several lengths.
      const std::uint64_t offset = (i % 3 == 0 ? 0x5000000000 : 0x100) * (i + 1);
      ASSERT_EQ(writer.Write(offset, Noise(i, 256 * (1 + i % 2))).status, 0);
      ASSERT_EQ(kq::FlushChunk(object).status, 0);
    }
    ASSERT_EQ(writer.Close().status, 0);
    const ParsedImage image = ParseFile(writer.File());
    ASSERT_EQ(image.chunks.size(), chunks);

    std::size_t room = 256 - 16;
    std::size_t sectors = 1;
    std::size_t place = 0;
    for (std::size_t i = 0; i < chunks; ++i) {
      const std::uint8_t head = image.indexPayload[place];
      const std::size_t entry = i == 0 ? 12 : 1u + (head >> 3 & 15) + (head & 7);
      if (room <= 18) {
        room += 256;
        ++sectors;
      }
      room -= entry;
      place += entry;
    }
    ASSERT_EQ(image.indexSectors, sectors) << chunks;
    if (sectors * 256 - 16 >= image.indexPayload.size() + 256) sawSpareSector = true;
  }
  EXPECT_TRUE(sawSpareSector);
}

TEST_F(FlushChunk, ALongIndexKeepsEveryEntry) {
  HeaderFields fields;
  fields.sectorSize = 256;
  Writer writer(path_, Template(fields));
  auto* object = reinterpret_cast<kq::NewImageFile*>(writer.handle());
  const Bytes sector = Noise(1, 256);
  constexpr std::size_t kChunks = 5000;
  for (std::size_t i = 0; i < kChunks; ++i) {
    ASSERT_EQ(writer.Write((i * 7919) % 0x10000000 * 256, sector).status, 0);
    ASSERT_EQ(kq::FlushChunk(object).status, 0);
  }
  ASSERT_EQ(writer.Close().status, 0);
  const ParsedImage image = ParseFile(writer.File());
  ASSERT_EQ(image.chunks.size(), kChunks);
  for (std::size_t i = 0; i < kChunks; ++i) {
    ASSERT_EQ(image.chunks[i].indexVolumeOffset, (i * 7919) % 0x10000000 * 256);
  }
}

// The same data gives the same chunks: no codec sees what an allocation happened to hold.
TEST_F(FlushChunk, TheFirstChunksOfTwoImagesAreEqual) {
  for (const std::uint32_t type : kCompressing) {
    const Bytes data = Text(9, 300 * kSector);
    const ParsedImage first = WriteOne(Fields(type), data);
    const ParsedImage second = WriteOne(Fields(type), data);
    EXPECT_EQ(first.chunks[0].stream, second.chunks[0].stream) << type;
  }
}

}  // namespace
}  // namespace kqtest
