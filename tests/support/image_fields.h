// The fields of an image file's header as plain values: what the builder composes and the parser
// finds.
#ifndef KQ_TESTS_SUPPORT_IMAGE_FIELDS_H
#define KQ_TESTS_SUPPORT_IMAGE_FIELDS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "tests/support/bytes.h"

namespace kqtest {

using Id = std::array<std::uint8_t, 16>;

// An identifier for each number; 0 gives the all-zero one.
Id MakeId(std::uint32_t number);

// The ExtendedRecord but for its two checksums.
struct RecordFields {
  std::uint32_t recordFlags = 0x28;
  Id fileUuid = MakeId(0xF11E);
  Id snapshotSetId{};
  Id secondUuid = MakeId(0x5EC0);
  Id carriedId{};
  std::uint64_t carriedValue1 = 0;
  std::uint64_t carriedValue2 = 0;
  std::uint32_t carriedValue3 = 0;
  Id carriedBytes1{};
  std::uint64_t carriedValue4 = 0;
  std::uint32_t carriedValue5 = 0;
  std::uint16_t carriedValue6 = 0;
  std::uint16_t reserved = 0;
  std::uint8_t carriedValue7 = 0;
  Id carriedBytes2{};
  std::uint32_t carriedValue8 = 0;
  std::uint64_t carriedValue9 = 0;

  bool operator==(const RecordFields&) const = default;
};

// The header: sector 0 and, in laterSectors, the plain bytes of sectors 1 onward.
struct HeaderFields {
  std::string magic = "TWFI";
  std::uint32_t sectorSize = 512;
  std::uint64_t sourceSize = 0x40000000;
  std::uint32_t flags = 0;  // bit 1 follows from record
  std::uint64_t creationTime = 133500000000000000;
  std::int32_t timeZoneBias = -60;
  std::int32_t daylightBias = 0;
  Id imageId = MakeId(1);
  Id parentImageId{};
  Id imageSetId = MakeId(0x5E7);
  std::uint32_t generation = 0;
  std::uint32_t nextGeneration = 1;
  std::uint32_t partMarker = 0;
  std::uint32_t partIndex = 0;
  std::uint32_t compressionType = 0;
  std::uint32_t encryptionType = 0;
  Bytes keyBlob;
  std::u16string comment;
  std::optional<RecordFields> record;
  Bytes laterSectors;

  bool operator==(const HeaderFields&) const = default;
};

// A stretch of the volume that a chunk holds.
struct VolumeRun {
  std::uint64_t offset = 0;   // bytes
  std::uint32_t sectors = 0;  // of the image's sector size

  bool operator==(const VolumeRun&) const = default;
};

}  // namespace kqtest

#endif
