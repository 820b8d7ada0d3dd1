#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

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

constexpr std::size_t kInfoBytes = 464;
constexpr std::size_t kRecordStart = 312;

struct Answer {
  KQStatus status{};
  Bytes bytes;
};

class ImageFileInfo2Test : public testing::Test {
 protected:
  Answer Ask(const Bytes& file) {
    kqtest::WriteFile(path_, file);
    return Ask(path_.c_str());
  }
  static Answer Ask(const char* path) {
    Answer answer;
    Bytes memory(kInfoBytes + 16, 0xEE);
    answer.status = KQImageFileGetInfo2(path, reinterpret_cast<ImageFileInfo2*>(memory.data()));
    EXPECT_EQ(Bytes(memory.begin() + kInfoBytes, memory.end()), Bytes(16, 0xEE));
    answer.bytes.assign(memory.begin(), memory.begin() + kInfoBytes);
    return answer;
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twi");
};

Bytes Part(const Bytes& bytes, std::size_t offset, std::size_t length) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(offset),
          bytes.begin() + static_cast<std::ptrdiff_t>(offset + length)};
}
Bytes IdBytes(const kqtest::Id& id) { return {id.begin(), id.end()}; }

// An image with a record in which every field is told from every other.
ImageSpec RichImage(std::uint32_t headerSectors) {
  ImageSpec spec;
  kqtest::HeaderFields& header = spec.header;
  header.comment = u"comment";
  header.generation = 0x11111111;
  header.nextGeneration = 0x22222222;
  header.flags = 0xA5000001;
  header.laterSectors = PatternBytes(8, std::size_t{headerSectors - 1} * 512);
  header.record.emplace();
  kqtest::RecordFields& record = *header.record;
  record.recordFlags = 0x33333128;
  record.fileUuid = kqtest::MakeId(0x101);
  record.snapshotSetId = kqtest::MakeId(0x102);
  record.secondUuid = kqtest::MakeId(0x103);
  record.carriedId = kqtest::MakeId(0x104);
  record.carriedValue1 = 0x4141414141414141;
  record.carriedValue2 = 0x4242424242424242;
  record.carriedValue3 = 0x43434343;
  record.carriedBytes1 = kqtest::MakeId(0x105);
  record.carriedValue4 = 0x4444444444444444;
  record.carriedValue5 = 0x45454545;
  record.carriedValue6 = 0x4646;
  record.reserved = 0x5A5A;
  record.carriedValue7 = 0x47;
  record.carriedBytes2 = kqtest::MakeId(0x106);
  record.carriedValue8 = 0x48484848;
  record.carriedValue9 = 0x4949494949494949;
  spec.chunks = {kqtest::RawChunk({{0x10000, 2}}, PatternBytes(4, 1024))};
  return spec;
}

void ExpectRecordOf(const ImageSpec& spec, const Bytes& info) {
  const kqtest::RecordFields& record = *spec.header.record;
  EXPECT_EQ(info[312], 1);
  EXPECT_EQ(info[315], record.carriedValue7);
  EXPECT_EQ(Get32(info, 316), record.recordFlags);
  EXPECT_EQ(Part(info, 320, 16), IdBytes(record.fileUuid));
  EXPECT_EQ(Part(info, 336, 16), IdBytes(record.snapshotSetId));
  EXPECT_EQ(Part(info, 352, 16), IdBytes(record.secondUuid));
  EXPECT_EQ(Part(info, 368, 16), IdBytes(record.carriedId));
  EXPECT_EQ(Get64(info, 384), record.carriedValue1);
  EXPECT_EQ(Get64(info, 392), record.carriedValue2);
  EXPECT_EQ(Get32(info, 400), record.carriedValue3);
  EXPECT_EQ(Part(info, 404, 16), IdBytes(record.carriedBytes1));
  EXPECT_EQ(Get64(info, 420), record.carriedValue4);
  EXPECT_EQ(Get32(info, 428), record.carriedValue5);
  EXPECT_EQ(Get16(info, 432), record.carriedValue6);
  EXPECT_EQ(Get16(info, 434), 0);
  EXPECT_EQ(Part(info, 436, 16), IdBytes(record.carriedBytes2));
  EXPECT_EQ(Get32(info, 452), record.carriedValue8);
  EXPECT_EQ(Get64(info, 456), record.carriedValue9);
}

TEST_F(ImageFileInfo2Test, FillsEveryFieldAtItsPlace) {
  for (const std::uint32_t headerSectors : {1u, 2u, 5u}) {
    SCOPED_TRACE(headerSectors);
    const ImageSpec spec = RichImage(headerSectors);
    const Answer answer = Ask(kqtest::BuildImage(spec));
    ASSERT_EQ(answer.status.status, 0);
    ImageFileInfo first;
    ASSERT_EQ(KQImageFileGetInfo(path_.c_str(), &first).status, 0);
    EXPECT_EQ(std::memcmp(answer.bytes.data(), &first, sizeof first), 0);
    EXPECT_EQ(Get32(answer.bytes, 296), headerSectors);
    EXPECT_EQ(Get32(answer.bytes, 300), 0xA5000003u);
    EXPECT_EQ(Get32(answer.bytes, 304), 0x11111111u);
    EXPECT_EQ(Get32(answer.bytes, 308), 0x22222222u);
    ExpectRecordOf(spec, answer.bytes);
    EXPECT_EQ(answer.bytes[313], 1);
    EXPECT_EQ(answer.bytes[314], 1);
  }
}

TEST_F(ImageFileInfo2Test, WithoutTheFlagNoRecordIsLookedFor) {
  ImageSpec spec = RichImage(2);
  spec.flagsField = 0xFFFFFFFD;
  const Answer answer = Ask(kqtest::BuildImage(spec));
  ASSERT_EQ(answer.status.status, 0);
  EXPECT_EQ(Get32(answer.bytes, 300), 0xFFFFFFFDu);
  EXPECT_EQ(Part(answer.bytes, kRecordStart, kInfoBytes - kRecordStart),
            Bytes(kInfoBytes - kRecordStart));
}

TEST_F(ImageFileInfo2Test, RecordThatCanNotBeFoundLeavesZeroAndSucceeds) {
  ImageSpec spec = RichImage(2);
  spec.header.comment.assign(1000, u'x');
  const Answer answer = Ask(kqtest::BuildImage(spec));
  ASSERT_EQ(answer.status.status, 0);
  EXPECT_EQ(Get32(answer.bytes, 304), 0x11111111u);
  EXPECT_EQ(Part(answer.bytes, kRecordStart, kInfoBytes - kRecordStart),
            Bytes(kInfoBytes - kRecordStart));
}

// 512 - 114 - 2 - 157 = 239 bytes for the comment: 119 units leave one byte behind the record, and
// with a key blob of one byte none.
TEST_F(ImageFileInfo2Test, RecordEndsAtLeastOneByteBeforeTheSectorsEnd) {
  ImageSpec spec = RichImage(2);
  spec.header.comment.assign(119, u'x');
  ImageLayout layout;
  Bytes file = kqtest::BuildImage(spec, &layout);
  ASSERT_EQ(layout.recordOffset + 157, 511u);
  Answer answer = Ask(file);
  ASSERT_EQ(answer.status.status, 0);
  ExpectRecordOf(spec, answer.bytes);
  EXPECT_EQ(answer.bytes[313], 1);
  EXPECT_EQ(answer.bytes[314], 1);

  spec.header.keyBlob = {0x77};
  file = kqtest::BuildImage(spec, &layout);
  ASSERT_EQ(layout.recordOffset + 157, 512u);
  answer = Ask(file);
  ASSERT_EQ(answer.status.status, 0);
  EXPECT_EQ(answer.bytes[312], 0);

  spec.header.comment.assign(120, u'x');
  spec.header.keyBlob = {};
  answer = Ask(kqtest::BuildImage(spec));
  ASSERT_EQ(answer.status.status, 0);
  EXPECT_EQ(answer.bytes[312], 0);
}

TEST_F(ImageFileInfo2Test, WrongHeaderCrcIsToldAndNoFailure) {
  ImageSpec spec = RichImage(3);
  spec.headerCrc = 0x12345678;
  const Answer answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, 0);
  ExpectRecordOf(spec, answer.bytes);
  EXPECT_EQ(answer.bytes[313], 0);
  EXPECT_EQ(answer.bytes[314], 1);
}

TEST_F(ImageFileInfo2Test, WrongExtraCrcIsToldAndNoFailure) {
  ImageSpec spec = RichImage(3);
  spec.extraCrc = 0x12345678;  // HeaderCrc is made to match it
  const Answer answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, 0);
  EXPECT_EQ(answer.bytes[313], 1);
  EXPECT_EQ(answer.bytes[314], 0);
}

TEST_F(ImageFileInfo2Test, ExtraCrcOfASingleSectorHeaderIsNotLookedAt) {
  ImageSpec spec = RichImage(1);
  spec.extraCrc = 0x12345678;
  const Answer answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, 0);
  EXPECT_EQ(answer.bytes[313], 1);
  EXPECT_EQ(answer.bytes[314], 1);
}

TEST_F(ImageFileInfo2Test, EachByteOfTheHeaderCounts) {
  const ImageSpec spec = RichImage(3);
  ImageLayout layout;
  const Bytes file = kqtest::BuildImage(spec, &layout);
  for (const std::size_t place :
       {12ul, 88ul, layout.commentOffset, layout.recordOffset, layout.recordOffset + 12, 511ul}) {
    SCOPED_TRACE(place);
    Bytes damaged = file;
    damaged[place] ^= 1;
    const Answer answer = Ask(damaged);
    EXPECT_EQ(answer.bytes[312], 1);
    EXPECT_EQ(answer.bytes[313], 0);
    EXPECT_EQ(answer.bytes[314], 1);
  }
  for (const std::size_t place : {512ul, 1023ul, 1024ul, 1535ul}) {
    SCOPED_TRACE(place);
    Bytes damaged = file;
    damaged[place] ^= 1;
    const Answer answer = Ask(damaged);
    EXPECT_EQ(answer.bytes[313], 1);
    EXPECT_EQ(answer.bytes[314], 0);
  }
  Bytes damaged = file;
  damaged[1536] ^= 1;  // the first chunk
  EXPECT_EQ(Ask(damaged).bytes[314], 1);
}

TEST_F(ImageFileInfo2Test, EncipheredImageNeedsNoPasswordForItsChecksums) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    SCOPED_TRACE(type);
    ImageSpec spec = RichImage(4);
    kqtest::EncipherImage(&spec, type, "secret");
    Bytes file = kqtest::BuildImage(spec);
    Answer answer = Ask(file);
    ASSERT_EQ(answer.status.status, 0);
    ExpectRecordOf(spec, answer.bytes);
    EXPECT_EQ(answer.bytes[313], 1);
    EXPECT_EQ(answer.bytes[314], 1);

    file[1536] ^= 0x80;
    answer = Ask(file);
    ASSERT_EQ(answer.status.status, 0);
    EXPECT_EQ(answer.bytes[313], 1);
    EXPECT_EQ(answer.bytes[314], 0);
  }
}

TEST_F(ImageFileInfo2Test, KeyBlobOfAnotherLengthIsNoFailure) {
  ImageSpec spec = RichImage(2);
  spec.header.encryptionType = 2;
  const Answer answer = Ask(kqtest::BuildImage(spec));
  ASSERT_EQ(answer.status.status, 0);
  ExpectRecordOf(spec, answer.bytes);
  EXPECT_EQ(answer.bytes[314], 1);
}

TEST_F(ImageFileInfo2Test, KeyBlobBeyondTheFileIsGeneralFailure) {
  ImageSpec spec = RichImage(2);
  spec.header.encryptionType = 2;
  spec.keyBlobLengthField = 0xFFFF;
  const Answer answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, -31);
  EXPECT_EQ(answer.bytes, Bytes(kInfoBytes));
}

TEST_F(ImageFileInfo2Test, NullArgumentsAreInvalid) {
  const Answer noPath = Ask(static_cast<const char*>(nullptr));
  EXPECT_EQ(noPath.status.status, -87);
  EXPECT_STREQ(noPath.status.file, "kqimageapi");
  EXPECT_EQ(noPath.bytes, Bytes(kInfoBytes));
  EXPECT_EQ(KQImageFileGetInfo2(path_.c_str(), nullptr).status, -87);
}

TEST_F(ImageFileInfo2Test, FailuresLeaveZero) {
  const Answer missing = Ask(path_.c_str());
  EXPECT_EQ(missing.status.status, -2);
  EXPECT_EQ(missing.status.detail2, 2u);
  EXPECT_EQ(missing.bytes, Bytes(kInfoBytes));

  ImageSpec spec = RichImage(3);
  spec.header.magic = "OPEN";
  Answer answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, -1392);
  EXPECT_EQ(answer.bytes, Bytes(kInfoBytes));

  spec = RichImage(3);
  spec.index.pointerTail = {1};
  answer = Ask(kqtest::BuildImage(spec));
  EXPECT_EQ(answer.status.status, -1392);
  EXPECT_EQ(answer.bytes, Bytes(kInfoBytes));
}

TEST_F(ImageFileInfo2Test, HeaderThatTheFileDoesNotHoldIsRefused) {
  struct Case {
    std::uint32_t sectorSize;
    std::uint32_t headerSectors;
    std::int32_t status;
  };
  const Case cases[] = {{512, 9, -1392},
                        {512, 0x100000, -1392},
                        {512, 0x800000, -8},
                        {512, 0xFFFFFFFF, -8},
                        {0x40000000, 1, -1392},
                        {0x40000001, 1, -31},
                        {0xFFFFFFFF, 0xFFFFFFFF, -8}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.headerSectors);
    Bytes file = kqtest::BuildImage(RichImage(2));
    kqtest::Set32(&file, 4, one.sectorSize);
    kqtest::Set32(&file, 8, one.headerSectors);
    const Answer answer = Ask(file);
    EXPECT_EQ(answer.status.status, one.status);
    EXPECT_EQ(answer.bytes, Bytes(kInfoBytes));
  }
}

TEST_F(ImageFileInfo2Test, CutFileNeverReadsBeyondIt) {
  ImageSpec spec = RichImage(3);
  kqtest::EncipherImage(&spec, 4, "secret");
  const Bytes file = kqtest::BuildImage(spec);
  kqtest::WriteFile(path_, file);
  for (std::size_t length = file.size() - 1; length > 0; length -= length > 200 ? 7 : 1) {
    ASSERT_EQ(truncate(path_.c_str(), static_cast<off_t>(length)), 0);
    const Answer answer = Ask(path_.c_str());
    if (length + 7 <= file.size()) {
      ASSERT_LT(answer.status.status, 0);
      ASSERT_EQ(answer.bytes, Bytes(kInfoBytes));
    }
  }
}

}  // namespace
}  // namespace kq
