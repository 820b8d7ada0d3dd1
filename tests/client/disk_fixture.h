// Disks in files, partitioned by the system's tools, for tests of images of their partitions.
#ifndef KQ_TESTS_CLIENT_DISK_FIXTURE_H
#define KQ_TESTS_CLIENT_DISK_FIXTURE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/client/client_fixture.h"

namespace kqtest {

using Arguments = std::vector<std::string>;
using Json = nlohmann::json;

class PartitionTest : public ClientTest {
 protected:
  // Runs a command line; gives what it prints.
  std::string Shell(const std::string& command) const;

  // The disk is the file "disk", of 100 MiB and with sectors of 512 bytes.
  void MakeDisk() const;
  void Sfdisk(const std::string& script) const;

  // What sfdisk says of the partitions that hold volumes, each with its number and its place in
  // bytes.
  struct Partition {
    std::uint32_t number;
    std::uint64_t offset;
    std::uint64_t size;
    Json fields;
  };
  Json Table() const;
  std::vector<Partition> Partitions(const Json& table) const;

  // Put a file system of its own into a partition, and noise at its end.
  void PutExt4(const Partition& partition, const std::string& label) const;
  void PutNoise(const Partition& partition) const;
  Volume DiskBytes(std::uint64_t offset, std::uint64_t size) const;

  // Makes the image "a.twf" of a partition, and tells what info says of it.
  void CreateOf(std::uint32_t number, const Arguments& options = {}) const;
  Json Info(const Arguments& options = {}) const;
  std::string InfoText(const Arguments& options = {}) const;
};

// A disk's file as a block device with a device for each partition. That takes rights and a kernel
// that not every machine gives.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& disk);
  ~LoopDevice();
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  bool HasPartition(std::uint32_t number) const;
  const std::string& Path() const { return path_; }
  std::string Partition(std::uint32_t number) const;

 private:
  bool Run(const std::string& command) const;

  std::string path_;
  bool hasPartitions_ = false;
};

}  // namespace kqtest

#endif
