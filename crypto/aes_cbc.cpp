// What callers see of AES: each operation takes the path of the process's mode.
#include <cstring>

#include "crypto/aes.h"
#include "crypto/aes_hardware.h"
#include "crypto/aes_software.h"
#include "foundation/little_endian.h"
#include "foundation/log.h"
#include "foundation/memory.h"

namespace kq {
namespace {

void XorBlock(std::uint8_t* into, const std::uint8_t* from) {
  StoreU64(into, LoadU64(into) ^ LoadU64(from));
  StoreU64(into + 8, LoadU64(into + 8) ^ LoadU64(from + 8));
}

void CheckWholeBlocks(std::size_t length) {
  if (length % kAesBlockBytes != 0) LogAssertion("CBC must have aligned block size");
}

}  // namespace

void AesSetEncryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key) {
  if (AesGetMode() == kAesModeHardware) {
    AesHardwareSetEncryptKey(keyBytes, bits, key);
  } else {
    AesSoftwareSetEncryptKey(keyBytes, bits, key);
  }
}

void AesSetDecryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key) {
  if (AesGetMode() == kAesModeHardware) {
    AesHardwareSetDecryptKey(keyBytes, bits, key);
  } else {
    AesSoftwareSetDecryptKey(keyBytes, bits, key);
  }
}

void AesEncipherSingleBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key) {
  if (AesGetMode() == kAesModeHardware) {
    AesCbcEncryptHardware(in, out, ZeroIv, kAesBlockBytes, key);
  } else {
    AesEncryptBlock(in, out, key);
  }
}

void AesDecipherSingleBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key) {
  if (AesGetMode() == kAesModeHardware) {
    AesCbcDecryptHardware(in, out, ZeroIv, kAesBlockBytes, key);
  } else {
    AesDecryptBlock(in, out, key);
  }
}

void AesCbcEncrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length,
                   const AES_KEY& key, std::uint8_t* vector) {
  if (AesGetMode() == kAesModeHardware) {
    AesCbcEncryptHardware(in, out, vector, length, key);
  } else {
    CheckWholeBlocks(length);
    for (; length >= kAesBlockBytes; length -= kAesBlockBytes) {
      XorBlock(vector, in);
      AesEncryptBlock(vector, out, key);
      std::memcpy(vector, out, kAesBlockBytes);
      in += kAesBlockBytes;
      out += kAesBlockBytes;
    }
  }
  Wipe(vector, kAesBlockBytes);
}

void AesCbcDecrypt(const std::uint8_t* in, std::uint8_t* out, std::size_t length,
                   const AES_KEY& key, std::uint8_t* vector) {
  if (AesGetMode() == kAesModeHardware) {
    AesCbcDecryptHardware(in, out, vector, length, key);
  } else {
    CheckWholeBlocks(length);
    for (; length >= kAesBlockBytes; length -= kAesBlockBytes) {
      std::uint8_t ciphertext[kAesBlockBytes];
      std::memcpy(ciphertext, in, kAesBlockBytes);
      AesDecryptBlock(in, out, key);
      XorBlock(out, vector);
      std::memcpy(vector, ciphertext, kAesBlockBytes);
      in += kAesBlockBytes;
      out += kAesBlockBytes;
    }
  }
  Wipe(vector, kAesBlockBytes);
}

}  // namespace kq
