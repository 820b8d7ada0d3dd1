#include "crypto/header_checksums.h"

#include <cstddef>
#include <span>

#include "crypto/crc32.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

std::uint32_t SectorSizeOf(const std::uint8_t* header) {
  return LoadU32(header + offsetof(ImageHeader, SectorSize));
}

std::uint32_t HeaderSectorsOf(const std::uint8_t* header) {
  return LoadU32(header + offsetof(ImageHeader, HeaderSectors));
}

}  // namespace

std::uint32_t ComputeExtraCrc(const std::uint8_t* header) {
  const std::uint32_t headerSectors = HeaderSectorsOf(header);
  if (headerSectors < 2) return 0;

  const std::uint64_t sectorSize = SectorSizeOf(header);
  const std::uint8_t* const first = header + sectorSize;
  std::uint32_t accumulator = 0;
  CrcMsbFirst(first, first + sectorSize * (headerSectors - 1), &accumulator);
  return ~accumulator;
}

std::uint32_t ComputeHeaderCrc(const std::uint8_t* header, const std::uint8_t* record) {
  constexpr std::uint8_t kZeroes[sizeof(ExtendedRecord::HeaderCrc)] = {};
  const std::uint8_t* const field = record + offsetof(ExtendedRecord, HeaderCrc);
  const std::uint8_t* const behind = field + sizeof kZeroes;
  const std::uint8_t* const end = header + SectorSizeOf(header);

  std::uint32_t accumulator = 0;
  CrcMsbFirst(header, field, &accumulator);
  accumulator = CrcMsbFirstContinue(accumulator, kZeroes);
  accumulator = CrcMsbFirstContinue(accumulator, std::span(behind, end));
  return ~accumulator;
}

std::uint32_t CheckHeaderChecksums(const std::uint8_t* header, const std::uint8_t* record,
                                   bool checkLaterSectors) {
  std::uint32_t mismatches = 0;
  if (checkLaterSectors && HeaderSectorsOf(header) >= 2 &&
      ComputeExtraCrc(header) != LoadU32(record + offsetof(ExtendedRecord, ExtraCrc))) {
    mismatches |= kExtraCrcMismatch;
  }
  if (ComputeHeaderCrc(header, record) != LoadU32(record + offsetof(ExtendedRecord, HeaderCrc))) {
    mismatches |= kHeaderCrcMismatch;
  }
  return mismatches;
}

}  // namespace kq
