// The GPT in the header's copy of a disk's partition tables.
#ifndef KQ_HEADER_GPT_TABLE_H
#define KQ_HEADER_GPT_TABLE_H

#include <cstdint>
#include <optional>
#include <span>

namespace kq {

// Offsets and lengths are computed modulo 2^64 from whatever the table says.
struct GptPartition {
  std::uint64_t offsetBytes;
  std::uint64_t lengthBytes;
  std::uint8_t typeGuid[16];
  std::uint8_t uniqueGuid[16];
  std::uint64_t attributes;
  std::uint8_t name[72];  // UTF-16
};

struct GptTable {
  std::uint8_t diskGuid[16];
  std::uint64_t usableOffsetBytes;
  std::uint64_t usableLengthBytes;
  std::uint32_t entryCount;
  bool protectiveMbr;
  std::optional<GptPartition> partition;
};

// tables: LBA 0, LBA 1 and from LBA 2 the entries, one sector of sectorSize bytes each.
// partitionNumber: from 1; another number finds no partition. None if a check fails.
std::optional<GptTable> ReadGptTable(std::span<const std::uint8_t> tables, std::uint32_t sectorSize,
                                     std::uint32_t partitionNumber);

}  // namespace kq

#endif
