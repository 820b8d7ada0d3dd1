#include <gtest/gtest.h>

#include <cstring>
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

constexpr std::uint32_t kFixedBytes = 256;

// The caller's memory, 0xEE before the call, with the addresses that it had.
struct Info {
  Bytes memory = Bytes(0x3000, 0xEE);

  ProtectedInfoEx* Pointer() { return reinterpret_cast<ProtectedInfoEx*>(memory.data()); }
  // Where a pointer at that offset points, from the start of the memory.
  std::uint64_t Place(std::size_t offset) const {
    return Get64(memory, offset) - reinterpret_cast<std::uintptr_t>(memory.data());
  }
  std::u16string Text(std::size_t offset) const {
    std::u16string text;
    for (std::size_t place = Place(offset); place < memory.size() && Get16(memory, place) != 0;
         place += 2) {
      text += static_cast<char16_t>(Get16(memory, place));
    }
    return text;
  }
  Bytes Range(std::size_t from, std::size_t to) const {
    return {memory.begin() + static_cast<std::ptrdiff_t>(from),
            memory.begin() + static_cast<std::ptrdiff_t>(to)};
  }
};

class ProtectedInfoExTest : public testing::Test {
 protected:
  void Write(const ImageSpec& spec) { kqtest::WriteFile(path_, kqtest::BuildImage(spec)); }
  void Write(const ProtectedFields& fields, const Bytes& extra = {},
             std::uint32_t sectorSize = 512) {
    Write(kqtest::ImageWithLaterSectors(Joined({ProtectedSectorBytes(fields, sectorSize), extra}),
                                        sectorSize));
  }
  Info Get(const char* password = nullptr) const {
    Info info;
    std::uint32_t size = 0x3000;
    EXPECT_EQ(
        KQImageFileGetInfoProtectedEx(path_.c_str(), password, 0, info.Pointer(), &size).status, 0);
    return info;
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

ProtectedFields DiskFields(std::uint32_t style, std::uint32_t partitionNumber) {
  ProtectedFields fields;
  fields.partitionStyle = style;
  fields.partitionNumber = partitionNumber;
  return fields;
}

Bytes MbrDisk(std::size_t sectorSize = 512) {
  return Joined({TableSector({{7, 2048, 1000, 0x80}, {5, 10000, 90000}, {0x27, 200000, 77}},
                             0xCAFEF00D, sectorSize),
                 TableSector({{0x83, 63, 100}}, 1, sectorSize)});
}

Bytes GptDisk(std::uint32_t sectorSize = 512) {
  kqtest::GptSpec spec;
  spec.sectorSize = sectorSize;
  spec.entries = {{40, 50, 5, u"A"}, {2048, 4095, 0x8000000000000001, u"Data"}};
  return kqtest::GptTables(spec);
}

TEST_F(ProtectedInfoExTest, NullPathOrSizeOrAnotherVersionIsInvalid) {
  Write(ProtectedFields());
  Info info;
  std::uint32_t size = 0x3000;
  const KQStatus status = KQImageFileGetInfoProtectedEx(nullptr, nullptr, 0, info.Pointer(), &size);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(
      KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, 0, info.Pointer(), nullptr).status,
      -87);
  for (const std::uint32_t version : {1u, 2u, 0x80000000u}) {
    EXPECT_EQ(KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, version, info.Pointer(), &size)
                  .status,
              -87);
  }
  EXPECT_EQ(size, 0x3000u);
  EXPECT_EQ(info.memory, Info().memory);
}

TEST_F(ProtectedInfoExTest, SizeTooSmallOrNoStructureIsMoreDataWithTheSizeStored) {
  ProtectedFields fields;
  fields.texts = {u"one", u"", u"three", u"MPLIST=list"};
  Write(fields);
  const std::uint32_t needed = kFixedBytes + 2 * (3 + 0 + 5 + 4 + 4);
  for (const std::uint32_t room : {0u, kFixedBytes, needed - 1}) {
    Info info;
    std::uint32_t size = room;
    const KQStatus status =
        KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, 0, info.Pointer(), &size);
    EXPECT_EQ(status.status, -234);
    EXPECT_STREQ(status.file, "kqimageapi");
    EXPECT_EQ(size, needed);
    EXPECT_EQ(info.memory, Info().memory);
  }
  for (const std::uint32_t room : {0u, needed, 0xFFFFFFFFu}) {
    std::uint32_t size = room;
    EXPECT_EQ(KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, 0, nullptr, &size).status,
              -234);
    EXPECT_EQ(size, needed);
  }
  for (const std::uint32_t room : {needed, needed + 1, 0x3000u}) {
    Info info;
    std::uint32_t size = room;
    EXPECT_EQ(
        KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, 0, info.Pointer(), &size).status, 0);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(info.Range(needed, 0x3000), Bytes(0x3000 - needed, 0xEE));
  }
}

TEST_F(ProtectedInfoExTest, FailuresLeaveStructureAndSizeAlone) {
  const auto expect = [&](std::int32_t wanted, const char* password) {
    Info info;
    std::uint32_t size = 0x3000;
    EXPECT_EQ(
        KQImageFileGetInfoProtectedEx(path_.c_str(), password, 0, info.Pointer(), &size).status,
        wanted);
    EXPECT_EQ(size, 0x3000u);
    EXPECT_EQ(info.memory, Info().memory);
  };
  expect(-2, nullptr);  // no file
  Write(kqtest::ImageWithLaterSectors({}));
  expect(-2, nullptr);  // one header sector
  ImageSpec spec = kqtest::ImageWithLaterSectors(ProtectedSectorBytes(ProtectedFields()));
  kqtest::EncipherImage(&spec, 4, "secret");
  Write(spec);
  expect(-86, nullptr);
  expect(-86, "");
  expect(-86, "Secret");
  spec.header.magic = "OPEN";
  Write(spec);
  expect(-1392, "secret");
}

TEST_F(ProtectedInfoExTest, TextsFollowTheStructureInTheirOrder) {
  ProtectedFields fields;
  fields.texts = {u"one", u"", u"three", u"MPLIST=list"};
  Write(fields);
  const Info info = Get();
  EXPECT_EQ(info.Place(38), 256u);
  EXPECT_EQ(info.Place(8), 256u + 8);
  EXPECT_EQ(info.Place(0), 256u + 8 + 2);
  EXPECT_EQ(info.Place(54), 256u + 8 + 2 + 12);
  EXPECT_EQ(info.Text(38), u"one");
  EXPECT_EQ(info.Text(8), u"");
  EXPECT_EQ(info.Text(0), u"three");
  EXPECT_EQ(info.Text(54), u"list");
}

TEST_F(ProtectedInfoExTest, EmptyTextsPointAtTheirNul) {
  Write(ProtectedFields());
  const Info info = Get();
  EXPECT_EQ(info.Place(38), 256u);
  EXPECT_EQ(info.Place(8), 258u);
  EXPECT_EQ(info.Place(0), 260u);
  EXPECT_EQ(info.Place(54), 262u);
  EXPECT_EQ(info.Range(256, 264), Bytes(8));
  EXPECT_EQ(info.memory[264], 0xEE);
}

TEST_F(ProtectedInfoExTest, LongTextsAreNotCut) {
  ProtectedFields fields;
  fields.texts = {std::u16string(500, u'a'), std::u16string(400, u'b'), std::u16string(300, u'c'),
                  u"MPLIST=" + std::u16string(600, u'd')};
  Write(fields, {}, 4096);
  const Info info = Get();
  EXPECT_EQ(info.Text(38), fields.texts[0]);
  EXPECT_EQ(info.Text(8), fields.texts[1]);
  EXPECT_EQ(info.Text(0), fields.texts[2]);
  EXPECT_EQ(info.Text(54), std::u16string(600, u'd'));
}

TEST_F(ProtectedInfoExTest, WorksAtAnOddAddress) {
  ProtectedFields fields = DiskFields(2, 2);
  fields.texts = {u"one"};
  Write(fields, GptDisk());
  Bytes memory(1000, 0xEE);
  std::uint32_t size = 999;
  EXPECT_EQ(
      KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, 0,
                                    reinterpret_cast<ProtectedInfoEx*>(memory.data() + 1), &size)
          .status,
      0);
  EXPECT_EQ(Get16(memory, 1 + 256), u'o');
  EXPECT_EQ(Get64(memory, 1 + 89), 2048u * 512);
}

TEST_F(ProtectedInfoExTest, TellsTheFixedWords) {
  ProtectedFields fields = DiskFields(3, 77);
  fields.trailingSectors = 9;
  Write(fields, Bytes(3ul * 512));
  const Info info = Get();
  EXPECT_EQ(Get32(info.memory, 16), fields.volumeValue5);
  EXPECT_EQ(Get16(info.memory, 20), fields.volumeValue6);
  EXPECT_EQ(Get32(info.memory, 22), fields.volumeValue1);
  EXPECT_EQ(Get32(info.memory, 26), fields.volumeValue2);
  EXPECT_EQ(Get32(info.memory, 30), fields.volumeValue3);
  EXPECT_EQ(Get32(info.memory, 34), fields.volumeValue4);
  EXPECT_EQ(Get32(info.memory, 46), 1536u);
  EXPECT_EQ(Get32(info.memory, 50), 9u);
  EXPECT_EQ(info.memory[62], 1);
  EXPECT_EQ(Get64(info.memory, 63), fields.diskValue1);
  EXPECT_EQ(Get32(info.memory, 71), fields.diskValue2);
  EXPECT_EQ(Get32(info.memory, 75), fields.diskValue3);
  EXPECT_EQ(Get32(info.memory, 79), 3u);
  EXPECT_EQ(Get32(info.memory, 83), 77u);
  EXPECT_EQ(info.memory[87], 0);
  EXPECT_EQ(info.memory[88], 0);
}

TEST_F(ProtectedInfoExTest, TwoHeaderSectorsHaveNoExtraBytesButTheirTrailingSectors) {
  ProtectedFields fields = DiskFields(1, 1);
  fields.trailingSectors = 9;
  Write(fields);
  const Info info = Get();
  EXPECT_EQ(Get32(info.memory, 46), 0u);
  EXPECT_EQ(Get32(info.memory, 50), 9u);
  EXPECT_EQ(info.memory[87], 0);
}

TEST_F(ProtectedInfoExTest, AnyDiskInfoMarkButZeroCounts) {
  ProtectedFields fields = DiskFields(1, 1);
  fields.diskInfoPresent = 0x100;
  Write(fields, MbrDisk());
  EXPECT_EQ(Get().memory[62], 1);
  EXPECT_EQ(Get().memory[87], 1);
  fields.diskInfoPresent = 0;
  Write(fields, MbrDisk());
  EXPECT_EQ(Get().memory[62], 0);
  EXPECT_EQ(Get().memory[87], 0);
  EXPECT_EQ(Get().memory[88], 0);
}

TEST_F(ProtectedInfoExTest, MbrFieldsAreFilled) {
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    Write(DiskFields(1, 1), MbrDisk(sectorSize), sectorSize);
    const Info info = Get();
    EXPECT_EQ(info.memory[87], 1);
    EXPECT_EQ(info.memory[88], 1);
    EXPECT_EQ(Get64(info.memory, 89), 2048ull * sectorSize);
    EXPECT_EQ(Get64(info.memory, 97), 1000ull * sectorSize);
    EXPECT_EQ(Get32(info.memory, 105), 0xCAFEF00D);
    EXPECT_EQ(info.memory[109], 1);
    EXPECT_EQ(info.memory[110], 1);
    EXPECT_EQ(info.memory[111], 7);
    EXPECT_EQ(Get32(info.memory, 112), 2047u);
  }
}

TEST_F(ProtectedInfoExTest, LogicalPartitionsMixBytesAndSectors) {
  Write(DiskFields(1, 3), MbrDisk());
  const Info info = Get();
  EXPECT_EQ(info.memory[88], 1);
  EXPECT_EQ(Get64(info.memory, 89), 63u * 512 + 10000);
  EXPECT_EQ(info.memory[110], 0);
  EXPECT_EQ(info.memory[111], 0x83);
  EXPECT_EQ(Get32(info.memory, 112), 0u);
  // The other query of the same file answers in bytes alone.
  Bytes memory(593);
  std::uint32_t size = 593;
  ASSERT_EQ(KQImageFileGetInfoProtected(path_.c_str(), nullptr,
                                        reinterpret_cast<ProtectedInfo*>(memory.data()), &size)
                .status,
            0);
  EXPECT_EQ(Get64(memory, 568), (10000u + 63) * 512);
}

TEST_F(ProtectedInfoExTest, HiddenExtendedPartitionsCountAsPartitionsHere) {
  // The other query takes 0x85 for a link, and finds the table behind it missing.
  Write(DiskFields(1, 2), TableSector({{7, 63, 5}, {0x85, 100, 10}}));
  EXPECT_EQ(Get().memory[88], 1);
  EXPECT_EQ(Get().memory[111], 0x85);
  Bytes memory(593);
  std::uint32_t size = 593;
  ASSERT_EQ(KQImageFileGetInfoProtected(path_.c_str(), nullptr,
                                        reinterpret_cast<ProtectedInfo*>(memory.data()), &size)
                .status,
            0);
  EXPECT_EQ(memory[555], 1);
  EXPECT_EQ(Bytes(memory.begin() + 556, memory.begin() + 583), Bytes(27));
}

TEST_F(ProtectedInfoExTest, Number0FindsTheLastMbrPartitionAndNoGptOne) {
  Write(DiskFields(1, 0), MbrDisk());
  EXPECT_EQ(Get().memory[88], 1);
  EXPECT_EQ(Get().memory[111], 0x83);
  Write(DiskFields(2, 0), GptDisk());
  EXPECT_EQ(Get().memory[87], 1);
  EXPECT_EQ(Get().memory[88], 0);
}

TEST_F(ProtectedInfoExTest, NumberThatNobodyHasFindsTheTableOnly) {
  for (const std::uint32_t number : {4u, 0xFFFFFFFFu}) {
    Write(DiskFields(1, number), MbrDisk());
    const Info info = Get();
    EXPECT_EQ(info.memory[87], 1);
    EXPECT_EQ(info.memory[88], 0);
    EXPECT_EQ(info.Range(89, 105), Bytes(16));
    EXPECT_EQ(Get32(info.memory, 105), 0xCAFEF00D);
  }
  for (const std::uint32_t number : {129u, 0xFFFFFFFFu}) {
    Write(DiskFields(2, number), GptDisk());
    const Info info = Get();
    EXPECT_EQ(info.memory[87], 1);
    EXPECT_EQ(info.memory[88], 0);
    EXPECT_EQ(info.Range(89, 105), Bytes(16));
  }
}

TEST_F(ProtectedInfoExTest, GptFieldsOfMbrImagesStayAsTheClientHadThem) {
  for (const std::uint32_t number : {1u, 3u, 4u}) {
    Write(DiskFields(1, number), MbrDisk());
    const Info info = Get();
    EXPECT_EQ(info.Range(121, 254), Bytes(133, 0xEE));
    EXPECT_EQ(info.Range(254, 256), Bytes(2));
  }
}

TEST_F(ProtectedInfoExTest, GptFieldsAreFilled) {
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    const std::uint64_t s = sectorSize;
    Write(DiskFields(2, 2), GptDisk(sectorSize), sectorSize);
    const Info info = Get();
    EXPECT_EQ(info.memory[87], 1);
    EXPECT_EQ(info.memory[88], 1);
    EXPECT_EQ(Get64(info.memory, 89), 2048 * s);
    EXPECT_EQ(Get64(info.memory, 97), 2048 * s);
    EXPECT_TRUE(std::ranges::equal(info.Range(105, 121), kqtest::MakeId(0xD15C)));
    EXPECT_EQ(Get64(info.memory, 121), 34 * s);
    EXPECT_EQ(Get64(info.memory, 129), (204766 + 1 - 34) * s);
    EXPECT_EQ(Get32(info.memory, 137), 128u);
    EXPECT_EQ(info.memory[141], 1);
    EXPECT_TRUE(std::ranges::equal(info.Range(142, 158), kqtest::MakeId(0x7101)));
    EXPECT_TRUE(std::ranges::equal(info.Range(158, 174), kqtest::MakeId(0x0901)));
    EXPECT_EQ(Get64(info.memory, 174), 0x8000000000000001u);
    Bytes name = kqtest::WideBytes(u"Data");
    name.resize(72);
    EXPECT_EQ(info.Range(182, 254), name);
    EXPECT_EQ(info.Range(254, 256), Bytes(2));
  }
}

TEST_F(ProtectedInfoExTest, GptWithoutAProtectiveMbrSaysSo) {
  Bytes tables = GptDisk();
  tables[450] = 7;  // the type of the MBR's first entry
  Write(DiskFields(2, 2), tables);
  const Info info = Get();
  EXPECT_EQ(info.memory[88], 1);  // the partition is found all the same
  EXPECT_EQ(info.memory[141], 0);
}

TEST_F(ProtectedInfoExTest, GptImagesWithoutThePartitionHaveItsFieldsZero) {
  Write(DiskFields(2, 0), GptDisk());
  const Info info = Get();
  EXPECT_EQ(info.Range(142, 256), Bytes(114));
  Write(DiskFields(2, 1), Bytes(40ul * 512));
  EXPECT_EQ(Get().Range(87, 256), Bytes(169));
}

TEST_F(ProtectedInfoExTest, DamagedTablesLeaveTheFlagsZero) {
  Bytes damaged = MbrDisk();
  damaged[1023] = 0;  // of the second table
  Write(DiskFields(1, 1), damaged);
  EXPECT_EQ(Get().Range(87, 121), Bytes(34));
  damaged = GptDisk();
  damaged[1024] ^= 1;
  Write(DiskFields(2, 1), damaged);
  EXPECT_EQ(Get().Range(87, 89), Bytes(2));
  EXPECT_EQ(Get().Text(38), u"");
}

TEST_F(ProtectedInfoExTest, TrailingSectorsAreNoTables) {
  // A sector behind that is no table disturbs unless it is counted as trailing.
  const Bytes extra = Joined({MbrDisk(), Bytes(512, 0x11)});
  for (std::uint32_t trailing = 0; trailing <= 4; ++trailing) {
    ProtectedFields fields = DiskFields(1, 3);
    fields.trailingSectors = trailing;
    Write(fields, extra);
    const Info info = Get();
    // With 2 the second table is cut off, with 3 and more there are no tables.
    EXPECT_EQ(info.memory[87], trailing == 1 || trailing == 2 ? 1 : 0) << trailing;
    EXPECT_EQ(info.memory[88], trailing == 1 ? 1 : 0) << trailing;
    EXPECT_EQ(Get32(info.memory, 46), 1536u);
  }
  ProtectedFields fields = DiskFields(1, 1);
  fields.trailingSectors = 0xFFFFFFFF;
  Write(fields, extra);
  EXPECT_EQ(Get().memory[87], 0);
}

TEST_F(ProtectedInfoExTest, GptNeedsItsSectorsWithoutTheTrailingOnes) {
  ProtectedFields fields = DiskFields(2, 1);
  fields.trailingSectors = 3;
  Write(fields, Joined({GptDisk(), Bytes(3ul * 512, 0x11)}));
  EXPECT_EQ(Get().memory[88], 1);
  fields.trailingSectors = 4;
  Write(fields, Joined({GptDisk(), Bytes(3ul * 512, 0x11)}));
  EXPECT_EQ(Get().memory[87], 0);
}

TEST_F(ProtectedInfoExTest, StyleDecidesWhichTableIsRead) {
  Write(DiskFields(0, 1), MbrDisk());
  EXPECT_EQ(Get().memory[87], 0);
  Write(DiskFields(2, 1), MbrDisk());
  EXPECT_EQ(Get().memory[87], 0);
  Write(DiskFields(3, 1), MbrDisk());
  EXPECT_EQ(Get().memory[87], 0);
}

TEST_F(ProtectedInfoExTest, EncipheredImagesAnswerWithTheirPassword) {
  ProtectedFields fields = DiskFields(2, 2);
  fields.texts = {u"first", u"second", u"third", u"MPLIST=list"};
  for (std::uint32_t type = 1; type <= 4; ++type) {
    ImageSpec spec =
        kqtest::ImageWithLaterSectors(Joined({ProtectedSectorBytes(fields), GptDisk()}));
    kqtest::EncipherImage(&spec, type, "secret");
    Write(spec);
    const Info info = Get("secret");
    EXPECT_EQ(info.Text(54), u"list");
    EXPECT_EQ(info.memory[88], 1);
  }
}

// Sectors that are too small for the fields run on into what follows, and into nothing at the end.
TEST_F(ProtectedInfoExTest, ImpossibleSectorSizesGiveAStatus) {
  for (const std::uint32_t sectorSize : {1u, 7u, 53u, 54u, 55u, 113u, 115u, 3000u}) {
    for (const std::uint32_t headerSectors : {2u, 3u, 40u}) {
      Bytes file = kqtest::PatternBytes(sectorSize, 0x30000);
      const Bytes header = kqtest::BuildHeader(kqtest::ImageWithLaterSectors({}));
      kqtest::SetBytes(&file, 0, std::span(header).first(114));
      kqtest::Set32(&file, 4, sectorSize);
      kqtest::Set32(&file, 8, headerSectors);
      kqtest::WriteFile(path_, file);
      Info info;
      std::uint32_t size = 0x3000;
      EXPECT_EQ(
          KQImageFileGetInfoProtectedEx(path_.c_str(), nullptr, 0, info.Pointer(), &size).status,
          0);
      Bytes memory(0x3000);
      size = 593;
      EXPECT_EQ(KQImageFileGetInfoProtected(path_.c_str(), nullptr,
                                            reinterpret_cast<ProtectedInfo*>(memory.data()), &size)
                    .status,
                0);
    }
  }
}

}  // namespace
}  // namespace kq
