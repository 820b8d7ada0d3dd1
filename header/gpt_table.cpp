#include "header/gpt_table.h"

#include <cstddef>
#include <cstring>

#include "crypto/crc32.h"
#include "foundation/checked_math.h"
#include "foundation/little_endian.h"
#include "header/mbr_entry.h"
#include "kqimageformat.h"

namespace kq {
namespace {

struct KQ_PACKED GptHeader {
  char signature[8];
  std::uint32_t revision;
  std::uint32_t headerBytes;
  std::uint32_t headerCrc;
  std::uint32_t reserved;
  std::uint64_t thisLba;
  std::uint64_t otherLba;
  std::uint64_t firstUsableLba;
  std::uint64_t lastUsableLba;
  std::uint8_t diskGuid[16];
  std::uint64_t entriesLba;
  std::uint32_t entryCount;
  std::uint32_t entryBytes;
  std::uint32_t entriesCrc;
};
static_assert(offsetof(GptHeader, headerCrc) == 16);
static_assert(offsetof(GptHeader, firstUsableLba) == 40);
static_assert(offsetof(GptHeader, diskGuid) == 56);
static_assert(offsetof(GptHeader, entryCount) == 80);
static_assert(offsetof(GptHeader, entriesCrc) == 88);
static_assert(sizeof(GptHeader) == 92);

struct KQ_PACKED GptEntry {
  std::uint8_t typeGuid[16];
  std::uint8_t uniqueGuid[16];
  std::uint64_t firstLba;
  std::uint64_t lastLba;
  std::uint64_t attributes;
  std::uint8_t name[72];
};
static_assert(offsetof(GptEntry, firstLba) == 32);
static_assert(offsetof(GptEntry, attributes) == 48);
static_assert(sizeof(GptEntry) == 128);

constexpr std::uint32_t kLatestRevision = 0x10000;
// Every disk reserves this much for the entries.
constexpr std::uint64_t kLeastEntriesBytes = 16384;

bool HeaderCrcMatches(std::span<const std::uint8_t> header, std::uint32_t crc) {
  constexpr std::uint8_t kZeroes[sizeof(GptHeader::headerCrc)] = {};
  constexpr std::size_t kField = offsetof(GptHeader, headerCrc);
  std::uint32_t accumulator = CrcReflectedContinue(kCrcStart, header.first(kField));
  accumulator = CrcReflectedContinue(accumulator, kZeroes);
  accumulator = CrcReflectedContinue(accumulator, header.subspan(kField + sizeof kZeroes));
  return ~accumulator == crc;
}

// Bytes of the entries in whole sectors, if tables holds them and they are what the header says.
std::optional<std::uint64_t> CheckedEntriesBytes(std::span<const std::uint8_t> tables,
                                                 std::uint32_t sectorSize,
                                                 const GptHeader& header) {
  const std::uint64_t entriesStart = 2 * std::uint64_t{sectorSize};
  const std::uint64_t used = std::uint64_t{header.entryCount} * header.entryBytes;
  std::uint64_t entriesBytes = 0;
  if (!CheckedRoundUp(used, sectorSize, &entriesBytes)) return std::nullopt;
  if (tables.size() - entriesStart < entriesBytes || entriesBytes == 0 ||
      header.entryBytes < sizeof(GptEntry) || header.entryBytes > entriesBytes) {
    return std::nullopt;
  }
  if (~CrcReflectedContinue(kCrcStart, tables.subspan(entriesStart, used)) != header.entriesCrc) {
    return std::nullopt;
  }
  return entriesBytes;
}

// Whether the MBR in front claims the disk for the GPT alone. firstSector: kMbrTableBytes bytes.
bool IsProtectiveMbr(const std::uint8_t* firstSector) {
  constexpr std::uint8_t kProtectiveType = 0xEE;
  if (!HasMbrSignature(firstSector)) return false;
  bool found = false;
  for (std::uint32_t i = 0; i < kMbrEntries; ++i) {
    const std::uint8_t type = LoadMbrEntry(firstSector, i).type;
    if (type == 0) continue;
    if (type != kProtectiveType) return false;
    found = true;
  }
  return found;
}

std::optional<GptPartition> FindPartition(std::span<const std::uint8_t> tables,
                                          std::uint32_t sectorSize, std::uint64_t entriesBytes,
                                          std::uint32_t entryBytes, std::uint32_t number) {
  const std::uint64_t entriesStart = 2 * std::uint64_t{sectorSize};
  if (number == 0 || (entriesStart + entriesBytes) % entryBytes != 0) return std::nullopt;
  const std::uint64_t place = (std::uint64_t{number} - 1) * entryBytes;
  // An entry may begin within the last sector of the entries and end behind it.
  if (place >= entriesBytes || tables.size() - entriesStart - place < sizeof(GptEntry)) {
    return std::nullopt;
  }
  GptEntry entry;
  std::memcpy(&entry, tables.data() + entriesStart + place, sizeof entry);

  GptPartition partition{};
  partition.offsetBytes = sectorSize * entry.firstLba;
  partition.lengthBytes = sectorSize * (entry.lastLba + 1 - entry.firstLba);
  std::memcpy(partition.typeGuid, entry.typeGuid, sizeof partition.typeGuid);
  std::memcpy(partition.uniqueGuid, entry.uniqueGuid, sizeof partition.uniqueGuid);
  partition.attributes = entry.attributes;
  std::memcpy(partition.name, entry.name, sizeof partition.name);
  return partition;
}

}  // namespace

std::optional<GptTable> ReadGptTable(std::span<const std::uint8_t> tables, std::uint32_t sectorSize,
                                     std::uint32_t partitionNumber) {
  if (sectorSize < sizeof(GptHeader) ||
      tables.size() < 2 * std::uint64_t{sectorSize} + kLeastEntriesBytes) {
    return std::nullopt;
  }
  const std::span headerSector = tables.subspan(sectorSize, sectorSize);
  GptHeader header;
  std::memcpy(&header, headerSector.data(), sizeof header);
  if (header.headerBytes < sizeof header || header.headerBytes > sectorSize ||
      std::memcmp(header.signature, "EFI PART", sizeof header.signature) != 0 ||
      header.revision > kLatestRevision ||
      !HeaderCrcMatches(headerSector.first(header.headerBytes), header.headerCrc)) {
    return std::nullopt;
  }
  const auto entriesBytes = CheckedEntriesBytes(tables, sectorSize, header);
  if (!entriesBytes) return std::nullopt;

  GptTable table{};
  std::memcpy(table.diskGuid, header.diskGuid, sizeof table.diskGuid);
  table.usableOffsetBytes = sectorSize * header.firstUsableLba;
  table.usableLengthBytes = sectorSize * (header.lastUsableLba + 1 - header.firstUsableLba);
  table.entryCount = header.entryCount;
  // Of sectors below 512 bytes this looks into the next ones, which the copy surely holds.
  table.protectiveMbr = IsProtectiveMbr(tables.data());
  table.partition =
      FindPartition(tables, sectorSize, *entriesBytes, header.entryBytes, partitionNumber);
  return table;
}

}  // namespace kq
