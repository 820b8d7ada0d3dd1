// Deciphering of the header's later sectors.
#ifndef KQ_HEADER_HEADER_CIPHER_H
#define KQ_HEADER_HEADER_CIPHER_H

#include <cstdint>

#include "foundation/status.h"

namespace kq {

// Deciphers a run of header sectors that begins at sector 1, in place. keyBlob is left as it is.
//
// -86 password null, empty or wrong; -87 a key blob of the wrong length, or a length that the
// cipher can't take; -8, also for a password that is no UTF-8. A failure leaves the buffer as it
// was.
KQStatus DecipherHeaderRun(std::uint32_t encryptionType, const std::uint8_t* keyBlob,
                           std::uint32_t keyBlobLength, const char* password, std::uint8_t* buffer,
                           std::uint32_t length);

}  // namespace kq

#endif
