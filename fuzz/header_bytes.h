// Makes damaged headers pass the checks that would end a query early.
#ifndef KQ_FUZZ_HEADER_BYTES_H
#define KQ_FUZZ_HEADER_BYTES_H

#include "tests/support/bytes.h"

namespace kqfuzz {

// Sets the checksums of the ExtendedRecord of an image file, if the file has room for one.
void MendChecksums(kqtest::Bytes* file);

// Lowers what a header claims to 256 KiB. All of it counts in its checksum, and the sanitizers fill
// what the library only reserves, so that a header which claims gigabytes takes them seconds.
void LimitClaims(kqtest::Bytes* file);

}  // namespace kqfuzz

#endif
