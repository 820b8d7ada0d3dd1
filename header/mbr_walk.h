// Finds the imaged partition in tables of MBR style, for KQImageFileGetInfoProtectedEx.
//
// KQImageFileGetInfoProtected answers the same question in another way (partition_list.h). The two
// differ in what they take for an extended partition and in where a logical one lies, and clients
// know each by its own answers.
#ifndef KQ_HEADER_MBR_WALK_H
#define KQ_HEADER_MBR_WALK_H

#include <cstdint>
#include <optional>
#include <span>

namespace kq {

struct MbrPartition {
  std::uint64_t offsetBytes;  // of a logical partition: bytes and sectors mixed, see the source
  std::uint64_t lengthBytes;
  bool active;
  bool inMbr;
  std::uint8_t type;
  std::uint32_t sectorsInFront;
};

struct MbrTables {
  std::uint32_t diskSignature;
  std::optional<MbrPartition> partition;
};

// tables: one sector a table, the MBR first. partitionNumber: from 1; 0 selects the last partition.
// None unless every sector given ends as a table does.
std::optional<MbrTables> ReadMbrTables(std::span<const std::uint8_t> tables,
                                       std::uint32_t sectorSize, std::uint32_t partitionNumber);

}  // namespace kq

#endif
