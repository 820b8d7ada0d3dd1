#include <gtest/gtest.h>

#include <string>

#include "header/partition_tables_test.h"
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
using kqtest::ImageSpec;
using kqtest::Joined;
using kqtest::ProtectedFields;
using kqtest::ProtectedSectorBytes;
using kqtest::TableSector;

constexpr std::size_t kFixedBytes = 593;
constexpr std::size_t kRoom = 0x3000;

class ProtectedInfoTest : public testing::Test {
 protected:
  void Write(const ImageSpec& spec) { kqtest::WriteFile(path_, kqtest::BuildImage(spec)); }
  void Write(const ProtectedFields& fields, const Bytes& extra = {},
             std::uint32_t sectorSize = 512) {
    Write(kqtest::ImageWithLaterSectors(Joined({ProtectedSectorBytes(fields, sectorSize), extra}),
                                        sectorSize));
  }

  // The caller's memory after the call; it was all 0xEE before.
  Bytes Call(std::uint32_t size, std::int32_t status, std::uint32_t sizeAfter,
             const char* password = nullptr) const {
    Bytes memory(kRoom, 0xEE);
    std::uint32_t inOut = size;
    EXPECT_EQ(KQImageFileGetInfoProtected(path_.c_str(), password,
                                          reinterpret_cast<ProtectedInfo*>(memory.data()), &inOut)
                  .status,
              status);
    EXPECT_EQ(inOut, sizeAfter);
    return memory;
  }
  Bytes Get(const char* password = nullptr) const {
    return Call(kFixedBytes, 0, kFixedBytes, password);
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

std::u16string TextAt(const Bytes& bytes, std::size_t offset) {
  std::u16string text;
  for (; Get16(bytes, offset) != 0; offset += 2)
    text += static_cast<char16_t>(Get16(bytes, offset));
  return text;
}

Bytes Range(const Bytes& bytes, std::size_t from, std::size_t to) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
          bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

// MBR with a primary, an extended and another primary partition; in the extended one three logical
// ones.
Bytes DiskTables(std::size_t sectorSize = 512) {
  return Joined({TableSector({{7, 2048, 1000, 0x80}, {5, 10000, 90000}, {0x27, 200000, 77}},
                             0xCAFEF00D, sectorSize),
                 TableSector({{0x83, 63, 100}, {5, 1000, 500}}, 1, sectorSize),
                 TableSector({{0x0C, 64, 200, 0x80}, {5, 2000, 600}}, 2, sectorSize),
                 TableSector({{0x0B, 65, 300}}, 3, sectorSize)});
}

ProtectedFields MbrFields(std::uint32_t partitionNumber) {
  ProtectedFields fields;
  fields.partitionStyle = 1;
  fields.partitionNumber = partitionNumber;
  return fields;
}

struct Partition {
  std::uint32_t diskSignature;
  std::uint64_t length, offset;
  std::uint8_t active, primary, type;
  std::uint32_t sectorsBefore;
  bool operator==(const Partition&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Partition& p) {
  return out << std::hex << p.diskSignature << std::dec << " length " << p.length << " offset "
             << p.offset << " active " << int{p.active} << " primary " << int{p.primary} << " type "
             << int{p.type} << " before " << p.sectorsBefore;
}

Partition PartitionIn(const Bytes& info) {
  return {Get32(info, 556), Get64(info, 560), Get64(info, 568), info[576],
          info[577],        info[578],        Get32(info, 579)};
}

TEST_F(ProtectedInfoTest, NullArgumentsAndSizesBelow593AreInvalid) {
  Write(ProtectedFields());
  for (const std::uint32_t size : {0u, 1u, 592u}) {
    EXPECT_EQ(Call(size, -87, size), Bytes(kRoom, 0xEE));
  }
  Bytes memory(kRoom, 0xEE);
  auto* const info = reinterpret_cast<ProtectedInfo*>(memory.data());
  std::uint32_t size = kFixedBytes;
  const KQStatus status = KQImageFileGetInfoProtected(nullptr, nullptr, info, &size);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(KQImageFileGetInfoProtected(path_.c_str(), nullptr, nullptr, &size).status, -87);
  EXPECT_EQ(KQImageFileGetInfoProtected(path_.c_str(), nullptr, info, nullptr).status, -87);
  EXPECT_EQ(size, kFixedBytes);
  EXPECT_EQ(memory, Bytes(kRoom, 0xEE));
}

TEST_F(ProtectedInfoTest, AsManyBytesAreZeroedAsTheSizeSays) {
  ProtectedFields fields;
  Write(fields);
  const Bytes memory = Call(700, 0, kFixedBytes);
  EXPECT_EQ(Range(memory, kFixedBytes, 700), Bytes(107));
  EXPECT_EQ(Range(memory, 700, kRoom), Bytes(kRoom - 700, 0xEE));
  const Bytes exact = Get();
  EXPECT_EQ(Range(exact, kFixedBytes, kRoom), Bytes(kRoom - kFixedBytes, 0xEE));
}

TEST_F(ProtectedInfoTest, FailuresLeaveTheStructureZeroAndTheSizeAlone) {
  Bytes zeroed(kRoom, 0xEE);
  std::fill_n(zeroed.begin(), 600, std::uint8_t{0});
  EXPECT_EQ(Call(600, -2, 600), zeroed);  // no file
  ImageSpec spec = kqtest::ImageWithLaterSectors({});
  Write(spec);
  EXPECT_EQ(Call(600, -2, 600), zeroed);  // one header sector
  spec.header.magic = "OPEN";
  Write(spec);
  EXPECT_EQ(Call(600, -1392, 600), zeroed);
  spec = kqtest::ImageWithLaterSectors(ProtectedSectorBytes(ProtectedFields()));
  kqtest::EncipherImage(&spec, 2, "secret");
  Write(spec);
  EXPECT_EQ(Call(600, -86, 600), zeroed);
  EXPECT_EQ(Call(600, -86, 600, "Secret"), zeroed);
  EXPECT_EQ(Call(600, -86, 600, ""), zeroed);
}

TEST_F(ProtectedInfoTest, OneHeaderSectorOfAnEncipheredImageIsTooFewWithoutAPassword) {
  ImageSpec spec = kqtest::ImageWithLaterSectors({});
  kqtest::EncipherImage(&spec, 2, "secret");
  Write(spec);
  Bytes memory(kFixedBytes);
  std::uint32_t size = kFixedBytes;
  const KQStatus status = KQImageFileGetInfoProtected(
      path_.c_str(), nullptr, reinterpret_cast<ProtectedInfo*>(memory.data()), &size);
  EXPECT_EQ(status.status, -2);
  EXPECT_STREQ(status.file, "kqimageapi");
}

TEST_F(ProtectedInfoTest, TellsVolumeAndDisk) {
  ProtectedFields fields;
  fields.partitionStyle = 2;
  fields.partitionNumber = 77;
  fields.trailingSectors = 9;
  Write(fields, Bytes(3ul * 512));
  const Bytes info = Get();
  EXPECT_EQ(Get32(info, 256), fields.volumeValue5);
  EXPECT_EQ(Get16(info, 260), fields.volumeValue6);
  EXPECT_EQ(Get32(info, 262), fields.volumeValue1);
  EXPECT_EQ(Get32(info, 266), fields.volumeValue2);
  EXPECT_EQ(Get32(info, 270), fields.volumeValue3);
  EXPECT_EQ(Get32(info, 274), fields.volumeValue4);
  EXPECT_EQ(info[534], 1);
  EXPECT_EQ(Get64(info, 535), fields.diskValue1);
  EXPECT_EQ(Get32(info, 543), fields.diskValue2);
  EXPECT_EQ(Get32(info, 547), fields.diskValue3);
  EXPECT_EQ(Get32(info, 551), 77u);
  EXPECT_EQ(Range(info, 555, 583), Bytes(28));
  EXPECT_EQ(Get32(info, 583), 1536u);
  EXPECT_EQ(Get32(info, 587), 9u);
  EXPECT_EQ(Get16(info, 591), 0u);
}

TEST_F(ProtectedInfoTest, WithoutDiskInfoOnlyTheVolumeIsTold) {
  ProtectedFields fields = MbrFields(1);
  fields.diskInfoPresent = 0;
  fields.trailingSectors = 1;
  Write(fields, DiskTables());
  const Bytes info = Get();
  EXPECT_EQ(Get32(info, 262), fields.volumeValue1);
  EXPECT_EQ(Range(info, 534, 551), Bytes(17));
  EXPECT_EQ(Get32(info, 551), 0xFFFFFFFFu);
  EXPECT_EQ(Range(info, 555, 583), Bytes(28));
  EXPECT_EQ(Get32(info, 583), 2048u);
  EXPECT_EQ(Get32(info, 587), 1u);
}

TEST_F(ProtectedInfoTest, AnyDiskInfoMarkButZeroCounts) {
  ProtectedFields fields;
  fields.diskInfoPresent = 0x100;
  Write(fields);
  const Bytes info = Get();
  EXPECT_EQ(info[534], 1);
  EXPECT_EQ(Get32(info, 543), fields.diskValue2);
}

TEST_F(ProtectedInfoTest, WithTwoHeaderSectorsThereAreNoExtraBytes) {
  ProtectedFields fields = MbrFields(1);
  fields.trailingSectors = 9;
  Write(fields);
  const Bytes info = Get();
  EXPECT_EQ(Get32(info, 551), 1u);
  EXPECT_EQ(Range(info, 555, kFixedBytes), Bytes(kFixedBytes - 555));
}

TEST_F(ProtectedInfoTest, FindsPartitionsByNumber) {
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    const std::uint64_t s = sectorSize;
    const Partition expected[] = {
        {0xCAFEF00D, 1000 * s, 2048 * s, 1, 1, 7, 2048},
        {0xCAFEF00D, 77 * s, 200000 * s, 0, 1, 0x27, 200000},
        {0xCAFEF00D, 100 * s, (10000 + 63) * s, 0, 0, 0x83, 63},
        {0xCAFEF00D, 200 * s, (11000 + 64) * s, 1, 0, 0x0C, 64},
        // Where the disk has it at 12000: links are summed.
        {0xCAFEF00D, 300 * s, (13000 + 65) * s, 0, 0, 0x0B, 65},
    };
    for (std::uint32_t number = 1; number <= 5; ++number) {
      Write(MbrFields(number), DiskTables(sectorSize), sectorSize);
      const Bytes info = Get();
      EXPECT_EQ(info[555], 1);
      EXPECT_EQ(PartitionIn(info), expected[number - 1]) << number;
    }
  }
}

TEST_F(ProtectedInfoTest, NumberThatNobodyHasLeavesThePartitionZero) {
  Write(MbrFields(6), DiskTables());
  const Bytes info = Get();
  EXPECT_EQ(info[555], 1);
  EXPECT_EQ(PartitionIn(info), (Partition{0xCAFEF00D, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ProtectedInfoTest, NoNumberMeansThatNoTableIsLookedAt) {
  Write(MbrFields(0xFFFFFFFF), DiskTables());
  const Bytes info = Get();
  EXPECT_EQ(Get32(info, 551), 0xFFFFFFFFu);
  EXPECT_EQ(Range(info, 555, 583), Bytes(28));
}

TEST_F(ProtectedInfoTest, OtherStylesThanMbrAreNotLookedAt) {
  for (const std::uint32_t style : {0u, 2u, 3u, 0x101u}) {
    ProtectedFields fields = MbrFields(1);
    fields.partitionStyle = style;
    Write(fields, DiskTables());
    EXPECT_EQ(Range(Get(), 555, 583), Bytes(28)) << style;
  }
}

// Number 0 stands on every entry that is no real partition.
TEST_F(ProtectedInfoTest, Number0FindsTheFirstEntryWithoutANumber) {
  Write(MbrFields(0), DiskTables());
  EXPECT_EQ(PartitionIn(Get()),
            (Partition{0xCAFEF00D, 90000u * 512, 10000u * 512, 0, 0, 5, 10000}));
  Write(MbrFields(0), TableSector({{7, 63, 10}, {}, {6, 100, 20}}, 5));
  EXPECT_EQ(PartitionIn(Get()), (Partition{5, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ProtectedInfoTest, DamagedTablesLeaveAllOfItZero) {
  const Bytes good = DiskTables();
  for (std::size_t sector = 0; sector < 4; ++sector) {
    Bytes damaged = good;
    damaged[sector * 512 + 511] = 0;
    Write(MbrFields(1), damaged);
    const Bytes info = Get();
    EXPECT_EQ(info[555], 1);
    EXPECT_EQ(PartitionIn(info), Partition{}) << sector;
    // A table that is missing is as bad.
    if (sector == 0) continue;
    damaged.resize(sector * 512);
    Write(MbrFields(1), damaged);
    EXPECT_EQ(PartitionIn(Get()), Partition{}) << sector;
  }
}

TEST_F(ProtectedInfoTest, SectorsBelow512BytesAreNoTables) {
  Write(MbrFields(1), DiskTables(512), 256);
  const Bytes info = Get();
  EXPECT_EQ(info[555], 1);
  EXPECT_EQ(PartitionIn(info), Partition{});
}

TEST_F(ProtectedInfoTest, TrailingSectorsBelongToTheTablesHere) {
  for (const std::uint32_t trailing : {1u, 3u, 4u, 1000u}) {
    ProtectedFields fields = MbrFields(5);
    fields.trailingSectors = trailing;
    Write(fields, DiskTables());
    EXPECT_EQ(PartitionIn(Get()).type, 0x0B);
  }
  // And sectors that are no tables don't disturb behind the last one.
  Write(MbrFields(5), Joined({DiskTables(), Bytes(1024, 0x11)}));
  EXPECT_EQ(PartitionIn(Get()).type, 0x0B);
}

TEST_F(ProtectedInfoTest, PrimaryMeansHeldByNoExtendedEntry) {
  struct Case {
    kqtest::TableEntry extended;
    std::uint8_t primary;
  };
  // The partition takes sectors 1000 to 1099.
  for (const Case& test : {
           Case{{5, 1000, 100}, 0},
           Case{{5, 999, 102}, 0},
           Case{{5, 1001, 1000}, 1},
           Case{{5, 1000, 99}, 1},
           Case{{5, 0, 1099}, 1},
           Case{{5, 0, 1100}, 0},
           Case{{0x0F, 0, 1100}, 0},
           Case{{0x85, 0, 1100}, 0},
           Case{{0xC5, 0, 1100}, 0},
           Case{{0x8F, 0, 1100}, 0},
           Case{{0xCF, 0, 1100}, 0},
           Case{{0x45, 0, 1100}, 1},
           Case{{5, 0, 0xFFFFFFFF}, 0},
           Case{{5, 0xFFFFFFFF, 0xFFFFFFFF}, 1},
       }) {
    Write(MbrFields(1),
          Joined({TableSector({{7, 1000, 100}, test.extended}), TableSector({}), TableSector({})}));
    EXPECT_EQ(PartitionIn(Get()).primary, test.primary)
        << int{test.extended.type} << " " << test.extended.start;
  }
}

TEST_F(ProtectedInfoTest, AnExtendedEntryOfAnyTableCanHoldThePartition) {
  // The link in the second table claims sectors 950 to 1150, where the MBR's own partition lies.
  Write(MbrFields(1), Joined({TableSector({{7, 1000, 100}, {5, 900, 10}}),
                              TableSector({{6, 1, 1}, {5, 50, 200}}), TableSector({})}));
  EXPECT_EQ(PartitionIn(Get()).primary, 0);
}

TEST_F(ProtectedInfoTest, PartitionWithoutALengthIsNotPrimary) {
  Write(MbrFields(1), TableSector({{7, 1000, 0, 0x80}}, 3));
  EXPECT_EQ(PartitionIn(Get()), (Partition{3, 0, 512000, 1, 0, 7, 1000}));
}

TEST_F(ProtectedInfoTest, TextsStandInTheirFields) {
  ProtectedFields fields;
  fields.texts = {u"first", u"second text", u"third"};
  Write(fields);
  const Bytes info = Get();
  EXPECT_EQ(TextAt(info, 278), u"first");
  EXPECT_EQ(TextAt(info, 128), u"second text");
  EXPECT_EQ(TextAt(info, 0), u"third");
  EXPECT_EQ(Range(info, 278 + 10, 534), Bytes(534 - 288));
  EXPECT_EQ(Range(info, 128 + 22, 256), Bytes(256 - 150));
  EXPECT_EQ(Range(info, 10, 128), Bytes(118));
}

TEST_F(ProtectedInfoTest, TextsAreCutToTheirFields) {
  for (const std::size_t over : {0u, 1u, 50u}) {
    ProtectedFields fields;
    const auto text = [](char16_t unit, std::size_t count) { return std::u16string(count, unit); };
    fields.texts = {text(u'a', 127 + over), text(u'b', 63 + over), text(u'c', 63 + over)};
    Write(fields, {}, 1024);
    const Bytes info = Get();
    EXPECT_EQ(TextAt(info, 278), text(u'a', 127));
    EXPECT_EQ(TextAt(info, 128), text(u'b', 63));
    EXPECT_EQ(TextAt(info, 0), text(u'c', 63));
    EXPECT_EQ(Get32(info, 256), fields.volumeValue5);
    EXPECT_EQ(info[534], 1);
  }
}

TEST_F(ProtectedInfoTest, ListStandsInTheTailWithItsSize) {
  ProtectedFields fields;
  fields.texts = {u"1", u"2", u"3", u"MPLIST=/mnt/a"};
  Write(fields);
  const std::uint32_t size = kFixedBytes + 2 * 6;
  const Bytes info = Call(1000, 0, size);
  EXPECT_EQ(TextAt(info, 591), u"/mnt/a");
  EXPECT_EQ(Range(info, size, 1000), Bytes(1000 - size));
}

// Clients give the room that the longest list takes; the size is no limit.
TEST_F(ProtectedInfoTest, ListIsStoredWholeWhateverTheSize) {
  ProtectedFields fields;
  const std::u16string list(1900, u'm');
  fields.texts = {u"", u"", u"", u"MPLIST=" + list};
  Write(fields, {}, 4096);
  const std::uint32_t size = kFixedBytes + 2 * 1900;
  const Bytes info = Call(kFixedBytes, 0, size);
  EXPECT_EQ(TextAt(info, 591), list);
  EXPECT_EQ(Range(info, size, kRoom), Bytes(kRoom - size, 0xEE));
}

TEST_F(ProtectedInfoTest, PrefixAloneIsNoList) {
  for (const std::u16string& text : {std::u16string(u"MPLIST="), std::u16string(u"other text")}) {
    ProtectedFields fields;
    fields.texts = {u"1", u"2", u"3", text};
    Write(fields);
    EXPECT_EQ(Get16(Get(), 591), 0u);
  }
}

TEST_F(ProtectedInfoTest, EncipheredImagesAnswerWithTheirPassword) {
  ProtectedFields fields = MbrFields(2);
  fields.texts = {u"first", u"second", u"third"};
  for (std::uint32_t type = 1; type <= 4; ++type) {
    ImageSpec spec =
        kqtest::ImageWithLaterSectors(Joined({ProtectedSectorBytes(fields), DiskTables()}));
    kqtest::EncipherImage(&spec, type, "secret");
    Write(spec);
    const Bytes info = Get("secret");
    EXPECT_EQ(TextAt(info, 0), u"third");
    EXPECT_EQ(PartitionIn(info).type, 0x27);
    Call(kFixedBytes, -86, kFixedBytes, nullptr);
    if (type != 1) Call(kFixedBytes, -86, kFixedBytes, "Secret");
  }
}

}  // namespace
}  // namespace kq
