// Partitions of disks that sfdisk, sgdisk and fdisk have made: what the images of them tell.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>

#include "tests/client/disk_fixture.h"

namespace kqtest {
namespace {

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
  return text;
}

constexpr char kMbrScript[] =
    "label: dos\n"
    "label-id: 0xa1b2c3d4\n"
    "start=2048, size=20480, type=7, bootable\n"
    "start=24576, size=2048, type=83\n"
    "start=40960, size=120000, type=5\n"
    "start=170000, size=3000, type=27\n"
    "start=43008, size=10240, type=83\n"
    "start=61440, size=8192, type=7\n"
    "start=80000, size=4096, type=c\n"
    "start=100000, size=2048, type=83\n";

TEST_F(PartitionTest, EachPartitionOfAnMbrDiskIsToldAsSfdiskTellsIt) {
  Sfdisk(kMbrScript);
  const Json table = Table();
  const std::vector<Partition> partitions = Partitions(table);
  ASSERT_EQ(partitions.size(), 7u);
  PutExt4(partitions[3], "home");
  std::uint32_t count = 0;
  for (const Partition& partition : partitions) {
    SCOPED_TRACE(partition.number);
    PutNoise(partition);
    CreateOf(partition.number);
    EXPECT_TRUE(Restore({Path("a.twf")}) == DiskBytes(partition.offset, partition.size));
    const Json info = Info();
    EXPECT_EQ(info["volumeSize"], partition.size);
    const Json& origin = info["origin"];
    EXPECT_EQ(origin["disk"].get<std::string>().substr(0, 63), Path("disk").substr(0, 63));
    EXPECT_EQ(origin["partitionStyle"], "mbr");
    EXPECT_EQ(origin["partitionNumber"], ++count) << "headers count what is there";
    EXPECT_EQ(origin["table"]["signature"], std::stoul(std::string(table["id"]), nullptr, 16));
    const Json& told = origin["partition"];
    EXPECT_EQ(told["number"], partition.number);
    EXPECT_EQ(told["offset"], partition.offset);
    EXPECT_EQ(told["size"], partition.size);
    EXPECT_EQ(told["type"], partition.fields["type"]);
    EXPECT_EQ(told["isActive"], partition.fields.contains("bootable"));
    EXPECT_EQ(told["isLogical"], partition.number >= 5);
    EXPECT_EQ(origin["label"], partition.number == partitions[3].number ? "home" : "");
    EXPECT_EQ(origin["fileSystem"], partition.number == partitions[3].number ? "ext4" : "");
  }
}

TEST_F(PartitionTest, EachPartitionOfAGptDiskIsToldAsSfdiskTellsIt) {
  MakeDisk();
  Shell("sgdisk -o -U 0A1B2C3D-1122-3344-5566-778899AABBCC '" + Path("disk") + "'");
  Shell(
      "sgdisk -n 1:2048:6143 -t 1:0700 -c 1:first -A 1:set:2 -n 2:8192:+20M -t 2:8300"
      " -c 2:'A name that takes all of thirty-six!' -n 7:100000:+4M -t 7:8200 -A 7:set:0 '" +
      Path("disk") + "'");
  const Json table = Table();
  const std::vector<Partition> partitions = Partitions(table);
  ASSERT_EQ(partitions.size(), 3u);
  PutExt4(partitions[1], "Gr\u00fc\u00dfe");
  for (const Partition& partition : partitions) {
    SCOPED_TRACE(partition.number);
    PutNoise(partition);
    CreateOf(partition.number);
    EXPECT_TRUE(Restore({Path("a.twf")}) == DiskBytes(partition.offset, partition.size));
    const Json origin = Info()["origin"];
    EXPECT_EQ(origin["partitionStyle"], "gpt");
    EXPECT_EQ(origin["partitionNumber"], partition.number);
    EXPECT_EQ(origin["extraBytes"], 34 * 512);
    const Json& told = origin["table"];
    EXPECT_EQ(Upper(told["id"]), table["id"]);
    EXPECT_EQ(told["usableOffset"], table["firstlba"].get<std::uint64_t>() * 512);
    EXPECT_EQ(
        told["usableSize"],
        (table["lastlba"].get<std::uint64_t>() + 1 - table["firstlba"].get<std::uint64_t>()) * 512);
    EXPECT_EQ(told["entryCount"], 128);
    EXPECT_EQ(told["hasProtectiveMbr"], true);
    const Json& place = origin["partition"];
    EXPECT_EQ(place["number"], partition.number);
    EXPECT_EQ(place["offset"], partition.offset);
    EXPECT_EQ(place["size"], partition.size);
    EXPECT_EQ(Upper(place["type"]), partition.fields["type"]);
    EXPECT_EQ(Upper(place["id"]), partition.fields["uuid"]);
    EXPECT_EQ(place["name"], partition.fields.value("name", ""));
    EXPECT_EQ(place["attributes"], partition.number == 1 ? 4 : partition.number == 7 ? 1 : 0);
    EXPECT_EQ(origin["label"], partition.number == 2 ? "Gr\u00fc\u00dfe" : "");
  }
}

// The system tells the disk and the place; where there is no device, the disk's file stands for it.
TEST_F(PartitionTest, APartitionsDeviceTellsTheSameAsThePartitionOfTheDisk) {
  Sfdisk(kMbrScript);
  const Partition partition = Partitions(Table())[5];
  PutExt4(partition, "logical");
  CreateOf(partition.number);
  Json expected = Info()["origin"];
  const LoopDevice loop(Path("disk"));
  if (loop.HasPartition(partition.number)) {
    Create(loop.Partition(partition.number), Path("a.twf"), {"--force"});
    expected["disk"] = loop.Path();
    EXPECT_TRUE(Restore({Path("a.twf")}) == DiskBytes(partition.offset, partition.size));
  }
  EXPECT_EQ(Info()["origin"], expected);
  EXPECT_EQ(expected["partition"]["number"], partition.number);
  EXPECT_EQ(expected["label"], "logical");
}

// fdisk makes tables with sectors of 4096 bytes in a file; sfdisk can't read them there.
TEST_F(PartitionTest, DisksWithLargeSectorsGiveImagesWithLargeSectors) {
  for (const char* label : {"g", "o"}) {
    MakeDisk();
    PutText("script", std::string(label) + "\nn\n" + (*label == 'o' ? "p\n" : "") +
                          "1\n\n+8M\nn\n" + (*label == 'o' ? "p\n" : "") + "2\n\n+12M\nw\n");
    Shell("fdisk -b 4096 '" + Path("disk") + "' <'" + Path("script") + "'");
    const std::string listed =
        Shell("fdisk -b 4096 -l -o Start,Sectors '" + Path("disk") + "' | tail -n 1");
    std::uint64_t start = 0;
    std::uint64_t sectors = 0;
    std::istringstream(listed) >> start >> sectors;
    ASSERT_EQ(sectors, 3072u) << listed;
    PutNoise({2, start * 4096, sectors * 4096, {}});
    // A GPT's place tells the size of the sectors, an MBR's does not.
    CreateOf(2, *label == 'o' ? Arguments{"--sector-size", "4096"} : Arguments{});
    EXPECT_TRUE(Restore({Path("a.twf")}) == DiskBytes(start * 4096, sectors * 4096));
    const Json info = Info();
    EXPECT_EQ(info["sectorSize"], 4096);
    EXPECT_EQ(info["origin"]["partition"]["offset"], start * 4096);
    EXPECT_EQ(info["origin"]["partition"]["size"], sectors * 4096);
  }
}

TEST_F(PartitionTest, SectorsOfAnotherSizeCantKeepTheTables) {
  Sfdisk("label: gpt\nsize=10M, name=\"one\"\n");
  const ClientResult made = RunClient(
      {"create", Path("disk"), Path("a.twf"), "--partition", "1", "--sector-size", "2048"});
  EXPECT_EQ(made.exitStatus, 0) << made.err;
  EXPECT_NE(made.out.find("does not tell its place on the disk: for that it needs --sector-size "
                          "512"),
            std::string::npos)
      << made.out;
  const Json origin = Info()["origin"];
  EXPECT_EQ(origin["partitionStyle"], "none");
  EXPECT_EQ(origin["partition"], nullptr);
}

TEST_F(PartitionTest, AnIncrementTakesThePartitionAndKeepsItsOrigin) {
  Sfdisk(kMbrScript);
  const Partition partition = Partitions(Table())[4];
  PutExt4(partition, "work");
  CreateOf(partition.number);
  const Json before = Info()["origin"];
  PutNoise(partition);
  Increment(Path("disk"), Path("a.twf"), Path("b.twi"),
            {"--partition", std::to_string(partition.number)});
  EXPECT_TRUE(Restore({Path("b.twi")}) == DiskBytes(partition.offset, partition.size));
  const Json after = Json::parse(RunClient({"info", "--json", Path("b.twi")}).out)["origin"];
  EXPECT_EQ(after, before);
  EXPECT_EQ(before["label"], "work");
}

TEST_F(PartitionTest, AnIncrementOfAnotherPartitionIsDoubted) {
  const auto saidOf = [&](std::uint32_t number, const Arguments& options) {
    const ClientResult result =
        RunClient(Joined({"increment", Path("disk"), Path("a.twf"), Path("b.twi"), "--force",
                          "--partition", std::to_string(number)},
                         options));
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result.err;
  };
  PutText("key", "password");
  const Arguments encrypt = {"--encrypt", "aes256", "--password-file", Path("key")};
  const Arguments password = {"--password-file", Path("key")};
  const std::string gpt = "label: gpt\nstart=2048, size=4096\nstart=8192, size=4096\n";
  for (const std::string& script : {std::string(kMbrScript), gpt}) {
    for (const bool isEnciphered : {false, true}) {
      Sfdisk(script);
      const std::vector<Partition> partitions = Partitions(Table());
      for (const std::uint32_t i : {0U, 1U}) PutNoise(partitions[i]);
      CreateOf(1, isEnciphered ? encrypt : Arguments{});
      const Arguments options = isEnciphered ? password : Arguments{};
      PutNoise(partitions[0]);
      EXPECT_EQ(saidOf(1, options), "");
      const std::string doubt = saidOf(2, options);
      EXPECT_TRUE(doubt.starts_with("kqimage: partition 2 of " + Path("disk") +
                                    " may be another volume than that of " + Path("a.twf")))
          << doubt;
      const std::string name =
          script == gpt
              ? "the partition with the id " + Upper(partitions[1].fields["uuid"])
              : "the partition at byte 12582912 of the disk with the signature 0xa1b2c3d4";
      EXPECT_NE(Upper(doubt).find(Upper(name)), std::string::npos) << doubt;
      EXPECT_EQ(saidOf(2, Joined(options, {"--quiet"})), "");
      // Another disk of the same layout.
      Sfdisk(script == gpt
                 ? gpt
                 : "label: dos\nlabel-id: 0x01020304\n" + script.substr(script.find("start")));
      EXPECT_NE(saidOf(1, options), "");
    }
  }
}

TEST_F(PartitionTest, ForTheEyeDiskAndPartitionAreLines) {
  Sfdisk(kMbrScript);
  CreateOf(6);
  const std::string text = InfoText();
  for (const char* line : {" (MBR, signature 0xa1b2c3d4)\n",
                           "Partition         6, 4.0 MiB (4194304 bytes) at byte 31457280\n",
                           "Partition type    0x07, logical\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
}

TEST_F(PartitionTest, APartitionThatIsNotThereIsAFailure) {
  Sfdisk("label: dos\nsize=10M\nsize=10M\n");
  const auto failureOf = [&](const std::string& number) {
    const ClientResult result =
        RunClient({"create", Path("disk"), Path("a.twf"), "--partition", number});
    EXPECT_FALSE(std::filesystem::exists(Path("a.twf")));
    return std::to_string(result.exitStatus) + " " + result.err;
  };
  EXPECT_EQ(failureOf("3"), "1 kqimage: " + Path("disk") + " has no partition 3; there are 1, 2\n");
  EXPECT_TRUE(failureOf("0").starts_with("2 "));
  EXPECT_TRUE(failureOf("x").starts_with("2 "));
  std::filesystem::resize_file(Path("disk"), 15 << 20);
  EXPECT_EQ(failureOf("2"), "1 kqimage: " + Path("disk") +
                                " ends at byte 15728640, before the partition's end at byte "
                                "22020096\n");
  Put("disk", MakeNoise(100000, 1));
  EXPECT_EQ(failureOf("1"),
            "1 kqimage: " + Path("disk") + " has no partition table that makes sense\n");
}

TEST_F(PartitionTest, AVolumeWithAFileSystemTellsItsLabelWithoutADisk) {
  Shell("truncate -s 2M '" + Path("fs") + "' && mke2fs -q -t ext2 -L mine '" + Path("fs") + "'");
  Create(Path("fs"), Path("a.twf"));
  const Json origin = Info()["origin"];
  EXPECT_EQ(origin["label"], "mine");
  EXPECT_EQ(origin["fileSystem"], "ext2");
  EXPECT_EQ(origin["hasDiskInfo"], false);
  EXPECT_EQ(InfoText().find("Disk  "), std::string::npos);
  Put("plain", MakeNoise(5000, 1));
  Create(Path("plain"), Path("a.twf"), {"--force"});
  EXPECT_EQ(Info()["origin"], nullptr);
  EXPECT_EQ(Info()["headerSectors"], 1);
}

}  // namespace
}  // namespace kqtest
