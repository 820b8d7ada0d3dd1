// The partition tables of a disk: a copy as image headers keep it, and the partitions in it.
#ifndef KQIMAGE_VOLUME_DISK_TABLES_H
#define KQIMAGE_VOLUME_DISK_TABLES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace kqimage {

// ProtectedSector::PartitionStyle.
inline constexpr std::uint32_t kStyleNone = 0;
inline constexpr std::uint32_t kStyleMbr = 1;
inline constexpr std::uint32_t kStyleGpt = 2;

struct DiskPartition {
  std::uint32_t number = 0;   // as the system counts: primary 1 to 4 by their slot, logical from 5
  std::uint32_t ordinal = 0;  // as image headers count: 1, 2, ... over an MBR's partitions in the
                              // order of the tables; with a GPT the same as number
  std::uint64_t offset = 0;   // bytes from the disk's start
  std::uint64_t length = 0;   // bytes
  std::uint8_t type = 0;      // with an MBR
  bool isActive = false;      // with an MBR
  bool isLogical = false;     // with an MBR
};

struct DiskTables {
  std::uint32_t style = 0;           // kStyleMbr or kStyleGpt
  std::uint32_t sectorSize = 0;      // of the disk
  std::vector<std::byte> copy = {};  // MBR: it and each extended boot record, one sector each;
                                     // GPT: sector 0, the GPT header, and the entries
  std::vector<DiskPartition> partitions = {};
};

// Fills bytes from the disk's offset; false if the disk ends before. May throw.
using ReadDisk = std::function<bool(std::uint64_t offset, std::span<std::byte> bytes)>;

// Reads the tables of a disk with sectors of the given size, 512 to 4096 bytes. Nothing if the disk
// has none that make sense.
std::optional<DiskTables> ReadDiskTables(const ReadDisk& read, std::uint32_t sectorSize);

// The same for the copy in an image's header. There is no disk, and so the walk along the extended
// boot records goes from one sector of the copy to the next.
std::optional<DiskTables> ParseMbrCopy(std::span<const std::byte> copy, std::uint32_t sectorSize);

// The size of the sectors that a disk's GPT tells by its place; nothing if there is no GPT.
std::optional<std::uint32_t> SectorSizeOfGpt(const ReadDisk& read);

}  // namespace kqimage

#endif
