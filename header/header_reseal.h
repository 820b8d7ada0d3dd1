// Brings the header of a finished image file back to disk after a repair in memory.
#ifndef KQ_HEADER_HEADER_RESEAL_H
#define KQ_HEADER_HEADER_RESEAL_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/os_file.h"
#include "foundation/status.h"
#include "header/header_issues.h"

namespace kq {

// Enciphers the later sectors again, makes the checksums anew and stores the bytes to write from
// the header's start: one sector where only that has changed. Something has changed, and the later
// sectors are deciphered if they have.
//
// keyBlob: a copy from before that deciphering; opening the key destroys it. The one in the header
// stays.
//
// -6000 or -8 out of memory; -8 also for a password that is no UTF-8; or what the key reports.
// After a failure the header in memory is good for nothing.
KQStatus SealHeader(const HeaderRepairState& state, SecretBuffer keyBlob, const char* password,
                    std::uint32_t* bytesToWrite);

// Writes that many bytes of the header over the start of the file, in one write of whole file
// blocks, and makes them durable. A crash in between may leave a header with wrong checksums.
//
// -8; -23 the file ends within the last block; or errno mapped.
KQStatus WriteHeader(const OSAlignedFile& file, const std::uint8_t* header, std::uint32_t length);

}  // namespace kq

#endif
