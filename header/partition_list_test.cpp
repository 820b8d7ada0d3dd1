#include "header/partition_list.h"

#include <gtest/gtest.h>

#include <vector>

#include "header/partition_tables_test.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::Joined;
using kqtest::TableSector;

struct List {
  bool sound = false;
  std::vector<PartitionListEntry> entries;
};

List ListOf(const Bytes& tables, std::uint32_t sectorSize = 512) {
  List list;
  list.sound = ParsePartitionTables(
      tables, sectorSize, [&](const PartitionListEntry& entry) { list.entries.push_back(entry); });
  return list;
}

TEST(ParsePartitionTables, ListsAllFourEntriesOfEachTable) {
  const List list =
      ListOf(Joined({TableSector({{7, 2048, 1000, 0x80}, {}, {5, 10000, 9000}, {6, 50000, 7}}),
                     TableSector({{}, {0x83, 63, 100, 0xFF}})}));
  EXPECT_TRUE(list.sound);
  ASSERT_EQ(list.entries.size(), 8u);
  const PartitionListEntry& first = list.entries[0];
  EXPECT_EQ(first.offsetBytes, 2048u * 512);
  EXPECT_EQ(first.lengthBytes, 1000u * 512);
  EXPECT_EQ(first.start, 2048u);
  EXPECT_EQ(first.number, 1u);
  EXPECT_EQ(first.type, 7);
  EXPECT_TRUE(first.active);
  EXPECT_TRUE(first.real);
  const PartitionListEntry& extended = list.entries[2];
  EXPECT_EQ(extended.offsetBytes, 10000u * 512);
  EXPECT_EQ(extended.lengthBytes, 9000u * 512);
  EXPECT_EQ(extended.start, 10000u);
  EXPECT_EQ(extended.number, 0u);
  EXPECT_EQ(extended.type, 5);
  EXPECT_FALSE(extended.active);
  EXPECT_FALSE(extended.real);
  EXPECT_EQ(list.entries[3].number, 2u);
  const PartitionListEntry& logical = list.entries[5];
  EXPECT_EQ(logical.offsetBytes, (10000u + 63) * 512);
  EXPECT_EQ(logical.start, 63u);
  EXPECT_EQ(logical.number, 3u);
  EXPECT_TRUE(logical.active);
}

TEST(ParsePartitionTables, EmptySlotsAreAllZeroWhateverTheyHold) {
  const List list = ListOf(TableSector({{0, 99, 98, 0x80}, {7, 1, 1}}));
  ASSERT_EQ(list.entries.size(), 4u);
  const PartitionListEntry& empty = list.entries[0];
  EXPECT_EQ(empty.offsetBytes, 0u);
  EXPECT_EQ(empty.lengthBytes, 0u);
  EXPECT_EQ(empty.start, 0u);
  EXPECT_EQ(empty.number, 0u);
  EXPECT_EQ(empty.type, 0);
  EXPECT_FALSE(empty.active);
  EXPECT_FALSE(empty.real);
  EXPECT_EQ(list.entries[1].number, 1u);
}

TEST(ParsePartitionTables, ExtendedTypesAreMoreThanThoseOfTheWalk) {
  for (int type = 1; type < 256; ++type) {
    const bool extended = type == 0x05 || type == 0x0F || type == 0x85 || type == 0x8F ||
                          type == 0xC5 || type == 0xCF;
    EXPECT_EQ(IsExtendedType(static_cast<std::uint8_t>(type)), extended) << type;
    const List list = ListOf(Joined({TableSector({{static_cast<std::uint8_t>(type), 100, 1000}}),
                                     TableSector({{0x83, 1, 2}})}));
    EXPECT_TRUE(list.sound);
    EXPECT_EQ(list.entries.size(), extended ? 8u : 4u) << type;
    EXPECT_EQ(list.entries[0].real, !extended);
    EXPECT_EQ(list.entries[0].number, extended ? 0u : 1u);
  }
}

TEST(ParsePartitionTables, BaseSumsAllLinks) {
  const List list =
      ListOf(Joined({TableSector({{5, 1000, 9000}}), TableSector({{7, 10, 5}, {5, 200, 20}}),
                     TableSector({{7, 10, 5}, {5, 400, 20}}), TableSector({{7, 10, 5}})}));
  ASSERT_TRUE(list.sound);
  ASSERT_EQ(list.entries.size(), 16u);
  EXPECT_EQ(list.entries[4].offsetBytes, (1000u + 10) * 512);
  EXPECT_EQ(list.entries[5].offsetBytes, (1000u + 200) * 512);
  EXPECT_EQ(list.entries[8].offsetBytes, (1000u + 200 + 10) * 512);
  EXPECT_EQ(list.entries[12].offsetBytes, (1000u + 200 + 400 + 10) * 512);
}

TEST(ParsePartitionTables, OfSeveralLinksInOneTableTheFirstCounts) {
  const List list = ListOf(
      Joined({TableSector({{7, 1, 1}, {15, 1000, 10}, {5, 300, 10}}), TableSector({{6, 2, 1}})}));
  ASSERT_EQ(list.entries.size(), 8u);
  EXPECT_EQ(list.entries[4].offsetBytes, 1002u * 512);
}

TEST(ParsePartitionTables, SectorsBehindTheLastTableAreNotLookedAt) {
  const Bytes noTable(1024, 0xEE);
  const List list = ListOf(Joined({TableSector({{7, 1, 1}}), noTable}));
  EXPECT_TRUE(list.sound);
  EXPECT_EQ(list.entries.size(), 4u);
}

TEST(ParsePartitionTables, LinkWithoutATableBehindIsAFailure) {
  const Bytes linked = TableSector({{5, 1000, 10}, {7, 1, 1}});
  EXPECT_FALSE(ListOf(linked).sound);
  EXPECT_FALSE(ListOf(Joined({linked, Bytes(512)})).sound);
  EXPECT_TRUE(ListOf(Joined({linked, TableSector({})})).sound);
  Bytes cut = Joined({linked, TableSector({})});
  cut.pop_back();
  EXPECT_FALSE(ListOf(cut).sound);
}

TEST(ParsePartitionTables, FirstTableNeedsItsSignature) {
  for (const std::size_t place : {510u, 511u}) {
    Bytes table = TableSector({{7, 1, 1}});
    table[place] = 0;
    EXPECT_FALSE(ListOf(table).sound);
  }
}

TEST(ParsePartitionTables, NeedsSectorsOf512Bytes) {
  const Bytes table = TableSector({{7, 1, 1}});
  EXPECT_FALSE(ListOf(table, 511).sound);
  EXPECT_FALSE(ListOf(table, 256).sound);
  EXPECT_TRUE(ListOf(table, 512).sound);
  EXPECT_FALSE(ListOf({}).sound);
  EXPECT_FALSE(ListOf(Bytes(table.begin(), table.end() - 1)).sound);
}

TEST(ParsePartitionTables, LinksThatPointAtThemselvesEndWithTheTables) {
  std::vector<Bytes> tables(1000, TableSector({{5, 0, 10}, {5, 0, 10}}));
  EXPECT_FALSE(ListOf(Joined(tables)).sound);
  tables.push_back(TableSector({{7, 3, 1}}));
  const List list = ListOf(Joined(tables));
  EXPECT_TRUE(list.sound);
  ASSERT_EQ(list.entries.size(), 4004u);
  EXPECT_EQ(list.entries[4000].offsetBytes, 3u * 512);
}

TEST(ParsePartitionTables, LargerSectorsHoldOneTableEach) {
  const List list = ListOf(
      Joined({TableSector({{5, 100, 10}}, 0, 4096), TableSector({{7, 3, 0xFFFFFFFF}}, 0, 4096)}),
      4096);
  ASSERT_TRUE(list.sound);
  EXPECT_EQ(list.entries[4].offsetBytes, 103u * 4096);
  EXPECT_EQ(list.entries[4].lengthBytes, 0xFFFFFFFFull * 4096);
}

}  // namespace
}  // namespace kq
