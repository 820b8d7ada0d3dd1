// Composes what the later header sectors hold, byte by byte, for the tests of this room: the
// ProtectedSector, tables of MBR style, and a GPT with its checksums.
#ifndef KQ_HEADER_PARTITION_TABLES_TEST_H
#define KQ_HEADER_PARTITION_TABLES_TEST_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/image_builder.h"

namespace kqtest {

struct ProtectedFields {
  std::uint32_t diskInfoPresent = 0xFFFFFFFF;
  std::uint32_t partitionStyle = 0;
  std::uint64_t diskValue1 = 0xD1D2D3D4D5D6D7D8;
  std::uint32_t diskValue2 = 0xDA2DA2D2;
  std::uint32_t diskValue3 = 0xDA3DA3D3;
  std::uint32_t partitionNumber = 1;
  std::uint32_t trailingSectors = 0;
  std::uint32_t volumeValue1 = 0xE1000001;
  std::uint32_t volumeValue2 = 0xE2000002;
  std::uint32_t volumeValue3 = 0xE3000003;
  std::uint32_t volumeValue4 = 0xE4000004;
  std::uint32_t volumeValue5 = 0xE5000005;
  std::uint16_t volumeValue6 = 0xE606;
  std::vector<std::u16string> texts;  // each gets its NUL
};

inline Bytes WideBytes(const std::u16string& text) {
  Bytes bytes;
  for (const char16_t unit : text) Set16(&bytes, bytes.size(), unit);
  return bytes;
}

// One sector; texts that don't fit are cut where it ends.
inline Bytes ProtectedSectorBytes(const ProtectedFields& fields, std::size_t sectorSize = 512) {
  Bytes bytes;
  Set32(&bytes, 0, fields.diskInfoPresent);
  Set32(&bytes, 4, fields.partitionStyle);
  Set64(&bytes, 8, fields.diskValue1);
  Set32(&bytes, 16, fields.diskValue2);
  Set32(&bytes, 20, fields.diskValue3);
  Set32(&bytes, 24, fields.partitionNumber);
  Set32(&bytes, 28, fields.trailingSectors);
  Set32(&bytes, 32, fields.volumeValue2);
  Set32(&bytes, 36, fields.volumeValue3);
  Set32(&bytes, 40, fields.volumeValue4);
  Set32(&bytes, 44, fields.volumeValue1);
  Set32(&bytes, 48, fields.volumeValue5);
  Set16(&bytes, 52, fields.volumeValue6);
  for (const std::u16string& text : fields.texts) {
    Append(&bytes, WideBytes(text));
    Set16(&bytes, bytes.size(), 0);
  }
  bytes.resize(sectorSize);
  return bytes;
}

struct TableEntry {
  std::uint8_t type = 0;
  std::uint32_t start = 0;
  std::uint32_t length = 0;
  std::uint8_t boot = 0;
};

// One sector with up to four entries. What no rule looks at is noise.
inline Bytes TableSector(const std::vector<TableEntry>& entries, std::uint32_t diskSignature = 0,
                         std::size_t sectorSize = 512) {
  Bytes sector = PatternBytes(entries.size() + diskSignature + sectorSize, sectorSize);
  Set32(&sector, 440, diskSignature);
  for (std::size_t i = 0; i < 4; ++i) {
    const TableEntry entry = i < entries.size() ? entries[i] : TableEntry{};
    const std::size_t place = 446 + 16 * i;
    sector[place] = entry.boot;
    sector[place + 4] = entry.type;
    Set32(&sector, place + 8, entry.start);
    Set32(&sector, place + 12, entry.length);
  }
  sector[510] = 0x55;
  sector[511] = 0xAA;
  return sector;
}

inline Bytes Joined(const std::vector<Bytes>& parts) {
  Bytes joined;
  for (const Bytes& part : parts) Append(&joined, part);
  return joined;
}

// The CRC of GPT, bit by bit.
inline std::uint32_t PlainCrcReflected(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
  }
  return ~crc;
}

struct GptEntrySpec {
  std::uint64_t firstLba = 0;
  std::uint64_t lastLba = 0;
  std::uint64_t attributes = 0;
  std::u16string name;
};

struct GptSpec {
  std::uint32_t sectorSize = 512;
  std::uint32_t headerBytes = 92;
  std::uint32_t revision = 0x10000;
  std::uint64_t firstUsableLba = 34;
  std::uint64_t lastUsableLba = 204766;
  std::uint32_t entryCount = 128;
  std::uint32_t entryBytes = 128;
  std::vector<GptEntrySpec> entries;
};

inline constexpr std::size_t kGptCrcField = 16;
inline constexpr std::size_t kGptEntriesCrcField = 88;

// Sets both checksums anew for what the header says of itself and the entries.
inline void SealGpt(Bytes* tables, std::size_t sectorSize) {
  const std::uint64_t used =
      std::uint64_t{Get32(*tables, sectorSize + 80)} * Get32(*tables, sectorSize + 84);
  const std::size_t start = std::min(tables->size(), 2 * sectorSize);
  const std::span entries =
      std::span(*tables).subspan(start, std::min<std::uint64_t>(used, tables->size() - start));
  Set32(tables, sectorSize + kGptEntriesCrcField, PlainCrcReflected(entries));
  Set32(tables, sectorSize + kGptCrcField, 0);
  const std::span header = std::span(*tables).subspan(
      sectorSize,
      std::min<std::size_t>(Get32(*tables, sectorSize + 12), tables->size() - sectorSize));
  Set32(tables, sectorSize + kGptCrcField, PlainCrcReflected(header));
}

// LBA 0 with a protective MBR, LBA 1, and the entries in whole sectors, at least 16,384 bytes of
// them. The GUIDs are MakeId(0xD15C), MakeId(0x7100 + i) and MakeId(0x0900 + i).
inline Bytes GptTables(const GptSpec& spec) {
  const std::size_t sectorSize = spec.sectorSize;
  Bytes tables =
      sectorSize >= 512 ? TableSector({{0xEE, 1, 0xFFFFFFFF}}, 0, sectorSize) : Bytes(sectorSize);
  Bytes header = PatternBytes(9, sectorSize);
  const std::string signature = "EFI PART";
  std::copy(signature.begin(), signature.end(), header.begin());
  Set32(&header, 8, spec.revision);
  Set32(&header, 12, spec.headerBytes);
  Set64(&header, 40, spec.firstUsableLba);
  Set64(&header, 48, spec.lastUsableLba);
  SetBytes(&header, 56, MakeId(0xD15C));
  Set32(&header, 80, spec.entryCount);
  Set32(&header, 84, spec.entryBytes);
  Append(&tables, header);
  Bytes entries(std::max<std::size_t>(
      16384, std::min<std::size_t>(std::uint64_t{spec.entryCount} * spec.entryBytes, 0x100000)));
  for (std::size_t i = 0; i < spec.entries.size(); ++i) {
    const std::size_t place = i * spec.entryBytes;
    SetBytes(&entries, place, MakeId(static_cast<std::uint32_t>(0x7100 + i)));
    SetBytes(&entries, place + 16, MakeId(static_cast<std::uint32_t>(0x0900 + i)));
    Set64(&entries, place + 32, spec.entries[i].firstLba);
    Set64(&entries, place + 40, spec.entries[i].lastLba);
    Set64(&entries, place + 48, spec.entries[i].attributes);
    SetBytes(&entries, place + 56, WideBytes(spec.entries[i].name));
  }
  entries.resize((entries.size() + sectorSize - 1) / sectorSize * sectorSize);
  Append(&tables, entries);
  SealGpt(&tables, sectorSize);
  return tables;
}

// An image whose later header sectors are these, with one chunk behind.
inline ImageSpec ImageWithLaterSectors(Bytes laterSectors, std::uint32_t sectorSize = 512) {
  ImageSpec spec;
  spec.header.sectorSize = sectorSize;
  spec.header.laterSectors = std::move(laterSectors);
  spec.header.record.emplace();
  spec.chunks = {RawChunk({{0x10000, 1}}, PatternBytes(4, sectorSize))};
  return spec;
}

}  // namespace kqtest

#endif
