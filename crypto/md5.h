// MD5 (RFC 1321). It turns a password into a key, so what passes through here is secret.
#ifndef KQ_CRYPTO_MD5_H
#define KQ_CRYPTO_MD5_H

#include <cstdint>

namespace kq {

inline constexpr std::uint32_t kMd5DigestBytes = 16;

// Starts as an empty message: there is no separate initialisation. Md5Final wipes it; an owner that
// does not finish a digest wipes it itself.
struct Md5Context {
  std::uint32_t state[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
  std::uint32_t bitCount[2] = {0, 0};  // low word first
  std::uint8_t buffer[64] = {};
};

// bytes may be null if length is 0.
void Md5Update(Md5Context* context, const std::uint8_t* bytes, std::uint32_t length);

// Writes the 16-byte digest and wipes the context to zero.
void Md5Final(std::uint8_t* digest, Md5Context* context);

}  // namespace kq

#endif
