// Finding the ExtendedRecord of a header: it stands right behind the Comment's NUL, so its place
// follows from the text before it.
#ifndef KQ_HEADER_EXTENDED_RECORD_H
#define KQ_HEADER_EXTENDED_RECORD_H

#include <cstdint>
#include <optional>
#include <span>

namespace kq {

// Where a record must end to count. The readers differ by one byte, and clients and files rely on
// each of them: a record that fills its sector is carried from a template and repaired, and is not
// shown by the query.
enum class RecordLimit {
  kSectorEnd,         // the copy of a template, the header repair
  kByteBeforeTheEnd,  // KQImageFileGetInfo2
};

// The record's offset in sector 0, or none. Whether Flags announces a record is not looked at.
// sector: SectorSize bytes.
std::optional<std::uint32_t> FindExtendedRecord(std::span<const std::uint8_t> sector,
                                                RecordLimit limit);

}  // namespace kq

#endif
