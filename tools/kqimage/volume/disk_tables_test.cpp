// Tables that no tool makes. Disks that real tools have partitioned are in tests/client.
#include "kqimage/volume/disk_tables.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace kqimage {
namespace {

constexpr std::uint32_t kSector = 512;

class DiskTablesTest : public testing::Test {
 protected:
  void Entry(std::size_t sector, std::size_t slot, std::uint8_t type, std::uint32_t start,
             std::uint32_t length, std::uint8_t boot = 0) {
    std::byte* const entry = &disk_[sector * kSector + 446 + slot * 16];
    entry[0] = std::byte{boot};
    entry[4] = std::byte{type};
    std::memcpy(entry + 8, &start, 4);
    std::memcpy(entry + 12, &length, 4);
    Sign(sector);
  }
  void Sign(std::size_t sector) {
    disk_[sector * kSector + 510] = std::byte{0x55};
    disk_[sector * kSector + 511] = std::byte{0xAA};
  }
  ReadDisk Reader() const {
    return [this](std::uint64_t offset, std::span<std::byte> bytes) {
      if (offset > disk_.size() || bytes.size() > disk_.size() - offset) return false;
      std::memcpy(bytes.data(), disk_.data() + offset, bytes.size());
      return true;
    };
  }
  std::optional<DiskTables> Read() const { return ReadDiskTables(Reader(), kSector); }

  std::vector<std::byte> disk_ = std::vector<std::byte>(1000 * kSector);
};

TEST_F(DiskTablesTest, NumbersFollowSlotsAndOrdinalsThePartitionsThatAreThere) {
  Entry(0, 1, 0x83, 10, 5, 0x80);
  Entry(0, 2, 0x05, 100, 300);
  Entry(0, 3, 0x07, 20, 6);
  Entry(100, 0, 0x83, 1, 7);
  Entry(100, 1, 0x05, 50, 20);
  Entry(150, 0, 0x0C, 2, 8);
  const auto tables = Read();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->style, kStyleMbr);
  EXPECT_EQ(tables->copy.size(), 3u * kSector);
  ASSERT_EQ(tables->partitions.size(), 4u);
  struct Expected {
    std::uint32_t number, ordinal, start, length;
    bool isLogical;
  };
  std::size_t i = 0;
  for (const Expected& expected : {Expected{2, 1, 10, 5, false},
                                   {4, 2, 20, 6, false},
                                   {5, 3, 101, 7, true},
                                   {6, 4, 152, 8, true}}) {
    const DiskPartition& partition = tables->partitions[i++];
    EXPECT_EQ(partition.number, expected.number);
    EXPECT_EQ(partition.ordinal, expected.ordinal);
    EXPECT_EQ(partition.offset, expected.start * kSector);
    EXPECT_EQ(partition.length, expected.length * kSector);
    EXPECT_EQ(partition.isLogical, expected.isLogical);
    EXPECT_EQ(partition.isActive, expected.number == 2);
  }
  // The copy alone says the same.
  const auto again = ParseMbrCopy(tables->copy, kSector);
  ASSERT_TRUE(again.has_value());
  ASSERT_EQ(again->partitions.size(), 4u);
  for (i = 0; i < 4; ++i) {
    EXPECT_EQ(again->partitions[i].offset, tables->partitions[i].offset);
    EXPECT_EQ(again->partitions[i].number, tables->partitions[i].number);
  }
}

TEST_F(DiskTablesTest, ALinuxExtendedPartitionIsFollowedToo) {
  Entry(0, 0, 0x85, 100, 300);
  Entry(100, 0, 0x83, 1, 7);
  const auto tables = Read();
  ASSERT_TRUE(tables.has_value());
  ASSERT_EQ(tables->partitions.size(), 1u);
  EXPECT_EQ(tables->partitions[0].number, 5u);
  EXPECT_EQ(tables->partitions[0].ordinal, 1u);
}

TEST_F(DiskTablesTest, ACircleOfExtendedRecordsEnds) {
  Entry(0, 0, 0x05, 100, 300);
  Entry(100, 0, 0x83, 1, 7);
  Entry(100, 1, 0x05, 50, 20);
  Entry(150, 0, 0x83, 1, 7);
  Entry(150, 1, 0x05, 50, 20);
  const auto tables = Read();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->copy.size(), 101u * kSector);
}

TEST_F(DiskTablesTest, ALinkToNowhereEndsTheWalk) {
  Entry(0, 0, 0x05, 100, 300);
  Entry(100, 0, 0x83, 1, 7);
  Entry(100, 1, 0x05, 0x7FFFFFFF, 20);
  ASSERT_TRUE(Read().has_value());
  EXPECT_EQ(Read()->copy.size(), 2u * kSector);
  Entry(100, 1, 0x05, 50, 20);  // to a sector that is no table
  EXPECT_EQ(Read()->copy.size(), 2u * kSector);
}

TEST_F(DiskTablesTest, WhatIsNoTableIsRefused) {
  EXPECT_FALSE(Read().has_value()) << "zeros";
  Entry(0, 0, 0x83, 1, 7);
  EXPECT_TRUE(Read().has_value());
  Entry(0, 2, 0x83, 1, 7, 0x42);  // code, as a file system's boot sector has there
  EXPECT_FALSE(Read().has_value());
  disk_.resize(100);
  EXPECT_FALSE(Read().has_value());
}

class GptTest : public DiskTablesTest {
 protected:
  void SetUp() override {
    Entry(0, 0, 0xEE, 1, 999);
    std::memcpy(&disk_[kSector], "EFI PART", 8);
    Header64(72, 2);
    Header32(80, 128);
    Header32(84, 128);
    Partition(2, 0, 40, 49);
    Partition(2, 4, 60, 60);
  }
  void Header32(std::size_t at, std::uint32_t value) {
    std::memcpy(&disk_[kSector + at], &value, 4);
  }
  void Header64(std::size_t at, std::uint64_t value) {
    std::memcpy(&disk_[kSector + at], &value, 8);
  }
  void Partition(std::size_t tableSector, std::size_t slot, std::uint64_t first,
                 std::uint64_t last) {
    std::byte* const entry = &disk_[tableSector * kSector + slot * 128];
    entry[0] = std::byte{1};
    std::memcpy(entry + 32, &first, 8);
    std::memcpy(entry + 40, &last, 8);
  }
};

TEST_F(GptTest, EntriesAreNumberedByTheirPlace) {
  const auto tables = Read();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->style, kStyleGpt);
  EXPECT_EQ(tables->copy.size(), 34u * kSector);
  ASSERT_EQ(tables->partitions.size(), 2u);
  EXPECT_EQ(tables->partitions[1].number, 5u);
  EXPECT_EQ(tables->partitions[1].ordinal, 5u);
  EXPECT_EQ(tables->partitions[0].offset, 40u * kSector);
  EXPECT_EQ(tables->partitions[0].length, 10u * kSector);
  EXPECT_EQ(tables->partitions[1].length, kSector);
}

TEST_F(GptTest, EntriesFarFromTheHeaderFollowItInTheCopy) {
  Header64(72, 500);
  Partition(500, 0, 700, 799);
  const auto tables = Read();
  ASSERT_TRUE(tables.has_value());
  ASSERT_EQ(tables->partitions.size(), 1u);
  EXPECT_EQ(tables->partitions[0].offset, 700u * kSector);
  EXPECT_EQ(0, std::memcmp(&tables->copy[2 * kSector], &disk_[500 * kSector], 128));
}

TEST_F(GptTest, FewEntriesStillTake16KiB) {
  Header32(80, 4);
  ASSERT_TRUE(Read().has_value());
  EXPECT_EQ(Read()->copy.size(), 34u * kSector);
  EXPECT_EQ(Read()->partitions.size(), 1u);
}

TEST_F(GptTest, WithoutAProtectiveEntryTheMbrCounts) {
  Entry(0, 0, 0x83, 1, 7);
  ASSERT_TRUE(Read().has_value());
  EXPECT_EQ(Read()->style, kStyleMbr);
}

TEST_F(GptTest, SizesThatMakeNoSenseAreNoGpt) {
  for (const std::uint32_t count : {0u, 0xFFFFFFFFu, 2000u}) {
    Header32(80, count);
    EXPECT_NE(Read().value_or(DiskTables{}).style, kStyleGpt) << count;
  }
  Header32(80, 128);
  for (const std::uint32_t bytes : {0u, 64u, 0xFFFFFFFFu}) {
    Header32(84, bytes);
    EXPECT_NE(Read().value_or(DiskTables{}).style, kStyleGpt) << bytes;
  }
  Header32(84, 128);
  for (const std::uint64_t place :
       {std::uint64_t{999}, ~std::uint64_t{0}, std::uint64_t{1} << 55}) {
    Header64(72, place);
    EXPECT_NE(Read().value_or(DiskTables{}).style, kStyleGpt) << place;
  }
}

TEST_F(GptTest, ItsPlaceTellsTheSizeOfTheSectors) {
  EXPECT_EQ(SectorSizeOfGpt(Reader()), 512u);
  std::memset(&disk_[kSector], 0, 8);
  EXPECT_EQ(SectorSizeOfGpt(Reader()), std::nullopt);
  std::memcpy(&disk_[4096], "EFI PART", 8);
  EXPECT_EQ(SectorSizeOfGpt(Reader()), 4096u);
}

}  // namespace
}  // namespace kqimage
