// AES with 128-bit and 256-bit keys: single blocks and runs in CBC mode.
//
// There are two paths, chosen once per process by AesGetMode: software, with lookup tables, and
// hardware, with the processor's AES instructions. Both give the same bytes for the same key, but
// they lay out the key schedule differently, so a schedule may only be used in the mode it was made
// in and is never stored.
//
// A schedule is read-only during ciphering and the vector is each call's own, so any number of
// threads may cipher with one schedule. Nothing here allocates memory or fails. Data may have any
// alignment, and in and out may be the same buffer.
#ifndef KQ_CRYPTO_AES_H
#define KQ_CRYPTO_AES_H

#include <cstddef>
#include <cstdint>

namespace kq {

inline constexpr std::size_t kAesBlockBytes = 16;

// A key schedule. It must lie on a 16-byte boundary, which its owner sees to: the type itself does
// not ask for it, so that the check of it in AesSetEncryptKey can be reached. It holds the key:
// owners wipe it.
//
// Software: each word holds four key bytes as a big-endian number. Hardware: the words hold the
// plain bytes. A decryption schedule is that of the equivalent inverse cipher.
struct AES_KEY {
  std::uint32_t roundKeys[60];  // a 128-bit key uses the first 44
  std::int32_t rounds;          // 10 for a 128-bit key, else 14
};
static_assert(sizeof(AES_KEY) == 244);

inline constexpr std::uint32_t kAesModeSoftware = 1;
inline constexpr std::uint32_t kAesModeHardware = 2;

// The process's path, decided by the first call.
std::uint32_t AesGetMode();

// The schedules of a key of 128 or 256 bits. Any other count gives a schedule of zero words.
void AesSetEncryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key);
void AesSetDecryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key);

// One block, in software mode only.
void AesEncryptBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key);
void AesDecryptBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key);

// One block in the mode of the process.
void AesEncipherSingleBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key);
void AesDecipherSingleBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key);

// A run of whole blocks. Behind the last whole block nothing is read or written; software mode also
// logs such a length. The 16-byte vector is wiped in every case, so a run is never continued by a
// later call, and ZeroIv must not be given as the vector.
void AesCbcEncrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length,
                   const AES_KEY& key, std::uint8_t* vector);
void AesCbcDecrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length,
                   const AES_KEY& key, std::uint8_t* vector);

// The hardware part of AesCbcDecrypt. It leaves the vector alone, so it may be given ZeroIv.
void AesCbcDecryptHardware(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* vector,
                           std::size_t length, const AES_KEY& key);

alignas(16) inline constexpr std::uint8_t ZeroIv[kAesBlockBytes] = {};

}  // namespace kq

#endif
