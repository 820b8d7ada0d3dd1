// The key that an image's data key is enciphered under, made from the password alone: no salt and
// no iteration count, so a password always gives the same key.
#ifndef KQ_CRYPTO_PASSWORD_KEY_H
#define KQ_CRYPTO_PASSWORD_KEY_H

#include <cstdint>
#include <span>

#include "crypto/aes.h"

namespace kq {

// Wiped when it goes.
struct PasswordKey {
  std::uint8_t bytes[36];  // room for both digests; the key is the first bits / 8 of them
  std::uint32_t bits;

  PasswordKey() = default;
  PasswordKey(const PasswordKey&) = delete;
  PasswordKey& operator=(const PasswordKey&) = delete;
  ~PasswordKey();
};

// A key schedule in an aligned local, wiped when it goes.
struct alignas(16) ScratchSchedule {
  AES_KEY key;

  ScratchSchedule() = default;
  ScratchSchedule(const ScratchSchedule&) = delete;
  ScratchSchedule& operator=(const ScratchSchedule&) = delete;
  ~ScratchSchedule();
};

// The 128-bit key of types 1, 2 and 3: the MD5 of the password's units.
void MakePasswordKey128(std::span<const std::uint8_t> units, PasswordKey* key);

// The 256-bit key of type 4: the SHA-1 of the units, then the first 12 bytes of their MD5. False:
// no memory.
[[nodiscard]] bool MakePasswordKey256(std::span<const std::uint8_t> units, PasswordKey* key);

}  // namespace kq

#endif
