#include "kqimage/volume/disk_of_partition.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kqimage {
namespace {

// A folder that looks like sysfs.
class FindPartitionPlaceTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    sysfs_ = pattern;
    std::filesystem::create_directories(sysfs_ / "dev/block");
  }
  void TearDown() override { std::filesystem::remove_all(sysfs_); }

  // A device with its folder below devices/.
  void Add(const std::string& numbers, const std::string& folder) const {
    std::filesystem::create_directories(sysfs_ / "devices" / folder);
    std::filesystem::create_symlink("../../devices/" + folder, sysfs_ / "dev/block" / numbers);
  }
  void Put(const std::string& file, const std::string& text) const {
    std::ofstream(sysfs_ / "devices" / file) << text << "\n";
  }
  auto Find(unsigned majorNumber, unsigned minorNumber) const {
    return FindPartitionPlace(makedev(majorNumber, minorNumber), sysfs_.string(), "/nodes");
  }

  std::filesystem::path sysfs_;
};

TEST_F(FindPartitionPlaceTest, TellsDiskNumberAndStart) {
  Add("8:0", "pci/block/sda");
  Add("8:5", "pci/block/sda/sda5");
  Put("pci/block/sda/sda5/partition", "5");
  Put("pci/block/sda/sda5/start", "8796093022208");
  const auto place = Find(8, 5);
  ASSERT_TRUE(place.has_value());
  EXPECT_EQ(place->disk, "/nodes/sda");
  EXPECT_EQ(place->number, 5u);
  EXPECT_EQ(place->offset, std::uint64_t{1} << 52) << "sysfs counts in 512 bytes";
}

TEST_F(FindPartitionPlaceTest, ADiskInAFolderOfItsOwnHasASlash) {
  Add("104:1", "block/cciss!c0d0/cciss!c0d0p1");
  Put("block/cciss!c0d0/cciss!c0d0p1/partition", "1");
  Put("block/cciss!c0d0/cciss!c0d0p1/start", "63");
  const auto place = Find(104, 1);
  ASSERT_TRUE(place.has_value());
  EXPECT_EQ(place->disk, "/nodes/cciss/c0d0");
  EXPECT_EQ(place->offset, 63u * 512);
}

TEST_F(FindPartitionPlaceTest, AWholeDiskOrAnUnknownDeviceHasNoPlace) {
  Add("8:0", "pci/block/sda");
  Put("pci/block/sda/start", "0");
  EXPECT_FALSE(Find(8, 0).has_value());
  EXPECT_FALSE(Find(8, 1).has_value());
}

TEST_F(FindPartitionPlaceTest, AFileWithoutANumberGivesNoPlace) {
  Add("8:1", "pci/block/sda/sda1");
  Put("pci/block/sda/sda1/partition", "1");
  EXPECT_FALSE(Find(8, 1).has_value());
  Put("pci/block/sda/sda1/start", "many");
  EXPECT_FALSE(Find(8, 1).has_value());
}

}  // namespace
}  // namespace kqimage
