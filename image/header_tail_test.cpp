#include <gtest/gtest.h>

#include <random>

#include "image/new_image_test_support.h"

namespace kqtest {
namespace {

constexpr char kPassword[] = "secret";
constexpr std::size_t kKeyBlobBytes[] = {0, 16, 48, 48, 64};

class HeaderTail : public testing::Test {
 protected:
  static HeaderFields Fields(std::uint32_t sectorSize, bool withRecord) {
    HeaderFields fields;
    fields.sectorSize = sectorSize;
    if (withRecord) fields.record = RecordFields();
    return fields;
  }

  // A finished file with one sector of data.
  Bytes Write(const HeaderFields& fields, const char* comment, const Creation& creation = {}) {
    Writer writer(path_, Template(fields), creation);
    EXPECT_EQ(writer.status().status, 0);
    EXPECT_EQ(writer.Write(0, Noise(1, fields.sectorSize)).status, 0);
    EXPECT_EQ(writer.Close(comment).status, 0);
    return writer.File();
  }

  ParsedImage Finish(const HeaderFields& fields, const char* comment,
                     const Creation& creation = {}) {
    return ParseFile(Write(fields, comment, creation), creation.password);
  }

  TempDir folder_;
  std::string path_ = folder_.Path("new.twf");
};

std::u16string Letters(std::size_t count) {
  std::u16string text;
  for (std::size_t i = 0; i < count; ++i) text.push_back(static_cast<char16_t>('a' + i % 26));
  return text;
}

std::string Narrow(const std::u16string& text) { return {text.begin(), text.end()}; }

// How many units of a comment are kept behind a key blob, by the rules of the format. The text and
// its NUL fill the sector's free bytes at most. A record needs 157 bytes behind the NUL: the NUL is
// looked for at even steps while 159 bytes remain from there, and where the text goes on beyond,
// its last unit looked at becomes the NUL.
std::size_t UnitsKept(std::size_t sectorSize, std::size_t keyBytes, bool withRecord,
                      std::size_t units) {
  const std::size_t free = sectorSize - 114 - keyBytes;
  std::size_t kept = std::min(units, free / 2 - 1);
  if (withRecord && free >= 159) kept = std::min(kept, (free - 159) / 2);
  return kept;
}

TEST_F(HeaderTail, AnyCommentIsCutToItsRoomAndARecordOverwritesItsEnd) {
  for (const std::uint32_t sectorSize : {256u, 512u}) {
    for (const std::uint32_t type : {0u, 1u, 2u, 4u}) {
      for (const bool withRecord : {false, true}) {
        if (withRecord && sectorSize == 256) continue;  // no template of 256 bytes holds a record
        HeaderFields fields = Fields(sectorSize, withRecord);
        fields.encryptionType = type;
        const Creation creation = {.password = type != 0 ? kPassword : nullptr};
        const std::size_t keyBytes = kKeyBlobBytes[type];
        const std::size_t free = sectorSize - 114 - keyBytes;
        for (const std::size_t around : {std::size_t{2}, (free - free % 2) / 2,
                                         free > 159 ? (free - 159) / 2 : 2, std::size_t{400}}) {
          for (std::size_t units = around - 2; units <= around + 2; ++units) {
            const ParsedImage image = Finish(fields, Narrow(Letters(units)).c_str(), creation);
            SCOPED_TRACE(testing::Message() << sectorSize << " type " << type << " record "
                                            << withRecord << " units " << units);
            const std::size_t kept = UnitsKept(sectorSize, keyBytes, withRecord, units);
            ASSERT_EQ(image.header.comment, Letters(kept));
            ASSERT_EQ(image.header.record.has_value(), withRecord);
            ASSERT_EQ(image.header.flags & 2, withRecord ? 2u : 0u);
            ASSERT_EQ(image.header.keyBlob.size(), keyBytes);
          }
        }
      }
    }
  }
}

TEST_F(HeaderTail, ARecordBehindACutCommentEndsOneByteBeforeTheSectorsEnd) {
  const ParsedImage image = Finish(Fields(512, true), std::string(1000, 'x').c_str());
  EXPECT_EQ(image.recordOffset + 157, 511u);
  EXPECT_EQ(image.header.comment.size(), (image.recordOffset - 2 - 114) / 2);
}

TEST_F(HeaderTail, ANullCommentIsAnEmptyOne) {
  EXPECT_EQ(Finish(Fields(512, false), nullptr).header.comment, u"");
  const ParsedImage image = Finish(Fields(512, true), nullptr);
  EXPECT_EQ(image.header.comment, u"");
  EXPECT_EQ(image.recordOffset, 116u);
}

TEST_F(HeaderTail, ACommentIsStoredAsUtf16) {
  EXPECT_EQ(Finish(Fields(512, true), "a\xC3\xA4\xE2\x82\xAC\xF0\x9D\x84\x9E").header.comment,
            u"a\u00E4\u20AC\U0001D11E");
}

TEST_F(HeaderTail, ACommentThatIsNotUtf8IsLeftOut) {
  for (const bool withRecord : {false, true}) {
    const ParsedImage image = Finish(Fields(512, withRecord), "good \xFF bad");
    EXPECT_EQ(image.header.comment, u"");
    EXPECT_EQ(image.header.record.has_value(), withRecord);
  }
}

TEST_F(HeaderTail, ATemplateWithoutARecordGetsNoneWhateverTheComment) {
  for (const char* comment : {static_cast<const char*>(nullptr), "", "a comment"}) {
    const ParsedImage image = Finish(Fields(512, false), comment);
    EXPECT_FALSE(image.header.record.has_value());
    EXPECT_EQ(image.header.flags & 2, 0u);
  }
}

// Room for the record in the template, and none behind a new key blob.
TEST_F(HeaderTail, WithoutRoomAtTheTextsStartThereIsNoRecord) {
  HeaderFields fields = Fields(304, true);
  fields.encryptionType = 2;
  for (const char* comment : {static_cast<const char*>(nullptr), "some text"}) {
    const Bytes file = Write(fields, comment, {.password = kPassword});
    EXPECT_EQ(Get32(file, 20) & 2, 0u);
    EXPECT_EQ(Get16(file, 112), 48u);
    EXPECT_EQ(Get16(file, 162), comment != nullptr ? 's' : 0);
  }
  fields.encryptionType = 0;
  EXPECT_EQ(Get32(Write(fields, "some text"), 20) & 2, 2u);
}

// The record goes to the very start of the room that the walk has had to leave.
TEST_F(HeaderTail, TheSmallestRoomsForARecord) {
  for (std::uint32_t sectorSize = 273; sectorSize < 280; ++sectorSize) {
    HeaderFields fields = Fields(sectorSize, true);
    fields.record->carriedValue9 = 0x0102030405060708;
    const Bytes empty = Write(fields, nullptr);
    EXPECT_EQ(Get32(empty, 20) & 2, 2u) << sectorSize;
    EXPECT_EQ(Get64(empty, 116 + 149), 0x0102030405060708u);
    const Bytes full = Write(fields, "abcdefgh");
    EXPECT_EQ(Get32(full, 20) & 2, 2u) << sectorSize;
    const std::size_t kept = UnitsKept(sectorSize, 0, true, 8);
    EXPECT_EQ(kept, (sectorSize - 273) / 2);
    EXPECT_EQ(Get16(full, 114 + 2 * kept), 0u);
    EXPECT_EQ(Get64(full, 116 + 2 * kept + 149), 0x0102030405060708u);
    if (kept != 0) {
      EXPECT_EQ(Get16(full, 114), 'a');
    }
  }
}

// Where a blob does not fit there is neither text nor record: its length of 0 says that no password
// opens the image.
TEST_F(HeaderTail, AKeyBlobThatDoesNotFitIsLeftOut) {
  HeaderFields fields = Fields(160, false);
  fields.encryptionType = 2;
  const Bytes file = Write(fields, "text", {.password = kPassword});
  EXPECT_EQ(Get16(file, 112), 0u);
  EXPECT_EQ(Bytes(file.begin() + 114, file.begin() + 160), Bytes(160 - 114));

  // One that ends with the sector fits, and leaves no room for anything else.
  fields.sectorSize = 176;
  fields.encryptionType = 4;
  EXPECT_EQ(Get16(Write(fields, "text", {.password = kPassword}), 112), 0u);
  fields.sectorSize = 178;
  fields.encryptionType = 3;
  const Bytes fits = Write(fields, "text", {.password = kPassword});
  EXPECT_EQ(Get16(fits, 112), 48u);
  EXPECT_EQ(Bytes(fits.begin() + 162, fits.begin() + 178),
            (Bytes{'t', 0, 'e', 0, 'x', 0, 't', 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(HeaderTail, ACommentNeedsFourFreeBytes) {
  for (const std::uint32_t sectorSize : {115u, 116u, 117u}) {
    const Bytes file = Write(Fields(sectorSize, false), "x");
    EXPECT_EQ(Bytes(file.begin() + 114, file.begin() + sectorSize), Bytes(sectorSize - 114));
  }
  EXPECT_EQ(Get16(Write(Fields(118, false), "x"), 114), 'x');
  EXPECT_EQ(Get16(Write(Fields(118, false), "xy"), 116), 0u);
}

TEST_F(HeaderTail, TheRecordPassesThroughButForTheFieldsOfTheClose) {
  HeaderFields fields = Fields(512, true);
  fields.laterSectors = PatternBytes(3, 1024);
  RecordFields& old = *fields.record;
  old.recordFlags = 0xFFFFFFFF;
  old.snapshotSetId = MakeId(9);
  old.carriedId = MakeId(10);
  old.carriedValue1 = 11;
  old.carriedValue2 = 12;
  old.carriedValue3 = 13;
  old.carriedBytes1 = MakeId(14);
  old.carriedValue4 = 15;
  old.carriedValue5 = 16;
  old.carriedValue6 = 17;
  old.reserved = 18;
  old.carriedValue7 = 19;
  old.carriedBytes2 = MakeId(20);
  old.carriedValue8 = 21;
  old.carriedValue9 = 22;
  const ParsedImage image = Finish(fields, "text");
  ASSERT_TRUE(image.header.record.has_value());
  RecordFields expected = old;
  expected.recordFlags = 0x128;
  expected.snapshotSetId = Id{};
  expected.fileUuid = image.header.record->fileUuid;
  expected.secondUuid = image.header.record->secondUuid;
  EXPECT_EQ(*image.header.record, expected);
}

TEST_F(HeaderTail, RecordFlagsKeepOneBitAndNameThisLibrary) {
  for (const auto& [old, now] : {std::pair{0u, 0x28u},
                                 {0x30u, 0x28u},
                                 {0x100u, 0x128u},
                                 {0xFFFFFEFFu, 0x28u},
                                 {0x138u, 0x128u}}) {
    HeaderFields fields = Fields(512, true);
    fields.record->recordFlags = old;
    EXPECT_EQ(Finish(fields, nullptr).header.record->recordFlags, now) << old;
  }
}

TEST_F(HeaderTail, EachFileHasTwoNewIdentifiersInTheMixedOrder) {
  const RecordFields first = *Finish(Fields(512, true), nullptr).header.record;
  const RecordFields second = *Finish(Fields(512, true), nullptr).header.record;
  const std::vector<Id> ids = {first.fileUuid, first.secondUuid, second.fileUuid,
                               second.secondUuid};
  for (std::size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(ids[i][7] >> 4, 4);
    EXPECT_EQ(ids[i][8] >> 6, 2);
    for (std::size_t j = 0; j < i; ++j) EXPECT_NE(ids[i], ids[j]);
  }
}

TEST_F(HeaderTail, AHeaderOfOneSectorHasNoCarriedValue3AndNoExtraCrc) {
  HeaderFields fields = Fields(512, true);
  fields.record->carriedValue3 = 0x1234;
  const ParsedImage one = Finish(fields, nullptr);
  EXPECT_EQ(one.header.record->carriedValue3, 0u);
  EXPECT_EQ(one.extraCrc, 0u);
  fields.laterSectors = PatternBytes(1, 512);
  const ParsedImage two = Finish(fields, nullptr);
  EXPECT_EQ(two.header.record->carriedValue3, 0x1234u);
  EXPECT_NE(two.extraCrc, 0u);
}

// The parser compares both checksums with its own; here it is told what the second runs over.
TEST_F(HeaderTail, ExtraCrcIsThatOfTheEncipheredSectors) {
  HeaderFields plain = Fields(512, true);
  plain.laterSectors = PatternBytes(1, 1024);
  ImageSpec spec;
  spec.header = plain;
  EncipherImage(&spec, 4, kPassword);
  Writer writer(path_, BuildHeader(spec), {.password = kPassword});
  ASSERT_EQ(writer.status().status, 0);
  ASSERT_EQ(writer.Write(0, Noise(1, 512)).status, 0);
  ASSERT_EQ(writer.Close("enciphered").status, 0);
  const ParsedImage image = ParseFile(writer.File(), kPassword);
  EXPECT_EQ(image.header.laterSectors, plain.laterSectors);
  EXPECT_EQ(image.extraCrc, PlainCrcMsbFirst(image.storedLaterSectors));
  EXPECT_NE(image.extraCrc, PlainCrcMsbFirst(plain.laterSectors));
}

}  // namespace
}  // namespace kqtest
