// RC4 with a 16-byte key. The state holds the key: owners wipe it.
#ifndef KQ_CRYPTO_RC4_H
#define KQ_CRYPTO_RC4_H

#include <cstdint>

namespace kq {

struct Rc4State {
  std::uint32_t i;
  std::uint32_t j;
  std::uint32_t entries[256];  // each 0 to 255
};

void Rc4Init(Rc4State* state, const std::uint8_t* keyBytes);

// XORs the next length bytes of the keystream over in; in and out may be the same buffer.
void Rc4Crypt(Rc4State* state, const std::uint8_t* in, std::uint8_t* out, std::uint32_t length);

}  // namespace kq

#endif
