#include "header/gpt_table.h"

#include <gtest/gtest.h>

#include <functional>

#include "header/partition_tables_test.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::GptSpec;
using kqtest::GptTables;
using kqtest::SealGpt;

GptSpec Disk(std::uint32_t sectorSize = 512) {
  GptSpec spec;
  spec.sectorSize = sectorSize;
  spec.entries = {{2048, 4095, 0x8000000000000001, u"first"}, {4096, 104857, 0, u"second"}};
  return spec;
}

// In memory of exactly that length, so that the sanitizers see a byte too many.
std::optional<GptTable> Read(const Bytes& tables, std::uint32_t number = 1,
                             std::uint32_t sectorSize = 512) {
  const Bytes exact(tables.begin(), tables.end());
  return ReadGptTable(exact, sectorSize, number);
}

TEST(ReadGptTable, TellsTheDiskAndThePartition) {
  for (const std::uint32_t sectorSize : {512u, 1024u, 2048u, 4096u}) {
    const auto table = Read(GptTables(Disk(sectorSize)), 2, sectorSize);
    ASSERT_TRUE(table);
    EXPECT_TRUE(std::ranges::equal(table->diskGuid, kqtest::MakeId(0xD15C)));
    EXPECT_EQ(table->usableOffsetBytes, 34ull * sectorSize);
    EXPECT_EQ(table->usableLengthBytes, (204766ull + 1 - 34) * sectorSize);
    EXPECT_EQ(table->entryCount, 128u);
    EXPECT_TRUE(table->protectiveMbr);
    ASSERT_TRUE(table->partition);
    EXPECT_EQ(table->partition->offsetBytes, 4096ull * sectorSize);
    EXPECT_EQ(table->partition->lengthBytes, (104857ull + 1 - 4096) * sectorSize);
    EXPECT_TRUE(std::ranges::equal(table->partition->typeGuid, kqtest::MakeId(0x7101)));
    EXPECT_TRUE(std::ranges::equal(table->partition->uniqueGuid, kqtest::MakeId(0x0901)));
    EXPECT_EQ(table->partition->attributes, 0u);
    Bytes name = kqtest::WideBytes(u"second");
    name.resize(72);
    EXPECT_TRUE(std::ranges::equal(table->partition->name, name));
    const auto first = Read(GptTables(Disk(sectorSize)), 1, sectorSize);
    ASSERT_TRUE(first && first->partition);
    EXPECT_EQ(first->partition->attributes, 0x8000000000000001u);
  }
}

TEST(ReadGptTable, Sectors256BytesLongAreEnough) {
  GptSpec spec = Disk(256);
  const auto table = Read(GptTables(spec), 1, 256);
  ASSERT_TRUE(table && table->partition);
  EXPECT_EQ(table->partition->offsetBytes, 2048u * 256);
  // No MBR fits such a sector.
  EXPECT_FALSE(table->protectiveMbr);
}

TEST(ReadGptTable, SectorsNeed92Bytes) {
  for (const std::uint32_t sectorSize : {91u, 92u, 93u}) {
    Bytes tables(2 * sectorSize + 16384 + 2 * sectorSize);
    const Bytes whole = GptTables(Disk(512));
    std::copy_n(whole.begin() + 512, std::min(sectorSize, 92u), tables.begin() + sectorSize);
    kqtest::Set32(&tables, sectorSize + 80, 4);
    kqtest::Set32(&tables, sectorSize + 84, 128);
    if (sectorSize == 91) {
      // What would be the checksum's last byte begins the entries; such a sector can't be sealed.
      EXPECT_FALSE(Read(tables, 1, sectorSize));
      continue;
    }
    SealGpt(&tables, sectorSize);
    EXPECT_TRUE(Read(tables, 1, sectorSize)) << sectorSize;
  }
}

// Sets a field of the header, seals all again and expects a verdict.
void ExpectWithField(std::size_t offset, std::size_t width, std::uint64_t value, bool found,
                     GptSpec spec = Disk()) {
  Bytes tables = GptTables(spec);
  kqtest::SetLe(&tables, spec.sectorSize + offset, value, width);
  SealGpt(&tables, spec.sectorSize);
  EXPECT_EQ(Read(tables, 1, spec.sectorSize).has_value(), found)
      << "offset " << offset << " value " << value;
}

TEST(ReadGptTable, HeaderSizeLiesBetween92AndTheSector) {
  ExpectWithField(12, 4, 92, true);
  ExpectWithField(12, 4, 91, false);
  ExpectWithField(12, 4, 0, false);
  ExpectWithField(12, 4, 93, true);
  ExpectWithField(12, 4, 512, true);
  ExpectWithField(12, 4, 513, false);
  ExpectWithField(12, 4, 0xFFFFFFFF, false);
}

TEST(ReadGptTable, SignatureAndRevisionAreChecked) {
  for (std::size_t i = 0; i < 8; ++i) ExpectWithField(i, 1, 'x', false);
  ExpectWithField(8, 4, 0x10000, true);
  ExpectWithField(8, 4, 0x10001, false);
  ExpectWithField(8, 4, 0, true);
  ExpectWithField(8, 4, 0xFFFFFFFF, false);
}

TEST(ReadGptTable, HeaderChecksumCoversExactlyTheHeader) {
  GptSpec spec = Disk();
  spec.headerBytes = 100;
  const Bytes good = GptTables(spec);
  ASSERT_TRUE(Read(good));
  for (std::size_t i = 0; i < 512; ++i) {
    Bytes damaged = good;
    damaged[512 + i] ^= 0x80;
    // Behind the header anything may stand; in it only the size can hide the rest.
    EXPECT_EQ(Read(damaged).has_value(), i >= 100) << i;
  }
}

TEST(ReadGptTable, EntriesChecksumCoversExactlyTheEntries) {
  GptSpec spec = Disk();
  spec.entryCount = 5;
  const Bytes good = GptTables(spec);
  ASSERT_TRUE(Read(good));
  for (const std::size_t i : {0u, 1u, 127u, 128u, 639u, 640u, 1023u, 16383u}) {
    Bytes damaged = good;
    damaged[1024 + i] ^= 1;
    EXPECT_EQ(Read(damaged).has_value(), i >= 640) << i;
  }
}

TEST(ReadGptTable, TablesNeedTwoSectorsAnd16384Bytes) {
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    GptSpec spec = Disk(sectorSize);
    spec.entryCount = 2;
    Bytes tables = GptTables(spec);
    ASSERT_EQ(tables.size(), 2 * sectorSize + 16384);
    EXPECT_TRUE(Read(tables, 1, sectorSize));
    tables.resize(tables.size() - 1);
    EXPECT_FALSE(Read(tables, 1, sectorSize));
    tables.resize(sectorSize);
    EXPECT_FALSE(Read(tables, 1, sectorSize));
    EXPECT_FALSE(Read({}, 1, sectorSize));
  }
}

TEST(ReadGptTable, TablesNeedAllOfTheEntriesSectors) {
  GptSpec spec = Disk();
  spec.entryCount = 129;  // 16,512 bytes: one sector more, a quarter of it used
  Bytes tables = GptTables(spec);
  ASSERT_EQ(tables.size(), 1024u + 16384 + 512);
  EXPECT_TRUE(Read(tables));
  Bytes cut(tables.begin(), tables.end() - 1);
  EXPECT_FALSE(Read(cut));
  cut.resize(1024 + 16512);
  EXPECT_FALSE(Read(cut));
  tables.resize(tables.size() + 512);
  EXPECT_TRUE(Read(tables));
}

TEST(ReadGptTable, EntriesHaveAtLeast128BytesAndFitTheirSectors) {
  ExpectWithField(84, 4, 127, false);
  ExpectWithField(84, 4, 0, false);
  ExpectWithField(84, 4, 128, true);
  GptSpec one = Disk();
  one.entries.clear();
  one.entryCount = 1;
  ExpectWithField(84, 4, 129, true, one);
  ExpectWithField(84, 4, 512, true, one);
  ExpectWithField(84, 4, 16384, true, one);
  ExpectWithField(84, 4, 16385, false, one);
}

TEST(ReadGptTable, CountsAndSizesOf32BitsDontOverflow) {
  ExpectWithField(80, 4, 0, false);
  ExpectWithField(80, 4, 0xFFFFFFFF, false);
  ExpectWithField(84, 4, 0xFFFFFFFF, false);
  GptSpec spec = Disk();
  for (const auto& [count, size] :
       {std::pair{0xFFFFFFFFu, 0xFFFFFFFFu}, std::pair{0x02000000u, 128u},  // 2^32 bytes
        std::pair{0x02000001u, 128u}, std::pair{0x80000000u, 0x80000000u},
        std::pair{0x10000u, 0x10000u}}) {
    Bytes tables = GptTables(spec);
    kqtest::Set32(&tables, 512 + 80, count);
    kqtest::Set32(&tables, 512 + 84, size);
    SealGpt(&tables, 512);
    EXPECT_FALSE(Read(tables)) << count;
  }
}

TEST(ReadGptTable, OffsetsAndLengthsWrapAround) {
  GptSpec spec = Disk();
  spec.firstUsableLba = 0x8000000000000001;
  spec.lastUsableLba = 0;
  spec.entries = {{0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF, 0, u""}, {5, 4, 0, u""}, {5, 3, 0, u""}};
  const auto first = Read(GptTables(spec), 1);
  ASSERT_TRUE(first && first->partition);
  EXPECT_EQ(first->usableOffsetBytes, 512u);
  EXPECT_EQ(first->usableLengthBytes, 0u);
  EXPECT_EQ(first->partition->offsetBytes, 0xFFFFFFFFFFFFFE00u);
  EXPECT_EQ(first->partition->lengthBytes, 512u);
  EXPECT_EQ(Read(GptTables(spec), 2)->partition->lengthBytes, 0u);
  EXPECT_EQ(Read(GptTables(spec), 3)->partition->lengthBytes, 0xFFFFFFFFFFFFFE00u);
}

TEST(ReadGptTable, PartitionNumbersCountFrom1ToTheLastEntry) {
  GptSpec spec = Disk();
  spec.entries.resize(128);
  spec.entries[127] = {7777, 8888, 0, u"last"};
  const Bytes tables = GptTables(spec);
  EXPECT_FALSE(Read(tables, 0)->partition);
  const auto last = Read(tables, 128);
  ASSERT_TRUE(last && last->partition);
  EXPECT_EQ(last->partition->offsetBytes, 7777u * 512);
  for (const std::uint32_t number :
       {129u, 130u, 136u, 137u, 1000u, 0x02000001u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    const auto table = Read(tables, number);
    ASSERT_TRUE(table);
    EXPECT_FALSE(table->partition) << number;
  }
  // Also where the copy goes on behind the entries.
  Bytes longer = tables;
  longer.resize(tables.size() + 8192, 0x11);
  EXPECT_FALSE(Read(longer, 129)->partition);
  EXPECT_FALSE(Read(longer, 136)->partition);
}

TEST(ReadGptTable, AnUnusedEntryIsFoundAsItIs) {
  const auto table = Read(GptTables(Disk()), 77);
  ASSERT_TRUE(table && table->partition);
  EXPECT_EQ(table->partition->offsetBytes, 0u);
  EXPECT_EQ(table->partition->lengthBytes, 512u);
}

TEST(ReadGptTable, EntriesOfTheLastSectorCountThoughTheHeaderDoesNot) {
  GptSpec spec = Disk();
  spec.entryCount = 2;  // of four that a sector holds
  const Bytes tables = GptTables(spec);
  EXPECT_TRUE(Read(tables, 2)->partition);
  EXPECT_TRUE(Read(tables, 4)->partition);
  EXPECT_FALSE(Read(tables, 5)->partition);
}

TEST(ReadGptTable, PartitionNeedsAllBytesInFrontAndEntriesToBeAMultipleOfAnEntry) {
  GptSpec spec = Disk();
  spec.entries.clear();
  // 16 entries of 384 bytes: 6,144 bytes, and 7,168 with what is in front, which 384 does not
  // divide.
  spec.entryCount = 16;
  spec.entryBytes = 384;
  const auto table = Read(GptTables(spec), 1);
  ASSERT_TRUE(table);
  EXPECT_FALSE(table->partition);
  // One entry of 384 bytes in a sector of 512: 1,536 bytes in all are four entries.
  spec.entryCount = 1;
  EXPECT_TRUE(Read(GptTables(spec), 1)->partition);
  EXPECT_TRUE(Read(GptTables(spec), 2)->partition);
  EXPECT_FALSE(Read(GptTables(spec), 3)->partition);
}

TEST(ReadGptTable, EntryThatEndsBehindTheTablesIsNotFound) {
  // 130 entries are 16,640 bytes, which take 174 sectors of 96 bytes, 16,704 bytes; together with
  // the 192 bytes in front that is a multiple of 128. Entry 131 begins 64 bytes before the end.
  GptSpec spec = Disk(96);
  spec.entryCount = 130;  // 16,640 bytes in 174 sectors
  Bytes tables = GptTables(spec);
  ASSERT_EQ(tables.size(), 192u + 174 * 96);
  EXPECT_TRUE(Read(tables, 130, 96)->partition);
  EXPECT_FALSE(Read(tables, 131, 96)->partition);
}

TEST(ReadGptTable, ProtectiveMbrHasNothingButProtectiveEntries) {
  struct Case {
    std::vector<int> types;
    bool protective;
  };
  for (const Case& test : {Case{{0xEE, 0, 0, 0}, true}, Case{{0, 0, 0, 0xEE}, true},
                           Case{{0xEE, 0xEE, 0xEE, 0xEE}, true}, Case{{0, 0, 0, 0}, false},
                           Case{{0xEE, 7, 0, 0}, false}, Case{{7, 0xEE, 0, 0}, false},
                           Case{{0xEE, 0, 0, 0x83}, false}, Case{{0xEF, 0, 0, 0}, false}}) {
    Bytes tables = GptTables(Disk());
    for (std::size_t i = 0; i < 4; ++i) {
      tables[450 + 16 * i] = static_cast<std::uint8_t>(test.types[i]);
    }
    const auto table = Read(tables);
    ASSERT_TRUE(table);
    EXPECT_EQ(table->protectiveMbr, test.protective);
    tables[511] = 0;
    EXPECT_FALSE(Read(tables)->protectiveMbr);
    tables[511] = 0xAA;
    tables[510] = 0;
    EXPECT_FALSE(Read(tables)->protectiveMbr);
  }
}

}  // namespace
}  // namespace kq
