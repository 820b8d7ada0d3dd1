#include "header/mbr_walk.h"

#include <gtest/gtest.h>

#include "header/partition_tables_test.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::Joined;
using kqtest::TableSector;

constexpr std::uint32_t kAny = 0xFFFFFFFF;

// A disk with two primary partitions, an extended one, and in it three logical ones.
Bytes DiskTables(std::size_t sectorSize = 512) {
  return Joined(
      {TableSector(
           {{7, 2048, 1000, 0x80}, {0x83, 4096, 2000}, {5, 10000, 90000}, {0x27, 200000, 77}},
           0xCAFEF00D, sectorSize),
       TableSector({{0x83, 63, 100}, {5, 1000, 500}}, 1, sectorSize),
       TableSector({{0x0C, 64, 200, 0x80}, {5, 2000, 600}}, 2, sectorSize),
       TableSector({{0x0B, 65, 300}}, 3, sectorSize)});
}

std::optional<MbrPartition> Find(const Bytes& tables, std::uint32_t number,
                                 std::uint32_t sectorSize = 512) {
  const auto found = ReadMbrTables(tables, sectorSize, number);
  EXPECT_TRUE(found);
  return found ? found->partition : std::nullopt;
}

TEST(ReadMbrTables, TellsTheDiskSignature) {
  const auto found = ReadMbrTables(DiskTables(), 512, kAny);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->diskSignature, 0xCAFEF00D);
  EXPECT_FALSE(found->partition);
}

TEST(ReadMbrTables, FindsPrimaryPartitionsByNumber) {
  const auto first = Find(DiskTables(), 1);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->offsetBytes, 2048u * 512);
  EXPECT_EQ(first->lengthBytes, 1000u * 512);
  EXPECT_TRUE(first->active);
  EXPECT_TRUE(first->inMbr);
  EXPECT_EQ(first->type, 7);
  EXPECT_EQ(first->sectorsInFront, 2047u);

  const auto second = Find(DiskTables(), 2);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->offsetBytes, 4096u * 512);
  EXPECT_FALSE(second->active);
  EXPECT_TRUE(second->inMbr);
  EXPECT_EQ(second->type, 0x83);
  // Only the MBR's first entry has sectors in front.
  EXPECT_EQ(second->sectorsInFront, 0u);
}

TEST(ReadMbrTables, ExtendedPartitionsHaveNoNumber) {
  const auto third = Find(DiskTables(), 3);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->type, 0x27);
  EXPECT_TRUE(third->inMbr);
}

TEST(ReadMbrTables, OffsetOfALogicalPartitionMixesBytesAndSectors) {
  // Links count from the extended partition's start, whichever table they stand in.
  struct Expected {
    std::uint32_t number, start, length;
    std::uint64_t location;
    std::uint8_t type;
  };
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    for (const Expected& expected :
         {Expected{4, 63, 100, 10000, 0x83}, Expected{5, 64, 200, 11000, 0x0C},
          Expected{6, 65, 300, 12000, 0x0B}}) {
      const auto found = Find(DiskTables(sectorSize), expected.number, sectorSize);
      ASSERT_TRUE(found);
      EXPECT_EQ(found->offsetBytes, std::uint64_t{expected.start} * sectorSize + expected.location);
      EXPECT_EQ(found->lengthBytes, std::uint64_t{expected.length} * sectorSize);
      EXPECT_EQ(found->type, expected.type);
      EXPECT_EQ(found->active, expected.number == 5);
      EXPECT_FALSE(found->inMbr);
      EXPECT_EQ(found->sectorsInFront, 0u);
    }
  }
}

TEST(ReadMbrTables, NumberBeyondTheLastFindsNone) {
  EXPECT_FALSE(Find(DiskTables(), 7));
  EXPECT_FALSE(Find(DiskTables(), kAny));
}

TEST(ReadMbrTables, Number0SelectsTheLastOfAllTables) {
  const auto last = Find(DiskTables(), 0);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->type, 0x0B);
  EXPECT_EQ(last->offsetBytes, 65u * 512 + 12000);
  const auto inMbr = Find(TableSector({{7, 63, 10}, {}, {6, 100, 20}, {}}), 0);
  ASSERT_TRUE(inMbr);
  EXPECT_EQ(inMbr->type, 6);
  EXPECT_FALSE(Find(TableSector({}), 0));
  EXPECT_FALSE(Find(TableSector({{5, 63, 10}}), 0));
}

TEST(ReadMbrTables, OnlyTypes5And15AreExtended) {
  for (int type = 1; type < 256; ++type) {
    const auto kind = static_cast<std::uint8_t>(type);
    const Bytes tables = Joined({TableSector({{kind, 1000, 5000}}), TableSector({{0x83, 1, 2}})});
    const auto found = Find(tables, 1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->inMbr, type != 5 && type != 15) << type;
    EXPECT_EQ(found->type, type == 5 || type == 15 ? 0x83 : type);
  }
}

TEST(ReadMbrTables, EmptySlotsAreSkippedAndOnlyTheFirstSlotHasSectorsInFront) {
  const auto found = Find(TableSector({{}, {7, 63, 10}}), 1);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->offsetBytes, 63u * 512);
  EXPECT_EQ(found->sectorsInFront, 0u);
  // The first slot of an extended boot record is not the MBR's.
  const auto logical = Find(Joined({TableSector({{5, 100, 1000}}), TableSector({{7, 63, 10}})}), 1);
  ASSERT_TRUE(logical);
  EXPECT_EQ(logical->sectorsInFront, 0u);
}

TEST(ReadMbrTables, SectorsInFrontOfAStartAt0WrapAround) {
  const auto found = Find(TableSector({{7, 0, 10}}), 1);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->sectorsInFront, 0xFFFFFFFFu);
}

TEST(ReadMbrTables, OfSeveralLinksInOneTableTheLastCounts) {
  // In the MBR the second link is added to the first, and becomes the base for the tables behind.
  const Bytes tables =
      Joined({TableSector({{5, 1000, 10}, {15, 300, 10}}),
              TableSector({{7, 1, 1}, {5, 50, 1}, {5, 60, 1}}), TableSector({{6, 2, 1}})});
  const auto first = Find(tables, 1);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->offsetBytes, 512u + 1300);
  const auto second = Find(tables, 2);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->offsetBytes, 1024u + 300 + 60);
}

TEST(ReadMbrTables, PartitionsBehindALinkInItsTableCountBeforeTheNextTable) {
  const Bytes tables = Joined({TableSector({{5, 1000, 10}, {7, 63, 5}}), TableSector({{6, 1, 1}})});
  const auto first = Find(tables, 1);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->type, 7);
  EXPECT_EQ(first->offsetBytes, 63u * 512);
  EXPECT_EQ(first->sectorsInFront, 0u);
  const auto second = Find(tables, 2);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->type, 6);
}

TEST(ReadMbrTables, WithoutALinkTheWalkEndsThoughTablesFollow) {
  const Bytes tables = Joined({TableSector({{7, 63, 10}}), TableSector({{6, 1, 1}})});
  EXPECT_FALSE(Find(tables, 2));
  const auto last = Find(tables, 0);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->type, 7);
  // The link of one table is forgotten in the next.
  const Bytes three =
      Joined({TableSector({{5, 63, 10}}), TableSector({{6, 1, 1}}), TableSector({{0x0B, 1, 1}})});
  EXPECT_FALSE(Find(three, 2));
  // A link to sector 0 is none.
  EXPECT_FALSE(Find(Joined({TableSector({{5, 0, 10}}), TableSector({{6, 1, 1}})}), 1));
  // Behind the MBR a link of 0 points at the extended partition's start, and is one.
  const Bytes circle = Joined({TableSector({{5, 63, 10}}), TableSector({{6, 1, 1}, {5, 0, 10}}),
                               TableSector({{0x0B, 1, 1}})});
  const auto behind = Find(circle, 2);
  ASSERT_TRUE(behind);
  EXPECT_EQ(behind->offsetBytes, 512u + 63);
}

TEST(ReadMbrTables, LinkBehindTheLastTableEndsTheWalk) {
  const Bytes tables = Joined({TableSector({{5, 63, 10}}), TableSector({{6, 1, 1}, {5, 9, 9}})});
  EXPECT_FALSE(Find(tables, 2));
  EXPECT_TRUE(Find(tables, 1));
}

TEST(ReadMbrTables, EverySectorMustEndAsATable) {
  Bytes tables = Joined({DiskTables(), TableSector({})});
  ASSERT_TRUE(ReadMbrTables(tables, 512, 1));
  for (std::size_t sector = 0; sector < 5; ++sector) {
    for (const std::size_t place : {510u, 511u}) {
      Bytes damaged = tables;
      damaged[sector * 512 + place] ^= 1;
      EXPECT_FALSE(ReadMbrTables(damaged, 512, 1)) << sector;
    }
  }
  // At offset 510 in a larger sector too.
  Bytes large = DiskTables(4096);
  EXPECT_TRUE(ReadMbrTables(large, 4096, 1));
  large[3 * 4096 + 510] = 0;
  EXPECT_FALSE(ReadMbrTables(large, 4096, 1));
}

TEST(ReadMbrTables, SectorsBelow512BytesOrNoneAreNoTables) {
  const Bytes tables = TableSector({{7, 63, 10}});
  EXPECT_FALSE(ReadMbrTables(tables, 256, 1));
  EXPECT_FALSE(ReadMbrTables(tables, 511, 1));
  EXPECT_TRUE(ReadMbrTables(tables, 512, 1));
  EXPECT_FALSE(ReadMbrTables(tables, 513, 1));
  EXPECT_FALSE(ReadMbrTables({}, 512, 1));
}

TEST(ReadMbrTables, TheLargestNumbersDontOverflow) {
  const Bytes tables =
      Joined({TableSector({{7, 0xFFFFFFFF, 0xFFFFFFFF}, {5, 0xFFFFFFFF, 1}}, 0, 4096),
              TableSector({{6, 1, 1}, {5, 0xFFFFFFFF, 1}}, 0, 4096),
              TableSector({{0x0B, 0xFFFFFFFF, 0xFFFFFFFF}}, 0, 4096)});
  const auto first = Find(tables, 1, 4096);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->offsetBytes, 0xFFFFFFFFull * 4096);
  EXPECT_EQ(first->lengthBytes, 0xFFFFFFFFull * 4096);
  const auto third = Find(tables, 3, 4096);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->offsetBytes, 0xFFFFFFFFull * 4096 + 2 * 0xFFFFFFFFull);
}

}  // namespace
}  // namespace kq
