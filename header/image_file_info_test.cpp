#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::Get16;
using kqtest::Get32;
using kqtest::Get64;
using kqtest::ImageLayout;
using kqtest::ImageSpec;
using kqtest::PatternBytes;

// What a client's memory holds after the call: 296 bytes that were all 0xEE, and a few behind them.
struct Answer {
  KQStatus status{};
  Bytes bytes;
};

class ImageFileInfoTest : public testing::Test {
 protected:
  Answer Ask(const Bytes& file) {
    kqtest::WriteFile(path_, file);
    return Ask(path_.c_str());
  }
  static Answer Ask(const char* path) {
    Answer answer;
    Bytes memory(296 + 16, 0xEE);
    answer.status = KQImageFileGetInfo(path, reinterpret_cast<ImageFileInfo*>(memory.data()));
    EXPECT_EQ(Bytes(memory.begin() + 296, memory.end()), Bytes(16, 0xEE));
    answer.bytes.assign(memory.begin(), memory.begin() + 296);
    return answer;
  }
  void ExpectFailure(const Bytes& file, std::int32_t status) {
    const Answer answer = Ask(file);
    EXPECT_EQ(answer.status.status, status);
    EXPECT_EQ(answer.bytes, Bytes(296));
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twi");
};

ImageSpec SmallImage() {
  ImageSpec spec;
  spec.chunks = {kqtest::RawChunk({{0x10000, 2}}, PatternBytes(4, 1024))};
  return spec;
}

Bytes IdBytes(const kqtest::Id& id) { return {id.begin(), id.end()}; }
Bytes Part(const Bytes& bytes, std::size_t offset, std::size_t length) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(offset),
          bytes.begin() + static_cast<std::ptrdiff_t>(offset + length)};
}

TEST_F(ImageFileInfoTest, FillsEveryFieldAtItsPlace) {
  ImageSpec spec = SmallImage();
  kqtest::HeaderFields& header = spec.header;
  header.sourceSize = 0x1122334455667788;
  header.creationTime = 0x99AABBCCDDEEFF01;
  header.timeZoneBias = -345;
  header.daylightBias = -60;
  header.imageId = kqtest::MakeId(0xAAAA);
  header.parentImageId = kqtest::MakeId(0xBBBB);
  header.imageSetId = kqtest::MakeId(0xCCCC);
  header.partIndex = 0x01020304;
  header.compressionType = 6;
  header.comment = u"H\u00e4 \u20ac";
  spec.index.lastPart = 0x0A0B0C0D;
  spec.flagsField = 0xC3000005;
  header.partMarker = 0x100;

  const Answer answer = Ask(kqtest::BuildImage(spec));
  ASSERT_EQ(answer.status.status, 0);
  const Bytes& info = answer.bytes;
  EXPECT_EQ(Get32(info, 0), 512u);
  EXPECT_EQ(Get64(info, 4), 0x1122334455667788u);
  EXPECT_EQ(Get64(info, 12), 0x99AABBCCDDEEFF01u);
  EXPECT_EQ(static_cast<std::int32_t>(Get32(info, 20)), -345);
  EXPECT_EQ(static_cast<std::int32_t>(Get32(info, 24)), -60);
  EXPECT_EQ(Part(info, 28, 16), IdBytes(header.imageId));
  EXPECT_EQ(Part(info, 44, 16), IdBytes(header.parentImageId));
  EXPECT_EQ(Part(info, 60, 16), IdBytes(header.imageSetId));
  EXPECT_EQ(Get32(info, 76), 0x01020304u);
  EXPECT_EQ(Get32(info, 80), 0x0A0B0C0Du);
  EXPECT_EQ(Get32(info, 84), 6u);
  EXPECT_EQ(Get32(info, 88), 0u);
  EXPECT_EQ(info[92], 0xC3);
  EXPECT_EQ(info[93], 1);
  EXPECT_EQ(info[94], 1);
  EXPECT_EQ(info[95], 1);
  Bytes comment(200);
  for (std::size_t i = 0; i < header.comment.size(); ++i) {
    kqtest::Set16(&comment, 2 * i, header.comment[i]);
  }
  EXPECT_EQ(Part(info, 96, 200), comment);
}

TEST_F(ImageFileInfoTest, FlagsAreToldApart) {
  const std::pair<std::uint32_t, Bytes> cases[] = {
      {0x00000000, {0, 0, 0}}, {0x00000001, {0, 1, 0}},    {0x00000002, {0, 0, 0}},
      {0x00000004, {0, 0, 1}}, {0x80000000, {0x80, 0, 0}}, {0x01000000, {1, 0, 0}},
      {0x00FFFFFA, {0, 0, 0}}, {0xFFFFFFFF, {0xFF, 1, 1}}};
  for (const auto& [flags, expected] : cases) {
    ImageSpec spec = SmallImage();
    spec.flagsField = flags;
    const Answer answer = Ask(kqtest::BuildImage(spec));
    EXPECT_EQ(answer.status.status, 0);
    EXPECT_EQ(Part(answer.bytes, 92, 3), expected) << flags;
    EXPECT_EQ(answer.bytes[95], 0);
  }
}

TEST_F(ImageFileInfoTest, FieldsAtTheirExtremesAreReturnedAsTheyStand) {
  for (const std::uint64_t value : {std::uint64_t{0}, ~std::uint64_t{0}}) {
    Bytes file = kqtest::BuildImage(SmallImage());
    kqtest::SetLe(&file, 12, value, 8);  // SourceSize
    kqtest::SetLe(&file, 24, value, 8);  // CreationTime
    kqtest::SetLe(&file, 32, value, 8);  // both biases
    kqtest::SetLe(&file, 72, value, 8);  // ImageSetId
    kqtest::SetLe(&file, 80, value, 8);
    kqtest::SetLe(&file, 88, value, 8);  // both generations
    kqtest::SetLe(&file, 96, value, 8);  // PartMarker, PartIndex
    const Answer answer = Ask(file);
    ASSERT_EQ(answer.status.status, 0);
    EXPECT_EQ(Get64(answer.bytes, 4), value);
    EXPECT_EQ(Get64(answer.bytes, 12), value);
    EXPECT_EQ(Get64(answer.bytes, 20), value);
    EXPECT_EQ(Part(answer.bytes, 60, 16), Bytes(16, static_cast<std::uint8_t>(value)));
    EXPECT_EQ(Get32(answer.bytes, 76), static_cast<std::uint32_t>(value));
    EXPECT_EQ(answer.bytes[95], value == 0 ? 0 : 1);
  }
}

TEST_F(ImageFileInfoTest, CommentIsCutAt99Units) {
  for (const std::size_t length : {0u, 1u, 98u, 99u, 100u, 150u}) {
    SCOPED_TRACE(length);
    ImageSpec spec = SmallImage();
    spec.header.comment.assign(length, u'\u0102');
    const Answer answer = Ask(kqtest::BuildImage(spec));
    ASSERT_EQ(answer.status.status, 0);
    for (std::size_t i = 0; i < 100; ++i) {
      EXPECT_EQ(Get16(answer.bytes, 96 + 2 * i), i < std::min<std::size_t>(length, 99) ? 0x102 : 0);
    }
  }
}

// A comment without a NUL ends where its sector does, with a key blob of odd length one byte
// before.
TEST_F(ImageFileInfoTest, CommentEndsWithItsSector) {
  struct Case {
    std::uint32_t sectorSize;
    std::uint16_t keyBlobLength;
    std::size_t units;
  };
  const Case cases[] = {{256, 0, 71},    {256, 1, 70},   {256, 141, 0},    {256, 140, 1},
                        {256, 142, 0},   {256, 143, 0},  {256, 0xFFFF, 0}, {512, 300, 49},
                        {512, 200, 99},  {512, 201, 98}, {512, 397, 0},    {4096, 0, 99},
                        {4096, 3900, 41}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.keyBlobLength);
    ImageSpec spec;
    spec.header.sectorSize = one.sectorSize;
    spec.chunks = {kqtest::RawChunk({{0, 2}}, PatternBytes(1, std::size_t{2} * one.sectorSize))};
    Bytes file = kqtest::BuildImage(spec);
    std::fill(file.begin() + 114, file.begin() + one.sectorSize, std::uint8_t{0x31});
    // What stands behind the sector would count as text if the end were missed.
    kqtest::Set16(&file, 112, one.keyBlobLength);
    const Answer answer = Ask(file);
    ASSERT_EQ(answer.status.status, 0);
    for (std::size_t i = 0; i < 100; ++i) {
      EXPECT_EQ(Get16(answer.bytes, 96 + 2 * i), i < one.units ? 0x3131 : 0) << i;
    }
  }
}

TEST_F(ImageFileInfoTest, CommentStandsBehindTheKeyBlob) {
  ImageSpec spec = SmallImage();
  kqtest::EncipherImage(&spec, 2, "secret");
  spec.header.comment = u"text";
  const Answer answer = Ask(kqtest::BuildImage(spec));
  ASSERT_EQ(answer.status.status, 0);
  EXPECT_EQ(Get32(answer.bytes, 88), 2u);
  EXPECT_EQ(Get64(answer.bytes, 96), 0x0074007800650074u);
  EXPECT_EQ(Get64(answer.bytes, 104), 0u);
}

TEST_F(ImageFileInfoTest, EncipheredImageNeedsNoPassword) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    ImageSpec spec = SmallImage();
    spec.header.laterSectors = PatternBytes(2, 1024);
    kqtest::EncipherImage(&spec, type, "secret");
    const Answer answer = Ask(kqtest::BuildImage(spec));
    EXPECT_EQ(answer.status.status, 0);
    EXPECT_EQ(Get32(answer.bytes, 88), type);
  }
}

TEST_F(ImageFileInfoTest, NullArgumentsAreInvalid) {
  const Answer noPath = Ask(static_cast<const char*>(nullptr));
  EXPECT_EQ(noPath.status.status, -87);
  EXPECT_STREQ(noPath.status.file, "kqimageapi");
  EXPECT_EQ(noPath.status.detail1, 0u);
  EXPECT_EQ(noPath.bytes, Bytes(296));
  EXPECT_EQ(KQImageFileGetInfo(path_.c_str(), nullptr).status, -87);
}

TEST_F(ImageFileInfoTest, UnfinishedImageIsCorruptAndLeavesZero) {
  ImageSpec spec = SmallImage();
  spec.header.magic = "OPEN";
  ExpectFailure(kqtest::BuildImage(spec), -1392);
}

TEST_F(ImageFileInfoTest, MissingFileIsNotFound) {
  const Answer answer = Ask(path_.c_str());
  EXPECT_EQ(answer.status.status, -2);
  EXPECT_EQ(answer.status.detail1, static_cast<std::uint32_t>(ENOENT));
  EXPECT_EQ(answer.status.detail2, 2u);
  EXPECT_STREQ(answer.status.file, "kqos_linux");
  EXPECT_EQ(answer.bytes, Bytes(296));
}

TEST_F(ImageFileInfoTest, DamagedTailIsCorruptAndLeavesZero) {
  ImageSpec spec = SmallImage();
  spec.index.pointer = 511;
  ExpectFailure(kqtest::BuildImage(spec), -1392);
  spec = SmallImage();
  spec.index.pointerTail = {0, 0, 0, 1};
  ExpectFailure(kqtest::BuildImage(spec), -1392);
}

TEST_F(ImageFileInfoTest, IndexHeadIsNotChecked) {
  ImageSpec spec = SmallImage();
  spec.index.zero = 0xFFFFFFFFFFFFFFFF;
  spec.index.indexLength = 0xFFFFFFFF;
  spec.index.lastPart = 0;
  const Answer answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, 0);
  EXPECT_EQ(Get32(answer.bytes, 80), 0u);
}

TEST_F(ImageFileInfoTest, CutFileIsRefused) {
  ImageLayout layout;
  ImageSpec spec = SmallImage();
  spec.header.laterSectors = PatternBytes(9, 1024);
  const Bytes file = kqtest::BuildImage(spec, &layout);
  ASSERT_EQ(layout.indexOffset, 0xC00u);
  ASSERT_EQ(file.size(), 0x1000u);
  kqtest::WriteFile(path_, file);
  for (std::size_t length = file.size() - 1; length + 1 > 0; --length) {
    SCOPED_TRACE(length);
    ASSERT_EQ(truncate(path_.c_str(), static_cast<off_t>(length)), 0);
    const Answer answer = Ask(path_.c_str());
    const std::size_t missing = file.size() - length;
    if (missing == 1) {
      // The pointer's zero low byte moves one place up: an index far behind the file's end, which
      // the direct read does not notice.
      ASSERT_EQ(answer.status.status, 0);
      ASSERT_EQ(Get32(answer.bytes, 80), 0u);
    } else if (missing <= 6) {
      // Pointers further out, which the file system may take or refuse.
      ASSERT_EQ(answer.status.status == 0, answer.bytes != Bytes(296));
    } else {
      ASSERT_EQ(answer.status.status, length < 114 ? -31 : -1392);
      ASSERT_STREQ(answer.status.file, length < 114 ? "kqos" : "kqimageapi");
      ASSERT_EQ(answer.bytes, Bytes(296));
    }
  }
}

TEST_F(ImageFileInfoTest, SectorSizeAndHeaderSectorsAtTheirExtremes) {
  struct Case {
    std::uint32_t sectorSize;
    std::uint32_t headerSectors;
    std::int32_t status;
  };
  const Case cases[] = {{0, 1, -1392},
                        {512, 0, -1392},
                        {0x40000000, 1, -1392},  // read in one piece, found too large then
                        {0x40000001, 1, -31},    // not a whole number of blocks: fails in the read
                        {512, 0xFFFFFFFF, -1392},
                        {512, 7, -1392},
                        {512, 5, 0}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.sectorSize);
    SCOPED_TRACE(one.headerSectors);
    Bytes file = kqtest::BuildImage(SmallImage());
    ASSERT_EQ(file.size(), 6 * 512u);
    // An index place behind all of these headers.
    kqtest::Set64(&file, 2560, 2560);
    kqtest::Set32(&file, 4, one.sectorSize);
    kqtest::Set32(&file, 8, one.headerSectors);
    const Answer answer = Ask(file);
    EXPECT_EQ(answer.status.status, one.status);
    EXPECT_EQ(answer.bytes == Bytes(296), one.status != 0);
  }
}

TEST_F(ImageFileInfoTest, SectorsSmallerThanTheFixedHeadAreAnsweredFromIt) {
  ImageSpec spec = SmallImage();
  Bytes file = kqtest::BuildImage(spec);
  file.resize(256);
  // Sectors of 8 bytes: the last one holds the pointer alone.
  kqtest::Set32(&file, 4, 8);
  kqtest::Set64(&file, 248, 16);
  const Answer answer = Ask(file);
  ASSERT_EQ(answer.status.status, 0);
  EXPECT_EQ(Get32(answer.bytes, 0), 8u);
  EXPECT_EQ(Part(answer.bytes, 28, 16), IdBytes(spec.header.imageId));
  EXPECT_EQ(Get32(answer.bytes, 80), 0u);
  EXPECT_EQ(Part(answer.bytes, 96, 200), Bytes(200));
}

}  // namespace
}  // namespace kq
