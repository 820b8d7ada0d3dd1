// Chunks that somebody else has encoded go to the file as the writer's own do.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "image/chunk_encode.h"
#include "image/new_image_file.h"
#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

constexpr std::uint32_t kSector = 512;
constexpr std::uint32_t kBufferBytes = 11 * kSector;  // a chunk of ten sectors
constexpr std::uint64_t kVolumeOffset = 0x40000;

class AppendChunk : public testing::Test {
 protected:
  static kq::NewImageFile* Image(const Writer& writer) {
    return reinterpret_cast<kq::NewImageFile*>(writer.handle());
  }

  static HeaderFields Fields(std::uint32_t compressionType) {
    HeaderFields fields;
    fields.compressionType = compressionType;
    fields.laterSectors = LaterSectorsForBuffer(kSector, kBufferBytes);
    return fields;
  }

  // A chunk apart from any image that holds data, encoded.
  static void Encode(std::uint32_t compressionType, const Bytes& data, std::uint64_t volumeOffset,
                     kq::NewChunk* chunk, kq::EncodedChunk* encoded) {
    ASSERT_EQ(kq::PrepareChunk(chunk, kSector, kBufferBytes).status, 0);
    ASSERT_EQ(kq::MakeCompressor(chunk, compressionType).status, 0);
    const auto fetch = [&](std::uint32_t position, std::uint8_t* target, std::uint32_t count) {
      std::memcpy(target, data.data() + position, count);
      return KQStatus{};
    };
    // The chunk that is full stays for the encoder.
    const auto flush = [] { return KQStatus{}; };
    ASSERT_EQ(
        kq::AppendPieces(chunk, fetch, flush, static_cast<std::uint32_t>(data.size()), volumeOffset)
            .status,
        0);
    ASSERT_EQ(kq::EncodeChunk(chunk, encoded).status, 0);
  }

  TempDir folder_;
  std::string path_ = folder_.Path("new.twf");
};

// All-zero, compressed and raw chunks, of each type: byte by byte the file that the writer makes of
// the same sectors, but for what tells one image from another.
TEST_F(AppendChunk, GivesTheChunksAndTheIndexThatTheWriterGives) {
  for (const std::uint32_t type : {0u, 3u, 4u, 5u, 6u}) {
    const std::vector<Bytes> datas = {Text(1, 10 * kSector), Bytes(10 * kSector),
                                      Noise(2, 10 * kSector), Text(3, 10 * kSector)};
    Writer appended(path_, Template(Fields(type)));
    Writer written(folder_.Path("written.twf"), Template(Fields(type)));
    ASSERT_EQ(appended.status().status, 0);
    std::uint64_t at = kVolumeOffset;
    for (const Bytes& data : datas) {
      kq::NewChunk chunk;
      kq::EncodedChunk encoded;
      Encode(type, data, at, &chunk, &encoded);
      ASSERT_EQ(kq::AppendChunk(Image(appended), encoded).status, 0);
      ASSERT_EQ(written.Write(at, data).status, 0);
      // Gaps of different widths make entries of different lengths.
      at = at * 3 + data.size();
    }
    ASSERT_EQ(appended.Close().status, 0);
    ASSERT_EQ(written.Close().status, 0);
    const ParsedImage image = ParseFile(appended.File());
    const ParsedImage expected = ParseFile(written.File());
    ASSERT_EQ(image.chunks.size(), datas.size()) << type;
    ASSERT_EQ(expected.chunks.size(), datas.size()) << type;
    for (std::size_t i = 0; i < datas.size(); ++i) {
      EXPECT_EQ(image.chunks[i].data, datas[i]) << type << ' ' << i;
      EXPECT_EQ(image.chunks[i].indexVolumeOffset, expected.chunks[i].indexVolumeOffset);
      EXPECT_EQ(image.chunks[i].fileOffset, expected.chunks[i].fileOffset);
      EXPECT_EQ(image.chunks[i].runList, expected.chunks[i].runList);
      EXPECT_EQ(image.chunks[i].storedBody, expected.chunks[i].storedBody);
    }
    const std::uint64_t headerBytes = image.chunks[0].fileOffset;
    const Bytes file = appended.File();
    const Bytes expectedFile = written.File();
    ASSERT_EQ(file.size(), expectedFile.size());
    EXPECT_EQ(std::memcmp(file.data() + headerBytes, expectedFile.data() + headerBytes,
                          file.size() - headerBytes),
              0)
        << type;
  }
}

TEST_F(AppendChunk, LeavesTheWritersOwnChunkAlone) {
  const Bytes own = Noise(1, 3 * kSector);
  const Bytes other = Noise(2, 10 * kSector);
  Writer writer(path_, Template(Fields(0)));
  ASSERT_EQ(writer.Write(0x2000, own).status, 0);
  kq::NewChunk chunk;
  kq::EncodedChunk encoded;
  Encode(0, other, 0x90000, &chunk, &encoded);
  ASSERT_EQ(kq::AppendChunk(Image(writer), encoded).status, 0);
  EXPECT_EQ(Image(writer)->Chunk.ChunkFill, 4 * kSector);
  ASSERT_EQ(writer.Write(0x2000 + own.size(), own).status, 0);
  ASSERT_EQ(writer.Close().status, 0);
  const ParsedImage image = ParseFile(writer.File());
  ASSERT_EQ(image.chunks.size(), 2u);
  EXPECT_EQ(image.chunks[0].indexVolumeOffset, 0x90000u);
  EXPECT_EQ(image.chunks[0].data, other);
  EXPECT_EQ(image.chunks[1].indexVolumeOffset, 0x2000u);
  Bytes twice = own;
  Append(&twice, own);
  EXPECT_EQ(image.chunks[1].data, twice);
}

// Where the file ends at the time, not where the last chunk was put.
TEST_F(AppendChunk, GoesToTheEndOfTheFileAsItIsThen) {
  Writer writer(path_, Template(Fields(0)));
  Bytes longer = writer.File();
  const std::size_t end = longer.size() + 777;
  longer.resize(end);
  WriteFile(path_, longer);
  kq::NewChunk chunk;
  kq::EncodedChunk encoded;
  Encode(0, Noise(1, 10 * kSector), 0, &chunk, &encoded);
  ASSERT_EQ(kq::AppendChunk(Image(writer), encoded).status, 0);
  const Bytes file = writer.File();
  ASSERT_EQ(file.size(), end + kBufferBytes);
  EXPECT_EQ(Bytes(file.end() - 10 * kSector, file.end()), Noise(1, 10 * kSector));
  ASSERT_EQ(writer.Close().status, 0);
}

TEST_F(AppendChunk, AFailedWriteIsMappedAndEntersNothing) {
  Writer writer(path_, Template(Fields(0)));
  const Bytes data = Noise(1, 10 * kSector);
  kq::NewChunk chunk;
  kq::EncodedChunk encoded;
  Encode(0, data, 0x2000, &chunk, &encoded);
  {
    const FileSizeLimit limit(writer.File().size());
    const KQStatus status = kq::AppendChunk(Image(writer), encoded);
    EXPECT_EQ(status.status, -31);  // EFBIG
    EXPECT_EQ(status.detail1, 27u);
    EXPECT_STREQ(status.file, "kqos_linux");
    EXPECT_EQ(Image(writer)->ChunkCount, 0u);
  }
  // The same chunk goes well once there is room.
  ASSERT_EQ(kq::AppendChunk(Image(writer), encoded).status, 0);
  EXPECT_EQ(Image(writer)->ChunkCount, 1u);
  ASSERT_EQ(writer.Close().status, 0);
  const ParsedImage image = ParseFile(writer.File());
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].data, data);
}

}  // namespace
}  // namespace kqtest
