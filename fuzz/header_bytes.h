// Makes damaged headers pass the checks that would end a query early.
#ifndef KQ_FUZZ_HEADER_BYTES_H
#define KQ_FUZZ_HEADER_BYTES_H

#include "tests/support/bytes.h"

namespace kqfuzz {

// Sets the checksums of the ExtendedRecord of an image file, if the file has room for one.
void MendChecksums(kqtest::Bytes* file);

// Lowers HeaderSectors where it claims more than 256 KiB: all of a header counts in its checksum,
// so that one which claims gigabytes takes seconds under the sanitizers.
void LimitClaims(kqtest::Bytes* file);

}  // namespace kqfuzz

#endif
