#include "kqimage/volume/disk_of_partition.h"

#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace kqimage {
namespace {

// sysfs counts in these, whatever the sectors of the disk are.
constexpr std::uint64_t kSysfsSector = 512;

template <typename Value>
std::optional<Value> ReadValue(const std::filesystem::path& path) {
  std::ifstream file(path);
  Value value = {};
  if (!(file >> value)) return std::nullopt;
  return value;
}

}  // namespace

std::optional<PartitionPlace> FindPartitionPlace(dev_t device, const std::string& sysfs,
                                                 const std::string& devices) {
  std::error_code error;
  // A link to the partition's folder, which lies in its disk's.
  const std::filesystem::path folder = std::filesystem::canonical(
      fmt::format("{}/dev/block/{}:{}", sysfs, major(device), minor(device)), error);
  if (error) return std::nullopt;
  const auto number = ReadValue<std::uint32_t>(folder / "partition");
  const auto start = ReadValue<std::uint64_t>(folder / "start");
  if (!number || !start) return std::nullopt;
  std::string disk = folder.parent_path().filename().string();
  std::replace(disk.begin(), disk.end(), '!', '/');  // as sysfs writes a name with a folder
  return PartitionPlace{.disk = fmt::format("{}/{}", devices, disk),
                        .number = *number,
                        .offset = *start * kSysfsSector};
}

}  // namespace kqimage
