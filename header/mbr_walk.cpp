#include "header/mbr_walk.h"

#include "header/mbr_entry.h"

namespace kq {
namespace {

// Only these two here: the wider test of the partition list would change what is found.
bool IsExtended(std::uint8_t type) { return type == 5 || type == 15; }

MbrPartition MakePartition(const MbrEntry& entry, std::uint32_t sectorSize, std::uint64_t location,
                           bool inMbr, bool isFirstOfMbr) {
  MbrPartition partition{};
  // The location of the entry's table is added in sectors, not scaled to bytes. Clients have built
  // on the sum as it is.
  partition.offsetBytes = std::uint64_t{entry.start} * sectorSize + location;
  partition.lengthBytes = std::uint64_t{entry.length} * sectorSize;
  partition.active = entry.active;
  partition.inMbr = inMbr;
  partition.type = entry.type;
  partition.sectorsInFront = isFirstOfMbr ? entry.start - 1 : 0;
  return partition;
}

std::optional<MbrPartition> FindPartition(std::span<const std::uint8_t> tables,
                                          std::uint32_t sectorSize, std::uint32_t partitionNumber) {
  std::optional<MbrPartition> chosen;
  std::uint32_t number = 1;
  std::uint64_t extendedBase = 0;
  std::uint64_t location = 0;  // of the present table, in sectors
  // The tables lie in the order of their links, so a link only says that there is a next one; what
  // it points at bounds nothing.
  for (std::size_t at = 0; at < tables.size(); at += sectorSize) {
    const bool inMbr = at == 0;
    std::uint64_t nextLocation = 0;
    for (std::uint32_t i = 0; i < kMbrEntries; ++i) {
      const MbrEntry entry = LoadMbrEntry(tables.data() + at, i);
      if (entry.type == 0) continue;
      if (IsExtended(entry.type)) {
        nextLocation = extendedBase + entry.start;
        if (inMbr) extendedBase = entry.start;
        continue;
      }
      if (partitionNumber == 0 || partitionNumber == number) {
        chosen = MakePartition(entry, sectorSize, location, inMbr, inMbr && i == 0);
        if (partitionNumber != 0) return chosen;
      }
      ++number;
    }
    if (nextLocation == 0) break;
    location = nextLocation;
  }
  return chosen;
}

}  // namespace

std::optional<MbrTables> ReadMbrTables(std::span<const std::uint8_t> tables,
                                       std::uint32_t sectorSize, std::uint32_t partitionNumber) {
  if (sectorSize < kMbrTableBytes || sectorSize > tables.size()) return std::nullopt;
  const std::span whole = tables.first(tables.size() / sectorSize * sectorSize);
  for (std::size_t at = 0; at < whole.size(); at += sectorSize) {
    if (!HasMbrSignature(whole.data() + at)) return std::nullopt;
  }
  return MbrTables{LoadU32(whole.data() + kMbrDiskSignatureOffset),
                   FindPartition(whole, sectorSize, partitionNumber)};
}

}  // namespace kq
