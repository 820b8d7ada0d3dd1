// The two checksums of an image header.
#ifndef KQ_CRYPTO_HEADER_CHECKSUMS_H
#define KQ_CRYPTO_HEADER_CHECKSUMS_H

#include <cstdint>

#include "kqimageformat.h"

namespace kq {

inline constexpr std::uint32_t kHeaderCrcMismatch = 1;
inline constexpr std::uint32_t kExtraCrcMismatch = 2;

// Compares the checksums of a header with those in its ExtendedRecord.
//
// header: sector 0, SectorSize bytes, with the later sectors behind it if checkLaterSectors is set.
// record: points into sector 0.
// Returns 0 if good, else kHeaderCrcMismatch and kExtraCrcMismatch as they apply. Without
// checkLaterSectors nothing behind sector 0 is looked at.
std::uint32_t CheckHeaderChecksums(const std::uint8_t* header, const std::uint8_t* record,
                                   bool checkLaterSectors);

// The values that belong into the record: over sectors 1 onward as stored (0 for none), and over
// sector 0 with the HeaderCrc field taken as zero.
std::uint32_t ComputeExtraCrc(const std::uint8_t* header);
std::uint32_t ComputeHeaderCrc(const std::uint8_t* header, const std::uint8_t* record);

}  // namespace kq

#endif
