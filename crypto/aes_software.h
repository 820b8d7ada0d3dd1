// The software path's key schedules: round-key words hold four key bytes as a big-endian number.
#ifndef KQ_CRYPTO_AES_SOFTWARE_H
#define KQ_CRYPTO_AES_SOFTWARE_H

#include "crypto/aes.h"

namespace kq {

void AesSoftwareSetEncryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key);
void AesSoftwareSetDecryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key);

}  // namespace kq

#endif
