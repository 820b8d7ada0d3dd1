// The entries of all partition tables of MBR style as one flat list, four for each table, for
// KQImageFileGetInfoProtected. KQImageFileGetInfoProtectedEx walks the same tables by other rules
// (mbr_walk.h), and both stay as they are.
#ifndef KQ_HEADER_PARTITION_LIST_H
#define KQ_HEADER_PARTITION_LIST_H

#include <cstdint>
#include <optional>
#include <span>

#include "header/mbr_entry.h"

namespace kq {

// All fields of an empty slot are 0.
struct PartitionListEntry {
  std::uint64_t offsetBytes = 0;
  std::uint64_t lengthBytes = 0;
  std::uint32_t start = 0;   // as it stands in the table
  std::uint32_t number = 0;  // 1, 2, ... over the real partitions; 0 for others
  std::uint8_t type = 0;
  bool active = false;
  bool real = false;  // a partition that is not extended
};

// Wider than the test of mbr_walk.h: it also knows the types that hide an extended partition.
constexpr bool IsExtendedType(std::uint8_t type) {
  const auto isOne = [](int kind) { return kind == 5 || kind == 15; };
  return isOne(type & 0x7F) || ((type & 0x80) != 0 && isOne(type & 0x3F));
}

// Calls visit(const PartitionListEntry&) for each entry in the list's order. It makes no list of
// them: who looks for something in it visits twice.
//
// tables: sectors of sectorSize bytes, the MBR first; more may follow behind the last table.
// False if these are no tables: a sector too small, no signature, or a link with no table behind
// it. What has been visited by then counts for nothing.
template <class Visit>
bool ParsePartitionTables(std::span<const std::uint8_t> tables, std::uint32_t sectorSize,
                          Visit&& visit) {
  if (sectorSize < kMbrTableBytes) return false;
  std::uint32_t realPartitions = 0;
  // Each link is added to those before it, though a disk counts them all from the first: the third
  // logical partition and those behind it come out too far up. Clients expect it so.
  std::uint64_t base = 0;
  for (std::size_t at = 0;; at += sectorSize) {
    // The next table is the next sector wherever a link points, so links can't go in circles.
    if (at >= tables.size() || tables.size() - at < kMbrTableBytes) return false;
    const std::uint8_t* const table = tables.data() + at;
    if (!HasMbrSignature(table)) return false;

    std::optional<std::uint64_t> link;
    for (std::uint32_t i = 0; i < kMbrEntries; ++i) {
      const MbrEntry raw = LoadMbrEntry(table, i);
      PartitionListEntry entry;
      if (raw.type != 0) {
        const std::uint64_t startBytes = std::uint64_t{raw.start} * sectorSize;
        entry.offsetBytes = base + startBytes;
        entry.lengthBytes = std::uint64_t{raw.length} * sectorSize;
        entry.start = raw.start;
        entry.type = raw.type;
        entry.active = raw.active;
        entry.real = !IsExtendedType(raw.type);
        if (entry.real) entry.number = ++realPartitions;
        if (!entry.real && !link) link = startBytes;
      }
      visit(entry);
    }
    if (!link) return true;
    base += *link;
  }
}

}  // namespace kq

#endif
