// The four entries of a partition table in MBR style, which the MBR and each extended boot record
// hold at the same place.
#ifndef KQ_HEADER_MBR_ENTRY_H
#define KQ_HEADER_MBR_ENTRY_H

#include <cstddef>
#include <cstdint>

#include "foundation/little_endian.h"

namespace kq {

// A table's bytes up to its signature; a sector that holds a table is no smaller.
inline constexpr std::uint32_t kMbrTableBytes = 512;
inline constexpr std::uint32_t kMbrEntries = 4;
inline constexpr std::uint32_t kMbrDiskSignatureOffset = 440;

struct MbrEntry {
  bool active;          // bit 7 of the boot byte
  std::uint8_t type;    // 0: the slot is empty
  std::uint32_t start;  // sectors, from a place that depends on table and type
  std::uint32_t length;
};

// table: kMbrTableBytes bytes. index: below kMbrEntries.
inline MbrEntry LoadMbrEntry(const std::uint8_t* table, std::uint32_t index) {
  constexpr std::size_t kFirstEntry = 446;
  constexpr std::size_t kEntryBytes = 16;
  const std::uint8_t* const entry = table + kFirstEntry + index * kEntryBytes;
  return {(entry[0] & 0x80) != 0, entry[4], LoadU32(entry + 8), LoadU32(entry + 12)};
}

inline bool HasMbrSignature(const std::uint8_t* table) {
  return table[510] == 0x55 && table[511] == 0xAA;
}

}  // namespace kq

#endif
