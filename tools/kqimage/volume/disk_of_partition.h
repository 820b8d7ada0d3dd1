// Which disk a partition's block device belongs to.
#ifndef KQIMAGE_VOLUME_DISK_OF_PARTITION_H
#define KQIMAGE_VOLUME_DISK_OF_PARTITION_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kqimage {

struct PartitionPlace {
  std::string disk;          // path of the disk's block device
  std::uint32_t number = 0;  // of the partition
  std::uint64_t offset = 0;  // bytes from the disk's start
};

// Nothing if the device is no partition. The folders are sysfs and that of the devices, which tests
// replace.
std::optional<PartitionPlace> FindPartitionPlace(dev_t device, const std::string& sysfs = "/sys",
                                                 const std::string& devices = "/dev");

}  // namespace kqimage

#endif
