#include "kqimage/volume/disk_tables.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kqimage {
namespace {

using Sector = std::vector<std::byte>;

// Where things stand in a sector with an MBR's table.
constexpr std::size_t kEntriesAt = 446;
constexpr std::size_t kEntryBytes = 16;
constexpr std::size_t kEntryCount = 4;
constexpr std::size_t kSignatureAt = 510;
constexpr std::uint8_t kProtectiveType = 0xEE;

// Where things stand in a GPT header.
constexpr std::size_t kFirstEntrySectorAt = 72;
constexpr std::size_t kGptEntryCountAt = 80;
constexpr std::size_t kGptEntryBytesAt = 84;
constexpr std::uint64_t kGptHeaderBytes = 92;
constexpr std::uint64_t kGptEntryBytes = 128;

// More than any disk has; tables beyond that are damaged or lead in a circle.
constexpr std::size_t kMaxExtendedRecords = 100;
constexpr std::uint64_t kMaxGptTableBytes = std::uint64_t{128} << 10;

constexpr std::uint32_t kFirstLogicalNumber = 5;

template <typename Integer>
Integer Load(std::span<const std::byte> bytes, std::size_t at) {
  Integer value = 0;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

struct MbrEntry {
  std::uint8_t boot;
  std::uint8_t type;
  std::uint32_t start;
  std::uint32_t length;

  bool IsExtended() const {
    const std::uint8_t plain = type & 0x7F;
    const std::uint8_t marked = type & 0xBF;  // bit 7 and one more are marks of some systems
    return plain == 0x05 || plain == 0x0F || marked == 0x85 || marked == 0x8F;
  }
};

std::array<MbrEntry, kEntryCount> EntriesOf(std::span<const std::byte> sector) {
  std::array<MbrEntry, kEntryCount> entries = {};
  for (std::size_t i = 0; i < kEntryCount; ++i) {
    const auto entry = sector.subspan(kEntriesAt + i * kEntryBytes, kEntryBytes);
    entries[i] = {.boot = Load<std::uint8_t>(entry, 0),
                  .type = Load<std::uint8_t>(entry, 4),
                  .start = Load<std::uint32_t>(entry, 8),
                  .length = Load<std::uint32_t>(entry, 12)};
  }
  return entries;
}

bool IsSigned(std::span<const std::byte> sector) {
  return Load<std::uint16_t>(sector, kSignatureAt) == 0xAA55;
}

// A boot sector without a table, such as a file system's, has the same signature, and code where
// the entries would be.
bool IsMbr(std::span<const std::byte> sector) {
  const auto entries = EntriesOf(sector);
  return IsSigned(sector) && std::all_of(entries.begin(), entries.end(), [](const MbrEntry& entry) {
           return (entry.boot & 0x7F) == 0;
         });
}

// Fills the sector of the table that lies at the disk's sector place and is the nth of the tables;
// false at the end.
using ReadTable = std::function<bool(std::uint64_t place, std::size_t nth, Sector& sector)>;

class MbrWalk {
 public:
  MbrWalk(const ReadTable& read, std::uint32_t sectorSize) : read_(read) {
    tables_.style = kStyleMbr;
    tables_.sectorSize = sectorSize;
  }

  std::optional<DiskTables> Run() {
    Sector sector(tables_.sectorSize);
    if (!read_(0, 0, sector) || !IsMbr(sector)) return std::nullopt;
    std::uint64_t next = Take(sector, 0);
    const std::uint64_t extendedStart = next;
    for (std::size_t nth = 1; next != 0 && nth <= kMaxExtendedRecords; ++nth) {
      if (!read_(next, nth, sector) || !IsSigned(sector)) break;
      const std::uint64_t link = Take(sector, next);
      next = link == 0 ? 0 : extendedStart + link;
    }
    return std::move(tables_);
  }

 private:
  // Takes the partitions of the table at the disk's sector place. Returns the start of its first
  // extended entry, 0 if there is none.
  std::uint64_t Take(const Sector& sector, std::uint64_t place) {
    tables_.copy.insert(tables_.copy.end(), sector.begin(), sector.end());
    std::uint64_t extended = 0;
    const auto entries = EntriesOf(sector);
    for (std::size_t slot = 0; slot < entries.size(); ++slot) {
      const MbrEntry& entry = entries[slot];
      if (entry.type == 0) continue;
      if (entry.IsExtended()) {
        if (extended == 0) extended = entry.start;
        continue;
      }
      ++ordinal_;
      if (entry.length == 0) continue;
      const bool isLogical = place != 0;
      tables_.partitions.push_back(
          {.number = isLogical ? nextLogical_++ : static_cast<std::uint32_t>(slot) + 1,
           .ordinal = ordinal_,
           .offset = (place + entry.start) * tables_.sectorSize,
           .length = std::uint64_t{entry.length} * tables_.sectorSize,
           .type = entry.type,
           .isActive = (entry.boot & 0x80) != 0,
           .isLogical = isLogical});
    }
    return extended;
  }

  const ReadTable& read_;
  DiskTables tables_;
  std::uint32_t ordinal_ = 0;
  std::uint32_t nextLogical_ = kFirstLogicalNumber;
};

bool HasGptSignature(std::span<const std::byte> sector) {
  return std::memcmp(sector.data(), "EFI PART", 8) == 0;
}

// An MBR that leaves the disk, or a part of it, to a GPT.
bool IsProtective(std::span<const std::byte> sector) {
  if (!IsSigned(sector)) return false;
  const auto entries = EntriesOf(sector);
  return std::any_of(entries.begin(), entries.end(),
                     [](const MbrEntry& entry) { return entry.type == kProtectiveType; });
}

void TakeGptEntries(std::span<const std::byte> entries, std::size_t entryBytes,
                    DiskTables& tables) {
  constexpr std::size_t kTypeBytes = 16;
  for (std::uint32_t number = 1; number * entryBytes <= entries.size(); ++number) {
    const auto entry = entries.subspan((number - 1) * entryBytes, entryBytes);
    const auto type = entry.first(kTypeBytes);
    if (std::all_of(type.begin(), type.end(), [](std::byte b) { return b == std::byte{0}; })) {
      continue;
    }
    const auto first = Load<std::uint64_t>(entry, 32);
    const auto last = Load<std::uint64_t>(entry, 40);
    constexpr std::uint64_t kLastSector = std::uint64_t{1} << 50;
    if (last < first || last > kLastSector) continue;
    tables.partitions.push_back({.number = number,
                                 .ordinal = number,
                                 .offset = first * tables.sectorSize,
                                 .length = (last - first + 1) * tables.sectorSize});
  }
}

// The library checks the checksums when it tells what is in the copy.
std::optional<DiskTables> ReadGpt(const ReadDisk& read, std::uint32_t sectorSize) {
  DiskTables tables = {.style = kStyleGpt, .sectorSize = sectorSize};
  tables.copy.resize(std::size_t{2} * sectorSize);
  if (!read(0, tables.copy)) return std::nullopt;
  const auto header = std::span(tables.copy).subspan(sectorSize);
  if (!IsProtective(tables.copy) || !HasGptSignature(header)) return std::nullopt;
  const auto entriesAt = Load<std::uint64_t>(header, kFirstEntrySectorAt);
  const std::uint64_t count = Load<std::uint32_t>(header, kGptEntryCountAt);
  const std::uint64_t entryBytes = Load<std::uint32_t>(header, kGptEntryBytesAt);
  if (entryBytes < kGptEntryBytes || count == 0 || count > kMaxGptTableBytes / entryBytes ||
      entriesAt > std::uint64_t{1} << 50) {
    return std::nullopt;
  }
  // At least 16 KiB, as the standard reserves for them and as the library wants them.
  constexpr std::uint64_t kLeastTableBytes = std::uint64_t{16} << 10;
  const std::uint64_t used = count * entryBytes;
  const std::uint64_t whole = (used + sectorSize - 1) / sectorSize * sectorSize;
  tables.copy.resize(tables.copy.size() +
                     static_cast<std::size_t>(std::max(whole, kLeastTableBytes)));
  const auto entries = std::span(tables.copy).subspan(std::size_t{2} * sectorSize);
  if (!read(entriesAt * sectorSize, entries.first(static_cast<std::size_t>(whole)))) {
    return std::nullopt;
  }
  TakeGptEntries(entries.first(static_cast<std::size_t>(used)),
                 static_cast<std::size_t>(entryBytes), tables);
  return tables;
}

}  // namespace

std::optional<DiskTables> ReadDiskTables(const ReadDisk& read, std::uint32_t sectorSize) {
  if (std::optional<DiskTables> gpt = ReadGpt(read, sectorSize)) return gpt;
  const ReadTable readTable = [&](std::uint64_t place, std::size_t, Sector& sector) {
    return read(place * sectorSize, sector);
  };
  return MbrWalk(readTable, sectorSize).Run();
}

std::optional<DiskTables> ParseMbrCopy(std::span<const std::byte> copy, std::uint32_t sectorSize) {
  constexpr std::uint32_t kSmallestSector = kSignatureAt + 2;
  if (sectorSize < kSmallestSector) return std::nullopt;
  const ReadTable readTable = [&](std::uint64_t, std::size_t nth, Sector& sector) {
    if (copy.size() / sectorSize <= nth) return false;
    const auto place = copy.subspan(nth * sectorSize, sectorSize);
    std::copy(place.begin(), place.end(), sector.begin());
    return true;
  };
  return MbrWalk(readTable, sectorSize).Run();
}

std::optional<std::uint32_t> SectorSizeOfGpt(const ReadDisk& read) {
  for (const std::uint32_t size : {512u, 1024u, 2048u, 4096u}) {
    std::array<std::byte, kGptHeaderBytes> header = {};
    if (read(size, header) && HasGptSignature(header)) return size;
  }
  return std::nullopt;
}

}  // namespace kqimage
