// Partitions of disks that sfdisk, sgdisk and fdisk have made: what the images of them tell.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/client/client_fixture.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

using Arguments = std::vector<std::string>;
using Json = nlohmann::json;

class PartitionTest : public ClientTest {
 protected:
  // Runs a command line; gives what it prints.
  std::string Shell(const std::string& command) const {
    const std::string line =
        "PATH=\"$PATH:/usr/sbin:/sbin\"; (" + command + ") >'" + Path("out") + "' 2>&1";
    const int result = std::system(line.c_str());
    const Volume output = ReadFile(Path("out"));
    std::string text(output.begin(), output.end());
    EXPECT_EQ(result, 0) << command << "\n" << text;
    return text;
  }

  void MakeDisk() const {
    const std::ofstream create(Path("disk"));
    std::filesystem::resize_file(Path("disk"), 100u << 20);
  }
  void Sfdisk(const std::string& script) const {
    MakeDisk();
    PutText("script", script);
    Shell("sfdisk -q '" + Path("disk") + "' <'" + Path("script") + "'");
  }

  // What sfdisk says of the partitions that hold volumes, each with its number and its place in
  // bytes.
  struct Partition {
    std::uint32_t number;
    std::uint64_t offset;
    std::uint64_t size;
    Json fields;
  };
  Json Table() const {
    return Json::parse(Shell("sfdisk --json '" + Path("disk") + "'"))["partitiontable"];
  }
  std::vector<Partition> Partitions(const Json& table) const {
    std::vector<Partition> partitions;
    const std::size_t prefix = Path("disk").size();
    for (const Json& fields : table["partitions"]) {
      if (fields["type"] == "5" || fields["type"] == "f" || fields["type"] == "85") continue;
      partitions.push_back(
          {static_cast<std::uint32_t>(std::stoul(fields["node"].get<std::string>().substr(prefix))),
           fields["start"].get<std::uint64_t>() * 512, fields["size"].get<std::uint64_t>() * 512,
           fields});
    }
    return partitions;
  }

  // Puts a file system of its own into a partition.
  void PutExt4(const Partition& partition, const std::string& label) const {
    Shell("truncate -s " + std::to_string(partition.size) + " '" + Path("fs") +
          "' && mke2fs -q -t ext4 -L '" + label + "' '" + Path("fs") + "' && dd if='" + Path("fs") +
          "' of='" + Path("disk") + "' bs=512 seek=" + std::to_string(partition.offset / 512) +
          " conv=notrunc,sparse status=none && rm '" + Path("fs") + "'");
  }
  void PutNoise(const Partition& partition) const {
    std::fstream disk(Path("disk"), std::ios::in | std::ios::out | std::ios::binary);
    const Volume noise = MakeNoise(3000, partition.number);
    disk.seekp(static_cast<std::streamoff>(partition.offset + partition.size - noise.size()));
    disk.write(reinterpret_cast<const char*>(noise.data()),
               static_cast<std::streamsize>(noise.size()));
  }
  Volume DiskBytes(std::uint64_t offset, std::uint64_t size) const {
    Volume bytes(size);
    std::ifstream disk(Path("disk"), std::ios::binary);
    disk.seekg(static_cast<std::streamoff>(offset));
    disk.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    return bytes;
  }

  void CreateOf(std::uint32_t number, const Arguments& options = {}) const {
    Create(Path("disk"), Path("a.twf"),
           Joined({"--force", "--partition", std::to_string(number)}, options));
  }
  Json Info(const Arguments& options = {}) const {
    const ClientResult result = RunClient(Joined({"info", "--json", Path("a.twf")}, options));
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result.exitStatus == 0 ? Json::parse(result.out) : Json();
  }
  std::string InfoText(const Arguments& options = {}) const {
    return RunClient(Joined({"info", Path("a.twf")}, options)).out;
  }
};

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

// A disk's file as a block device with a device for each partition. That takes rights and a kernel
// that not every machine gives.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& disk) {
    const std::string command =
        "PATH=\"$PATH:/usr/sbin:/sbin\"; losetup -f --show '" + disk + "' 2>/dev/null";
    FILE* const output = popen(command.c_str(), "r");
    char line[64] = {};
    if (std::fgets(line, sizeof line, output) != nullptr) path_ = line;
    pclose(output);
    if (!path_.empty()) path_.pop_back();
    hasPartitions_ = !path_.empty() && Run("partx -a");
  }
  ~LoopDevice() {
    if (hasPartitions_) Run("partx -d");
    if (!path_.empty()) Run("losetup -d");
  }
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  bool HasPartition(std::uint32_t number) const {
    return hasPartitions_ && std::filesystem::is_block_file(Partition(number));
  }
  const std::string& Path() const { return path_; }
  std::string Partition(std::uint32_t number) const { return path_ + "p" + std::to_string(number); }

 private:
  bool Run(const std::string& command) const {
    const std::string line =
        "PATH=\"$PATH:/usr/sbin:/sbin\" " + command + " " + path_ + " >/dev/null 2>&1";
    return std::system(line.c_str()) == 0;
  }

  std::string path_;
  bool hasPartitions_ = false;
};

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

class EncipheredPartition : public PartitionTest, public testing::WithParamInterface<Encryption> {
 protected:
  void SetUp() override {
    PutText("key", "secret");
    Sfdisk("label: gpt\nsize=2M, name=\"one\"\nsize=4M, name=\"two\"\n");
    volume_ = Partitions(Table())[1];
    PutExt4(volume_, "vault");
    CreateOf(2);
    plain_ = Info()["origin"];
    CreateOf(2, Joined({GetParam().option, GetParam().name}, key_));
  }
  Volume Bytes() const { return DiskBytes(volume_.offset, volume_.size); }

  Arguments key_ = {"--password-file", Path("key")};
  Partition volume_;
  Json plain_;
};

TEST_P(EncipheredPartition, TellsItsOriginWithThePasswordAlone) {
  EXPECT_EQ(Info()["origin"], nullptr);
  EXPECT_NE(InfoText().find("Origin            enciphered; with the password it is shown\n"),
            std::string::npos);
  EXPECT_EQ(Info(key_)["origin"], plain_);
  EXPECT_EQ(plain_["label"], "vault");
  EXPECT_TRUE(Restore({Path("a.twf")}, key_) == Bytes());
  const Volume file = ReadFile(Path("a.twf"));
  const std::string signature = "EFI PART";
  EXPECT_EQ(std::search(file.begin(), file.end(), signature.begin(), signature.end()), file.end());
  EXPECT_EQ(ParseImage(file).error, "");
}

TEST_P(EncipheredPartition, IsWholeAfterARepair) {
  EXPECT_NE(RunClient({"repair", "--check", Path("a.twf")})
                .out.find("a GPT in the header: can't be looked for without the password\n"),
            std::string::npos);
  const ClientResult checked = RunClient(Joined({"repair", "--check", Path("a.twf")}, key_));
  EXPECT_EQ(checked.exitStatus, 0) << checked.err;
  EXPECT_NE(checked.out.find("a GPT in the header: found; no defect, and --forget-gpt drops it\n"),
            std::string::npos)
      << checked.out;
  EXPECT_EQ(RunClient(Joined({"repair", Path("a.twf")}, key_)).exitStatus, 0);
  EXPECT_EQ(Info(key_)["origin"], plain_) << "nobody asked for it to be dropped";

  const ClientResult mended = RunClient(Joined({"repair", "--forget-gpt", Path("a.twf")}, key_));
  EXPECT_EQ(mended.exitStatus, 0) << mended.err;
  EXPECT_NE(mended.out.find("a GPT in the header: mended\n"), std::string::npos) << mended.out;
  const Json info = Info(key_);
  EXPECT_EQ(info["origin"]["partitionStyle"], "none");
  EXPECT_EQ(info["origin"]["label"], "vault");
  EXPECT_EQ(info["record"]["headerChecksumGood"], true);
  EXPECT_EQ(info["record"]["extraChecksumGood"], true);
  EXPECT_TRUE(Restore({Path("a.twf")}, key_) == Bytes());
}

INSTANTIATE_TEST_SUITE_P(, EncipheredPartition, testing::ValuesIn(kEncryptions), NameOfEncryption);

}  // namespace
}  // namespace kqtest
