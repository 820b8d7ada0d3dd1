#include "fuzz/header_bytes.h"

#include <cstddef>

#include "kqimageformat.h"
#include "tests/support/image_builder.h"

namespace kqfuzz {

void MendChecksums(kqtest::Bytes* file) {
  using kqtest::Get32;
  const std::uint64_t sectorSize = Get32(*file, offsetof(ImageHeader, SectorSize));
  const std::uint64_t headerSectors = Get32(*file, offsetof(ImageHeader, HeaderSectors));
  if (sectorSize == 0 || headerSectors == 0) return;
  if (headerSectors > file->size() / sectorSize) return;
  std::uint64_t record =
      sizeof(ImageHeader) + kqtest::Get16(*file, offsetof(ImageHeader, KeyBlobLength));
  while (record + 2 <= sectorSize && kqtest::Get16(*file, record) != 0) record += 2;
  record += 2;
  if (record + sizeof(ExtendedRecord) > sectorSize) return;
  kqtest::SetHeaderChecksums(file, record, static_cast<std::uint32_t>(sectorSize),
                             static_cast<std::uint32_t>(headerSectors));
}

void LimitClaims(kqtest::Bytes* file) {
  constexpr std::uint64_t kMostBytes = 256 << 10;
  if (file->size() < sizeof(ImageHeader)) return;
  std::uint64_t sectorSize = kqtest::Get32(*file, offsetof(ImageHeader, SectorSize));
  if (sectorSize > kMostBytes) {
    sectorSize %= kMostBytes;
    kqtest::Set32(file, offsetof(ImageHeader, SectorSize), sectorSize);
  }
  const std::uint64_t headerSectors = kqtest::Get32(*file, offsetof(ImageHeader, HeaderSectors));
  if (sectorSize == 0 || headerSectors <= kMostBytes / sectorSize) return;
  kqtest::Set32(file, offsetof(ImageHeader, HeaderSectors), kMostBytes / sectorSize);
}

}  // namespace kqfuzz
