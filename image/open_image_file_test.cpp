// How open files are shared, and the checks that no file reaches through the exported open.
#include "image/open_image_file.h"

#include <unistd.h>

#include <cstring>

#include "image/allocation_calls_test.h"
#include "image/chain_test_support.h"

namespace kq {
namespace {

class OpenImageFileTest : public ::testing::Test {
 protected:
  ImageFolder folder_;
  ImageSpec spec_;

  void SetUp() override { spec_.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 4 * 512))}; }
  void TearDown() override { EXPECT_EQ(OpenFileCount(), 0u) << "a file stayed open"; }

  std::int32_t OpenStatus(const std::string& path) {
    OpenImageFile* file = nullptr;
    const KQStatus status = OpenImageFileOpen(path.c_str(), nullptr, &file);
    EXPECT_EQ(status.status == 0, file != nullptr);
    OpenImageFileRelease(file);
    return status.status;
  }
};

TEST_F(OpenImageFileTest, SamePathGivesTheSameObject) {
  const std::string path = folder_.Write("a", spec_);
  OpenImageFile* first = nullptr;
  OpenImageFile* second = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &first).status, 0);
  // Not even a look at the file.
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &second).status, 0);
  EXPECT_EQ(first, second);
  OpenImageFileRelease(first);
  EXPECT_EQ(OpenFileCount(), 1u);
  OpenImageFileRelease(second);
  EXPECT_EQ(OpenFileCount(), 0u);
}

TEST_F(OpenImageFileTest, SameImageUnderAnotherPathGivesTheSameObject) {
  const std::string path = folder_.Write("a", spec_);
  const std::string copy = folder_.Write("b", spec_);
  OpenImageFile* first = nullptr;
  OpenImageFile* second = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &first).status, 0);
  ASSERT_EQ(OpenImageFileOpen(copy.c_str(), nullptr, &second).status, 0);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first->Path, path.c_str());
  OpenImageFileRelease(first);
  OpenImageFileRelease(second);
}

TEST_F(OpenImageFileTest, EachFieldOfTheIdentityCounts) {
  const std::string path = folder_.Write("a", spec_);
  OpenImageFile* first = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &first).status, 0);
  std::vector<ImageSpec> others(5, spec_);
  others[0].header.imageId = kqtest::MakeId(50);
  others[1].header.parentImageId = kqtest::MakeId(51);
  others[2].header.imageSetId = kqtest::MakeId(52);
  others[3].header.partIndex = 1;
  others[4].index.lastPart = 1;
  for (const ImageSpec& other : others) {
    OpenImageFile* second = nullptr;
    ASSERT_EQ(OpenImageFileOpen(folder_.Write("b", other).c_str(), nullptr, &second).status, 0);
    EXPECT_NE(first, second);
    OpenImageFileRelease(second);
  }
  OpenImageFileRelease(first);
}

// A file that is replaced while another thread opens it is open twice under one path.
TEST_F(OpenImageFileTest, OfTwoFilesOfOnePathTheOneOpenedLastIsFound) {
  const std::string path = folder_.Write("a", spec_);
  OpenImageFile* former = nullptr;
  OpenImageFile* latter = nullptr;
  {
    const kqtest::BeforeNextAllocation replace([&] {
      ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &former).status, 0);
      ASSERT_EQ(unlink(path.c_str()), 0);
      spec_.header.imageId = kqtest::MakeId(50);
      folder_.Write("a", spec_);
    });
    ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &latter).status, 0);
  }
  ASSERT_NE(former, nullptr);
  ASSERT_NE(former, latter);
  ASSERT_STREQ(former->Path, latter->Path);
  OpenImageFile* found = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &found).status, 0);
  EXPECT_EQ(found, latter);
  OpenImageFileRelease(found);
  OpenImageFileRelease(latter);
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &found).status, 0);
  EXPECT_EQ(found, former);
  OpenImageFileRelease(found);
  OpenImageFileRelease(former);
}

// Nothing that was open is found by its path or identity once it is closed.
TEST_F(OpenImageFileTest, AClosedFileIsReadAnew) {
  const std::string path = folder_.Write("a", spec_);
  OpenImageFile* file = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &file).status, 0);
  OpenImageFileRelease(file);
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_EQ(OpenStatus(path), -2);
  spec_.header.generation = 9;
  ASSERT_EQ(OpenImageFileOpen(folder_.Write("b", spec_).c_str(), nullptr, &file).status, 0);
  EXPECT_EQ(file->Generation, 9u);
  OpenImageFileRelease(file);
}

// Paths are compared up to their 4095th character.
TEST_F(OpenImageFileTest, LongPathsThatDifferBehindTheLongestAreOne) {
  const std::string name = folder_.Write("a", spec_);
  std::string path = name.substr(0, name.size() - 1);
  path.append(kLongestPath - 1 - path.size(), '/');
  path += "a";
  OpenImageFile* file = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), nullptr, &file).status, 0);
  for (const char* tail : {"", "b", "/further"}) {
    OpenImageFile* found = nullptr;
    EXPECT_EQ(OpenImageFileOpen((path + tail).c_str(), nullptr, &found).status, 0) << tail;
    EXPECT_EQ(found, file) << tail;
    OpenImageFileRelease(found);
  }
  EXPECT_NE(OpenStatus(path.substr(0, kLongestPath - 1)), 0);
  OpenImageFileRelease(file);
}

// Three parts of each of a hundred images, each in two copies.
TEST_F(OpenImageFileTest, HundredsOfFilesAreToldApartByPathAndIdentity) {
  constexpr std::uint32_t kFiles = 300;
  std::vector<OpenImageFile*> files(kFiles);
  const auto path = [&](char folder, std::uint32_t i) { return folder + std::to_string(i); };
  for (std::uint32_t i = 0; i < kFiles; ++i) {
    spec_.header.imageId = kqtest::MakeId(1 + i / 3);
    spec_.header.partIndex = i % 3;
    spec_.index.lastPart = i % 3 == 2 ? 2 : 0;
    folder_.Write(path('b', i), spec_);
    ASSERT_EQ(
        OpenImageFileOpen(folder_.Write(path('a', i), spec_).c_str(), nullptr, &files[i]).status,
        0);
  }
  EXPECT_EQ(OpenFileCount(), kFiles);
  for (const bool afterHalf : {false, true}) {
    for (std::uint32_t i = afterHalf ? 1 : 0; i < kFiles; i += afterHalf ? 2 : 1) {
      for (const char folder : {'a', 'b'}) {
        OpenImageFile* found = nullptr;
        ASSERT_EQ(OpenImageFileOpen(folder_.Path(path(folder, i)).c_str(), nullptr, &found).status,
                  0);
        EXPECT_EQ(found, files[i]) << folder << i;
        OpenImageFileRelease(found);
      }
    }
    if (!afterHalf) {
      for (std::uint32_t i = 0; i < kFiles; i += 2) OpenImageFileRelease(files[i]);
      EXPECT_EQ(OpenFileCount(), kFiles / 2);
    }
  }
  for (std::uint32_t i = 1; i < kFiles; i += 2) OpenImageFileRelease(files[i]);
}

TEST_F(OpenImageFileTest, ReleaseOfNullOrAStrangerSucceeds) {
  EXPECT_EQ(OpenImageFileRelease(nullptr).status, 0);
  OpenImageFile stranger;
  EXPECT_EQ(OpenImageFileRelease(&stranger).status, 0);
}

TEST_F(OpenImageFileTest, NullPathIsInvalidParameter) {
  OpenImageFile* file = nullptr;
  EXPECT_EQ(OpenImageFileOpen(nullptr, nullptr, &file).status, -87);
}

TEST_F(OpenImageFileTest, TakesTheHeadersFieldsAndTheIndex) {
  spec_.header.sectorSize = 1024;
  spec_.header.laterSectors = Bytes(1024);
  spec_.header.sourceSize = 0x123456789A;
  spec_.header.generation = 4;
  spec_.header.nextGeneration = 9;
  spec_.header.partIndex = 3;
  spec_.header.parentImageId = kqtest::MakeId(40);
  spec_.index.lastPart = 17;
  spec_.chunks = {RawChunk({{0x3000, 2}}, PatternBytes(1, 2048)),
                  RawChunk({{0x9000, 1}}, PatternBytes(2, 1024))};
  ImageLayout layout;
  const std::string path = folder_.Write("a", spec_, &layout);
  OpenImageFile* file = nullptr;
  ASSERT_EQ(OpenImageFileOpen(path.c_str(), "word", &file).status, 0);
  EXPECT_EQ(file->SectorSize, 1024u);
  EXPECT_EQ(file->WorkSectorSize, 1024u);
  EXPECT_EQ(file->HeaderSectors, 2u);
  EXPECT_EQ(file->SourceSize, 0x123456789Au);
  EXPECT_EQ(file->Generation, 4u);
  EXPECT_EQ(file->NextGeneration, 9u);
  EXPECT_EQ(file->PartIndex, 3u);
  EXPECT_EQ(file->LastPart, 17u);
  EXPECT_EQ(std::memcmp(file->ImageId, spec_.header.imageId.data(), 16), 0);
  EXPECT_EQ(std::memcmp(file->ParentImageId, spec_.header.parentImageId.data(), 16), 0);
  EXPECT_EQ(std::memcmp(file->ImageSetId, spec_.header.imageSetId.data(), 16), 0);
  EXPECT_EQ(file->IndexOffset, layout.indexOffset);
  EXPECT_EQ(file->FileSize, layout.pointerOffset + 1024);
  EXPECT_STREQ(file->Password.text(), "word");
  ASSERT_EQ(file->ChunkCount, 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(file->IndexEntries[i].VolumeOffset, spec_.chunks[i].runs[0].offset);
    EXPECT_EQ(file->IndexEntries[i].FileOffset, layout.chunkOffsets[i]);
  }
  OpenImageFileRelease(file);
}

// 256-byte sectors are worked on in units of 512.
TEST_F(OpenImageFileTest, WorkSectorIsNeverBelow512Bytes) {
  spec_.header.sectorSize = 256;
  spec_.layoutSectorSize = 512;
  OpenImageFile* file = nullptr;
  ASSERT_EQ(OpenImageFileOpen(folder_.Write("a", spec_).c_str(), nullptr, &file).status, 0);
  EXPECT_EQ(file->SectorSize, 256u);
  EXPECT_EQ(file->WorkSectorSize, 512u);
  EXPECT_EQ(file->HeaderBytes(), 512u);
  OpenImageFileRelease(file);
}

TEST_F(OpenImageFileTest, BadHeadersAreCorrupt) {
  EXPECT_EQ(OpenStatus(folder_.WriteBytes("a", {})), -1392);
  spec_.header.magic = "OPEN";
  EXPECT_EQ(OpenStatus(folder_.Write("a", spec_)), -1392);
  spec_.header.magic = "TWFI";
  spec_.headerSectorsField = 0;
  EXPECT_EQ(OpenStatus(folder_.Write("a", spec_)), -1392);
  spec_.headerSectorsField.reset();
  for (const std::uint32_t size : {0u, 128u, 768u, 8192u, 0x10000200u}) {
    spec_.sectorSizeField = size;
    EXPECT_EQ(OpenStatus(folder_.Write("a", spec_)), -1392) << size;
  }
}

// The chain's own look at the tail compares as signed numbers, behind the key and the compression.
TEST_F(OpenImageFileTest, FileTooSmallForHeaderAndTailIsCorrupt) {
  const Bytes header = kqtest::BuildHeader(spec_);
  EXPECT_EQ(OpenStatus(folder_.WriteBytes("a", Slice(header, 0, 200))), -1392);
  EXPECT_EQ(OpenStatus(folder_.WriteBytes("a", header)), -1392);
  spec_.header.compressionType = 3;
  EXPECT_EQ(OpenStatus(folder_.WriteBytes("a", kqtest::BuildHeader(spec_))), -1630);
}

TEST_F(OpenImageFileTest, IndexOffsetIsComparedAsASignedNumber) {
  for (const std::uint64_t pointer :
       {std::uint64_t{0}, std::uint64_t{511}, std::uint64_t{0x8000000000000000}, UINT64_MAX}) {
    spec_.index.pointer = pointer;
    EXPECT_EQ(OpenStatus(folder_.Write("a", spec_)), -1392) << pointer;
  }
}

}  // namespace
}  // namespace kq
