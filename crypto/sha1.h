// SHA-1 (FIPS 180) of whole messages, which are passwords: there is no update operation.
//
// The caller makes a context in the heap for one digest, stores the message's length in bits, runs
// Sha1Transform over its whole blocks, copies the rest into the buffer and calls Sha1Final.
// Sha1OfMessage does just that.
#ifndef KQ_CRYPTO_SHA1_H
#define KQ_CRYPTO_SHA1_H

#include <cstdint>
#include <span>

namespace kq {

inline constexpr std::uint32_t kSha1DigestBytes = 20;

struct Sha1Context {
  std::uint32_t state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::uint64_t bitCount = 0;
  std::uint8_t buffer[64] = {};
  std::uint32_t schedule[80] = {};  // what the transform works in; it is derived from the message
};

// Puts one 64-byte block into the state; scheduleWords are the context's.
void Sha1Transform(Sha1Context* context, const std::uint8_t* block, std::uint32_t* scheduleWords);

// Pads what the buffer holds of the message, writes the 20-byte digest and wipes the whole context
// to zero.
void Sha1Final(std::uint8_t* digest, Sha1Context* context);

// The digest of a message, through a context that is made, wiped and freed here. False: no memory,
// and the digest is untouched.
[[nodiscard]] bool Sha1OfMessage(std::span<const std::uint8_t> message, std::uint8_t* digest);

}  // namespace kq

#endif
