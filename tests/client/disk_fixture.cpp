#include "tests/client/disk_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kqtest {

std::string PartitionTest::Shell(const std::string& command) const {
  const std::string line =
      "PATH=\"$PATH:/usr/sbin:/sbin\"; (" + command + ") >'" + Path("out") + "' 2>&1";
  const int result = std::system(line.c_str());
  const Volume output = ReadFile(Path("out"));
  std::string text(output.begin(), output.end());
  EXPECT_EQ(result, 0) << command << "\n" << text;
  return text;
}

void PartitionTest::MakeDisk() const {
  const std::ofstream create(Path("disk"));
  std::filesystem::resize_file(Path("disk"), 100u << 20);
}

void PartitionTest::Sfdisk(const std::string& script) const {
  MakeDisk();
  PutText("script", script);
  Shell("sfdisk -q '" + Path("disk") + "' <'" + Path("script") + "'");
}

Json PartitionTest::Table() const {
  return Json::parse(Shell("sfdisk --json '" + Path("disk") + "'"))["partitiontable"];
}

std::vector<PartitionTest::Partition> PartitionTest::Partitions(const Json& table) const {
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

void PartitionTest::PutExt4(const Partition& partition, const std::string& label) const {
  Shell("truncate -s " + std::to_string(partition.size) + " '" + Path("fs") +
        "' && mke2fs -q -t ext4 -L '" + label + "' '" + Path("fs") + "' && dd if='" + Path("fs") +
        "' of='" + Path("disk") + "' bs=512 seek=" + std::to_string(partition.offset / 512) +
        " conv=notrunc,sparse status=none && rm '" + Path("fs") + "'");
}

void PartitionTest::PutNoise(const Partition& partition) const {
  std::fstream disk(Path("disk"), std::ios::in | std::ios::out | std::ios::binary);
  const Volume noise = MakeNoise(3000, partition.number);
  disk.seekp(static_cast<std::streamoff>(partition.offset + partition.size - noise.size()));
  disk.write(reinterpret_cast<const char*>(noise.data()),
             static_cast<std::streamsize>(noise.size()));
}

Volume PartitionTest::DiskBytes(std::uint64_t offset, std::uint64_t size) const {
  Volume bytes(size);
  std::ifstream disk(Path("disk"), std::ios::binary);
  disk.seekg(static_cast<std::streamoff>(offset));
  disk.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
  return bytes;
}

void PartitionTest::CreateOf(std::uint32_t number, const Arguments& options) const {
  Create(Path("disk"), Path("a.twf"),
         Joined({"--force", "--partition", std::to_string(number)}, options));
}

Json PartitionTest::Info(const Arguments& options) const {
  const ClientResult result = RunClient(Joined({"info", "--json", Path("a.twf")}, options));
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  return result.exitStatus == 0 ? Json::parse(result.out) : Json();
}

std::string PartitionTest::InfoText(const Arguments& options) const {
  return RunClient(Joined({"info", Path("a.twf")}, options)).out;
}

LoopDevice::LoopDevice(const std::string& disk) {
  const std::string command =
      "PATH=\"$PATH:/usr/sbin:/sbin\"; losetup -f --show '" + disk + "' 2>/dev/null";
  FILE* const output = popen(command.c_str(), "r");
  char line[64] = {};
  if (std::fgets(line, sizeof line, output) != nullptr) path_ = line;
  pclose(output);
  if (!path_.empty()) path_.pop_back();
  hasPartitions_ = !path_.empty() && Run("partx -a");
}

LoopDevice::~LoopDevice() {
  if (hasPartitions_) Run("partx -d");
  if (!path_.empty()) Run("losetup -d");
}

bool LoopDevice::HasPartition(std::uint32_t number) const {
  return hasPartitions_ && std::filesystem::is_block_file(Partition(number));
}

std::string LoopDevice::Partition(std::uint32_t number) const {
  return path_ + "p" + std::to_string(number);
}

bool LoopDevice::Run(const std::string& command) const {
  const std::string line =
      "PATH=\"$PATH:/usr/sbin:/sbin\" " + command + " " + path_ + " >/dev/null 2>&1";
  return std::system(line.c_str()) == 0;
}

}  // namespace kqtest
