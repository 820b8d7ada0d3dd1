#include <gtest/gtest.h>

#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

constexpr std::uint32_t kSector = 512;

class NewImageClose : public testing::Test {
 protected:
  TempDir folder_;
  std::string path_ = folder_.Path("new.twf");
};

std::string Magic(const Writer& writer) {
  const Bytes file = writer.File();
  return {file.begin(), file.begin() + 4};
}

TEST_F(NewImageClose, WithoutAnyDataTheFileIsRemoved) {
  const std::uint64_t descriptors = OpenDescriptors();
  Writer writer(path_, Template(HeaderFields()));
  EXPECT_TRUE(writer.FileExists());
  EXPECT_EQ(writer.Close("comment").status, 0);
  EXPECT_FALSE(writer.FileExists());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(NewImageClose, AFileThatCannotBeRemovedLeavesTheObjectAlive) {
  Writer writer(path_, Template(HeaderFields()));
  std::filesystem::remove(path_);
  const KQStatus status = writer.Close();
  EXPECT_EQ(status.status, -2);
  EXPECT_EQ(status.detail1, 2u);
  EXPECT_EQ(status.detail2, 2u);
  EXPECT_STREQ(status.file, "kqos_linux");
  WriteFile(path_, Bytes(1));
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_FALSE(writer.FileExists());
}

TEST_F(NewImageClose, ClosesTheFile) {
  const std::uint64_t descriptors = OpenDescriptors();
  Writer writer(path_, Template(HeaderFields()));
  EXPECT_EQ(OpenDescriptors(), descriptors + 1);
  ASSERT_EQ(writer.Write(0, Noise(1, kSector)).status, 0);
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(NewImageClose, TheFileReadsOpenUntilTheClose) {
  Writer writer(path_, Template(HeaderFields()));
  ASSERT_EQ(writer.Write(0, Noise(1, 4 * 0x100000)).status, 0);
  EXPECT_EQ(Magic(writer), "OPEN");
  EXPECT_EQ(writer.Close().status, 0);
  EXPECT_EQ(Magic(writer), "TWFI");
}

// A chunk that cannot be flushed is missing, and that is all that shows.
TEST_F(NewImageClose, AFailedFlushOfTheLastChunkDoesNotShow) {
  HeaderFields fields;
  fields.compressionType = 5;
  fields.laterSectors = LaterSectorsForBuffer(kSector, 5 * kSector);
  Writer writer(path_, Template(fields));
  const Bytes data = Noise(1, 4 * kSector);
  testing::internal::CaptureStderr();
  ASSERT_EQ(writer.Write(0, data).status, 0);
  ASSERT_EQ(writer.Write(0x8000, Noise(2, 3)).status, 0);
  EXPECT_EQ(writer.Close("kept").status, 0);
  testing::internal::GetCapturedStderr();
  const ParsedImage image = ParseFile(writer.File());
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].data, data);
  EXPECT_EQ(image.header.comment, u"kept");
}

TEST_F(NewImageClose, AFailedFlushOfTheOnlyChunkRemovesTheFile) {
  Writer writer(path_, Template(HeaderFields()));
  ASSERT_EQ(writer.Write(0, Noise(1, 4 * kSector)).status, 0);
  {
    const FileSizeLimit limit(kSector);
    EXPECT_EQ(writer.Close().status, 0);
  }
  EXPECT_FALSE(writer.FileExists());
}

TEST_F(NewImageClose, AFailedWriteLeavesAnUnfinishedFileAndALiveObject) {
  // The chunk fits and fails then the index block, its pointer, ...
  for (const std::uint64_t sectorsWritten : {3u, 4u}) {
    Writer writer(path_, Template(HeaderFields()));
    ASSERT_EQ(writer.Write(0, Noise(1, kSector)).status, 0);
    {
      const FileSizeLimit limit(sectorsWritten * kSector);
      const KQStatus status = writer.Close("text");
      EXPECT_EQ(status.status, -31);
      EXPECT_EQ(status.detail1, 27u);
      EXPECT_STREQ(status.file, "kqos_linux");
    }
    EXPECT_EQ(Magic(writer), "OPEN");
    EXPECT_EQ(writer.Close("text").status, 0);
    EXPECT_EQ(Magic(writer), "TWFI");
  }
}

TEST_F(NewImageClose, TheIndexTakesOneSectorHoweverFewTheChunks) {
  for (const std::uint32_t sectorSize : {256u, 512u, 1024u, 2048u, 4096u}) {
    HeaderFields fields;
    fields.sectorSize = sectorSize;
    Writer writer(path_, Template(fields));
    ASSERT_EQ(writer.Write(0, Noise(1, sectorSize)).status, 0);
    ASSERT_EQ(writer.Close().status, 0);
    const Bytes file = writer.File();
    EXPECT_EQ(file.size(), 5 * sectorSize);
    const ParsedImage image = ParseFile(file);
    EXPECT_EQ(image.indexSectors, 1u);
    EXPECT_EQ(image.indexLength, 13u);
    // The first entry's length is the header's, which places the first chunk behind it.
    EXPECT_EQ(Get32(image.indexPayload, 8), sectorSize);
    EXPECT_EQ(image.lastPart, 0xFFFFFFFFu);
  }
}

TEST_F(NewImageClose, TheFurtherHeaderSectorsAreNotWrittenAgain) {
  HeaderFields fields;
  fields.laterSectors = PatternBytes(4, 2 * kSector);
  Writer writer(path_, Template(fields));
  ASSERT_EQ(writer.Write(0, Noise(1, kSector)).status, 0);
  Bytes file = writer.File();
  Bytes changed = file;
  std::fill(changed.begin() + kSector, changed.begin() + 3 * kSector, std::uint8_t{0x33});
  WriteFile(path_, changed);
  ASSERT_EQ(writer.Close().status, 0);
  file = writer.File();
  EXPECT_EQ(Bytes(file.begin() + kSector, file.begin() + 3 * kSector), Bytes(2 * kSector, 0x33));
}

}  // namespace
}  // namespace kqtest
