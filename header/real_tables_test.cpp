// Disks that sfdisk and sgdisk have partitioned, in the headers of images: what the two queries
// tell of each partition against what sfdisk says. Without these programs the tests fail.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "header/partition_tables_test.h"
#include "kqimageapi.h"
#include "tests/support/temp_dir.h"

namespace kqtest {
namespace {

constexpr std::uint64_t kSector = 512;

std::string RunShell(const std::string& command) {
  FILE* const pipe = popen(("PATH=\"$PATH:/usr/sbin:/sbin\"; " + command + " 2>&1").c_str(), "r");
  std::string output;
  char buffer[4096];
  for (std::size_t count = 0; (count = fread(buffer, 1, sizeof buffer, pipe)) != 0;) {
    output.append(buffer, count);
  }
  EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
  return output;
}

// Keys and values of each object that begins with "node" in the output of sfdisk --json, which
// writes one pair a line.
using Fields = std::map<std::string, std::string>;
struct DiskOutput {
  Fields table;
  std::vector<Fields> partitions;
};
DiskOutput ParseSfdiskJson(const std::string& json) {
  DiskOutput disk;
  std::istringstream lines(json);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t keyStart = line.find('"');
    const std::size_t colon = line.find("\":");
    if (keyStart == std::string::npos || colon == std::string::npos) continue;
    const std::string key = line.substr(keyStart + 1, colon - keyStart - 1);
    std::string value = line.substr(colon + 2);
    const std::size_t first = value.find_first_not_of(" \"");
    const std::size_t last = value.find_last_not_of(" \",");
    if (first == std::string::npos || last == std::string::npos) continue;
    value = value.substr(first, last - first + 1);
    if (key == "node") disk.partitions.emplace_back();
    (disk.partitions.empty() ? disk.table : disk.partitions.back())[key] = value;
  }
  return disk;
}

std::uint64_t Number(const Fields& fields, const std::string& key, int base = 10) {
  const auto found = fields.find(key);
  EXPECT_NE(found, fields.end()) << key;
  return found == fields.end() ? 0 : std::stoull(found->second, nullptr, base);
}

// A GUID as text, from its bytes on disk.
std::string GuidText(const Bytes& bytes, std::size_t at) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                Get32(bytes, at), Get16(bytes, at + 4), Get16(bytes, at + 6), bytes[at + 8],
                bytes[at + 9], bytes[at + 10], bytes[at + 11], bytes[at + 12], bytes[at + 13],
                bytes[at + 14], bytes[at + 15]);
  return text;
}

class RealTablesTest : public testing::Test {
 protected:
  RealTablesTest() {
    const std::ofstream create(disk_);
    std::filesystem::resize_file(disk_, 100ul << 20);  // sparse
  }

  void Partition(const std::string& script) {
    std::ofstream(script_) << script;
    RunShell("sfdisk --no-reread --no-tell-kernel -q " + disk_ + " < " + script_);
  }
  DiskOutput Describe() const { return ParseSfdiskJson(RunShell("sfdisk --json " + disk_)); }

  Bytes DiskSectors(std::uint64_t first, std::uint64_t count) const {
    Bytes bytes(count * kSector);
    std::ifstream file(disk_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(first * kSector));
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    EXPECT_TRUE(file);
    return bytes;
  }

  // The MBR and each extended boot record in the order of the links, which count from the extended
  // partition. places receives where the extended boot records lie.
  Bytes TablesOfMbrDisk(std::vector<std::uint64_t>* places) const {
    Bytes tables = DiskSectors(0, 1);
    std::uint64_t extendedStart = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      const std::uint8_t type = tables[446 + 16 * i + 4];
      if (type == 5 || type == 15) extendedStart = Get32(tables, 446 + 16 * i + 8);
    }
    for (std::uint64_t place = extendedStart; place != 0;) {
      places->push_back(place);
      const Bytes record = DiskSectors(place, 1);
      Append(&tables, record);
      const std::uint32_t link = record[462 + 4] == 0 ? 0 : Get32(record, 462 + 8);
      place = link == 0 ? 0 : extendedStart + link;
    }
    return tables;
  }

  void WriteImage(std::uint32_t style, std::uint32_t partitionNumber, const Bytes& tables) {
    ProtectedFields fields;
    fields.partitionStyle = style;
    fields.partitionNumber = partitionNumber;
    WriteFile(image_,
              BuildImage(ImageWithLaterSectors(Joined({ProtectedSectorBytes(fields), tables}))));
  }
  Bytes Info() const {
    Bytes info(593);
    std::uint32_t size = 593;
    EXPECT_EQ(KQImageFileGetInfoProtected(image_.c_str(), nullptr,
                                          reinterpret_cast<ProtectedInfo*>(info.data()), &size)
                  .status,
              0);
    return info;
  }
  Bytes InfoEx() const {
    Bytes info(264);
    std::uint32_t size = 264;
    EXPECT_EQ(KQImageFileGetInfoProtectedEx(image_.c_str(), nullptr, 0,
                                            reinterpret_cast<ProtectedInfoEx*>(info.data()), &size)
                  .status,
              0);
    return info;
  }

  TempDir dir_;
  std::string disk_ = dir_.Path("disk.img");
  std::string script_ = dir_.Path("script");
  std::string image_ = dir_.Path("image.twf");
};

TEST_F(RealTablesTest, PrimaryAndLogicalPartitionsOfAnMbrDisk) {
  Partition(
      "label: dos\n"
      "label-id: 0xa1b2c3d4\n"
      "start=2048, size=20480, type=7, bootable\n"
      "start=24576, size=2048, type=83\n"
      "start=40960, size=120000, type=5\n"
      "start=170000, size=3000, type=27\n"
      "start=43008, size=10240, type=83\n"
      "start=61440, size=8192, type=7\n"
      "start=80000, size=4096, type=c\n"
      "start=100000, size=2048, type=83\n");
  const DiskOutput disk = Describe();
  ASSERT_EQ(disk.partitions.size(), 8u);
  std::vector<std::uint64_t> places;
  const Bytes tables = TablesOfMbrDisk(&places);
  ASSERT_EQ(places.size(), 4u);

  std::uint32_t number = 0;
  std::size_t logical = 0;
  std::uint64_t summedLinks = places[0];
  for (const Fields& partition : disk.partitions) {
    const std::uint64_t type = Number(partition, "type", 16);
    if (type == 5) continue;
    ++number;
    SCOPED_TRACE(partition.at("node"));
    const std::uint64_t start = Number(partition, "start");
    const std::uint64_t size = Number(partition, "size");
    const bool bootable = partition.contains("bootable");
    // Primary partitions come first, as sfdisk lists them.
    const bool primary = number <= 3;
    // Both answers have their own idea of where a logical partition lies.
    std::uint64_t sum = start * kSector;
    std::uint64_t mixed = start * kSector;
    std::uint64_t inTable = start;
    if (!primary) {
      const std::uint64_t place = places[logical];
      if (logical > 0) summedLinks += place - places[0];
      inTable = start - place;
      sum = (summedLinks + inTable) * kSector;
      mixed = inTable * kSector + place;
      ++logical;
      // Up to the second logical partition the sum is where the disk has it.
      EXPECT_EQ(sum == start * kSector, logical <= 2);
    }

    WriteImage(1, number, tables);
    const Bytes info = Info();
    EXPECT_EQ(info[555], 1);
    EXPECT_EQ(Get32(info, 556), Number(disk.table, "id", 16));
    EXPECT_EQ(Get64(info, 560), size * kSector);
    EXPECT_EQ(Get64(info, 568), sum);
    EXPECT_EQ(info[576], bootable ? 1 : 0);
    EXPECT_EQ(info[578], type);
    EXPECT_EQ(Get32(info, 579), inTable);
    if (primary || logical <= 2) {
      EXPECT_EQ(info[577], primary ? 1 : 0);
    }

    const Bytes ex = InfoEx();
    EXPECT_EQ(ex[87], 1);
    EXPECT_EQ(ex[88], 1);
    EXPECT_EQ(Get64(ex, 89), mixed);
    EXPECT_EQ(Get64(ex, 97), size * kSector);
    EXPECT_EQ(Get32(ex, 105), Number(disk.table, "id", 16));
    EXPECT_EQ(ex[109], bootable ? 1 : 0);
    EXPECT_EQ(ex[110], primary ? 1 : 0);
    EXPECT_EQ(ex[111], type);
    EXPECT_EQ(Get32(ex, 112), number == 1 ? start - 1 : 0);
  }
  EXPECT_EQ(number, 7u);
  WriteImage(1, 8, tables);
  EXPECT_EQ(InfoEx()[88], 0);
  EXPECT_EQ(Get64(Info(), 560), 0u);
  // The last one, which sfdisk lists last.
  WriteImage(1, 0, tables);
  EXPECT_EQ(Get64(InfoEx(), 97), 2048u * kSector);
}

TEST_F(RealTablesTest, MbrDiskWithoutAnExtendedPartition) {
  Partition(
      "label: dos\n"
      "label-id: 0x00000001\n"
      "start=63, size=8001, type=c\n"
      "start=16384, size=65536, type=83, bootable\n");
  const DiskOutput disk = Describe();
  std::vector<std::uint64_t> places;
  const Bytes tables = TablesOfMbrDisk(&places);
  ASSERT_TRUE(places.empty());
  ASSERT_EQ(disk.partitions.size(), 2u);
  for (std::uint32_t number = 1; number <= 2; ++number) {
    const Fields& partition = disk.partitions[number - 1];
    WriteImage(1, number, tables);
    EXPECT_EQ(Get64(InfoEx(), 89), Number(partition, "start") * kSector);
    EXPECT_EQ(Get64(Info(), 568), Number(partition, "start") * kSector);
    EXPECT_EQ(Get64(InfoEx(), 97), Number(partition, "size") * kSector);
    EXPECT_EQ(Get64(Info(), 560), Number(partition, "size") * kSector);
    EXPECT_EQ(Info()[577], 1);
  }
}

class RealGptTest : public RealTablesTest {
 protected:
  // Every partition of the disk as both sides tell it.
  void CompareAll(std::uint64_t entrySectors) {
    const DiskOutput disk = Describe();
    const Bytes tables = DiskSectors(0, 2 + entrySectors);
    for (const Fields& partition : disk.partitions) {
      const std::string& node = partition.at("node");
      const auto number = static_cast<std::uint32_t>(
          std::stoul(node.substr(node.find_last_not_of("0123456789") + 1)));
      SCOPED_TRACE(number);
      WriteImage(2, number, tables);
      const Bytes ex = InfoEx();
      EXPECT_EQ(ex[87], 1);
      EXPECT_EQ(ex[88], 1);
      EXPECT_EQ(Get64(ex, 89), Number(partition, "start") * kSector);
      EXPECT_EQ(Get64(ex, 97), Number(partition, "size") * kSector);
      EXPECT_EQ(GuidText(ex, 105), disk.table.at("id"));
      EXPECT_EQ(Get64(ex, 121), Number(disk.table, "firstlba") * kSector);
      EXPECT_EQ(Get64(ex, 129),
                (Number(disk.table, "lastlba") + 1 - Number(disk.table, "firstlba")) * kSector);
      EXPECT_EQ(Get32(ex, 137), entrySectors * 4);
      EXPECT_EQ(ex[141], 1);
      EXPECT_EQ(GuidText(ex, 142), partition.at("type"));
      EXPECT_EQ(GuidText(ex, 158), partition.at("uuid"));
      std::string name;
      for (std::size_t at = 182; at < 254 && Get16(ex, at) != 0; at += 2) {
        name += static_cast<char>(Get16(ex, at));
      }
      EXPECT_EQ(name, partition.contains("name") ? partition.at("name") : "");
      std::string attributes;
      if ((Get64(ex, 174) & 1) != 0) attributes += "RequiredPartition";
      if ((Get64(ex, 174) & 4) != 0) attributes += "LegacyBIOSBootable";
      if ((Get64(ex, 174) & 1ull << 63) != 0) attributes += "GUID:63";
      EXPECT_EQ(attributes, partition.contains("attrs") ? partition.at("attrs") : "");
      // Of a GPT the other query tells only that it is none of its tables.
      const Bytes info = Info();
      EXPECT_EQ(Bytes(info.begin() + 555, info.begin() + 583), Bytes(28));
    }
    WriteImage(2, static_cast<std::uint32_t>(entrySectors * 4 + 1), tables);
    EXPECT_EQ(InfoEx()[87], 1);
    EXPECT_EQ(InfoEx()[88], 0);
    // An entry that nobody uses is all zero.
    WriteImage(2, static_cast<std::uint32_t>(entrySectors * 4), tables);
    EXPECT_EQ(Get64(InfoEx(), 97), kSector);
    // One sector of the entries too few.
    WriteImage(2, 1, Bytes(tables.begin(), tables.end() - kSector));
    EXPECT_EQ(InfoEx()[87], 0);
  }
};

TEST_F(RealGptTest, DiskThatSfdiskHasMade) {
  Partition(
      "label: gpt\n"
      "label-id: 6F1A2B3C-4D5E-6F70-8192-A3B4C5D6E7F8\n"
      "start=2048, size=20480, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, name=\"System\"\n"
      "start=24576, size=2048, type=E3C9E316-0B5C-4DB8-817D-F92DF00215AE, attrs=RequiredPartition\n"
      "start=40960, size=120000, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4, name=\"Data 1\"\n");
  CompareAll(32);
}

TEST_F(RealGptTest, DiskThatSgdiskHasMade) {
  RunShell("sgdisk -o -U 0A1B2C3D-1122-3344-5566-778899AABBCC " + disk_);
  RunShell(
      "sgdisk -n 1:2048:6143 -t 1:0700 -c 1:first -A 1:set:2 -n 2:8192:+20M -t 2:8300"
      " -c 2:'A name that takes all of thirty-six!' -n 7:100000:0 -t 7:8200 -A 7:set:63 " +
      disk_);
  CompareAll(32);
}

TEST_F(RealGptTest, DiskWithTwiceTheEntries) {
  RunShell("sgdisk -o -S 256 " + disk_);
  RunShell("sgdisk -n 1:2048:6143 -n 200:8192:+20M " + disk_);
  CompareAll(64);
}

// The copy stays in the header; nothing refers to it any more.
TEST_F(RealGptTest, RepairOfTheGptIssueLeavesNoTableAndKeepsItsSectors) {
  RunShell("sgdisk -o -n 1:2048:6143 " + disk_);
  const Bytes tables = DiskSectors(0, 34);
  WriteImage(2, 1, tables);
  ASSERT_EQ(InfoEx()[88], 1);
  std::uint64_t issues = 2;
  ASSERT_EQ(KQImageFileFixHeader(image_.c_str(), nullptr, &issues, 0, nullptr, nullptr).status, 0);
  const Bytes ex = InfoEx();
  EXPECT_EQ(ex[62], 1);
  EXPECT_EQ(Get32(ex, 79), 0u);
  EXPECT_EQ(Get32(ex, 83), 0xFFFFFFFFu);
  EXPECT_EQ(ex[87], 0);
  Bytes extra(tables.size());
  auto size = static_cast<std::uint32_t>(extra.size());
  ASSERT_EQ(KQImageFileGetExtraSectors(image_.c_str(), nullptr, extra.data(), &size).status, 0);
  EXPECT_EQ(extra, tables);
  ImageFileInfo2 info;
  ASSERT_EQ(KQImageFileGetInfo2(image_.c_str(), &info).status, 0);
  EXPECT_EQ(info.headerChecksumGood, 1);
  EXPECT_EQ(info.extraChecksumGood, 1);
}

}  // namespace
}  // namespace kqtest
