#include "header/extended_record.h"

#include <cstddef>

#include "foundation/little_endian.h"
#include "kqimageformat.h"

namespace kq {

std::optional<std::uint32_t> FindExtendedRecord(std::span<const std::uint8_t> sector,
                                                RecordLimit limit) {
  constexpr std::uint64_t kUnit = sizeof(std::uint16_t);
  if (sector.size() < sizeof(ImageHeader)) return std::nullopt;
  const std::uint64_t end = sector.size() - (limit == RecordLimit::kByteBeforeTheEnd ? 1 : 0);
  std::uint64_t place =
      sizeof(ImageHeader) + LoadU16(sector.data() + offsetof(ImageHeader, KeyBlobLength));
  // A NUL with no room for a record behind it ends the search as no NUL does.
  for (; place + kUnit + sizeof(ExtendedRecord) <= end; place += kUnit) {
    if (LoadU16(sector.data() + place) == 0) return static_cast<std::uint32_t>(place + kUnit);
  }
  return std::nullopt;
}

}  // namespace kq
