// The hardware path: key schedules and CBC runs with the processor's AES instructions.
//
// Callers make sure that the processor has them (AesGetMode). The functions carry the instruction
// sets they need as target attributes, so the rest of the library stays free of them.
#ifndef KQ_CRYPTO_AES_HARDWARE_H
#define KQ_CRYPTO_AES_HARDWARE_H

#include "crypto/aes.h"

// Stands before each loop over the rounds and over the blocks in flight. Unrolled, the blocks live
// in registers; as a loop, in memory, at a third of the speed.
#ifdef __clang__
#define KQ_UNROLL _Pragma("unroll 16")
#else
#define KQ_UNROLL _Pragma("GCC unroll 16")
#endif

namespace kq {

void AesHardwareSetEncryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key);
void AesHardwareSetDecryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key);

// Leaves the vector alone.
void AesCbcEncryptHardware(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* vector,
                           std::size_t length, const AES_KEY& key);

// The decryption with wider vectors: deciphers whole groups only, returns the bytes done, and moves
// vector (16 bytes) on to the last ciphertext block of them.
std::size_t AesCbcDecryptGroupsAvx2(const std::uint8_t* in, std::uint8_t* out, std::uint8_t* vector,
                                    std::size_t length, const AES_KEY& key);
std::size_t AesCbcDecryptGroupsAvx512(const std::uint8_t* in, std::uint8_t* out,
                                      std::uint8_t* vector, std::size_t length, const AES_KEY& key);

}  // namespace kq

#endif
