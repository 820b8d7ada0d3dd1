// What the tests of this room share: hex text, both AES modes, random data with a printed seed, and
// libcrypto as the peer.
#ifndef KQ_CRYPTO_CRYPTO_TEST_SUPPORT_H
#define KQ_CRYPTO_CRYPTO_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/aes.h"
#include "crypto/aes_dispatch.h"
#include "tests/support/test_seed.h"

namespace kqtest {

using Bytes = std::vector<std::uint8_t>;

inline Bytes FromHex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() == 2) {
      bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits, nullptr, 16)));
      digits.clear();
    }
  }
  return bytes;
}

inline std::string ToHex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

inline Bytes FromText(std::string_view text) { return {text.begin(), text.end()}; }

// The UTF-16LE bytes of plain ASCII text: a password as the digests see it.
inline Bytes UnitsOfAscii(std::string_view text) {
  Bytes units;
  for (const char c : text) {
    units.push_back(static_cast<std::uint8_t>(c));
    units.push_back(0);
  }
  return units;
}

class Random {
 public:
  Random() : seed_(kqtest::TestSeed()), engine_(seed_) {
    std::printf("seed %u\n", static_cast<unsigned>(seed_));
  }
  std::uint32_t Below(std::uint32_t limit) {
    return std::uniform_int_distribution<std::uint32_t>(0, limit - 1)(engine_);
  }
  Bytes MakeBytes(std::size_t count) {
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(engine_());
    return bytes;
  }

 private:
  std::uint32_t seed_;
  std::mt19937 engine_;
};

// Puts the process into one AES mode, as if the processor had decided so, and back.
class ScopedAesMode {
 public:
  explicit ScopedAesMode(std::uint32_t mode) { kq::AesMode = mode; }
  ScopedAesMode(const ScopedAesMode&) = delete;
  ScopedAesMode& operator=(const ScopedAesMode&) = delete;
  ~ScopedAesMode() {
    kq::AesMode = 0;
    kq::AesDecryptVectorBlocks = kq::AesVectorBlocks::kUndecided;
  }
};

// The modes that this machine can run; the software path always is one.
inline std::vector<std::uint32_t> RunnableModes() {
  std::vector<std::uint32_t> modes = {kq::kAesModeSoftware};
  if (kq::HardwareAesQualifies(kq::ReadProcessorFeatures())) modes.push_back(kq::kAesModeHardware);
  return modes;
}

inline std::vector<kq::AesVectorBlocks> RunnableVectorBlocks() {
  std::vector<kq::AesVectorBlocks> widths = {kq::AesVectorBlocks::kOne};
  const kq::AesVectorBlocks widest = kq::WidestAesVector(kq::ReadProcessorFeatures());
  if (widest >= kq::AesVectorBlocks::kTwo) widths.push_back(kq::AesVectorBlocks::kTwo);
  if (widest >= kq::AesVectorBlocks::kFour) widths.push_back(kq::AesVectorBlocks::kFour);
  return widths;
}

// libcrypto: a digest by name, and unpadded AES over whole blocks.
inline Bytes PeerDigest(const EVP_MD* kind, std::span<const std::uint8_t> message) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  EXPECT_EQ(EVP_Digest(message.data(), message.size(), digest.data(), &length, kind, nullptr), 1);
  digest.resize(length);
  return digest;
}

inline Bytes PeerCipher(const EVP_CIPHER* kind, std::span<const std::uint8_t> key,
                        std::span<const std::uint8_t> vector, std::span<const std::uint8_t> in,
                        bool encrypt) {
  Bytes out(in.size() + 16);
  int length = 0;
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  EXPECT_EQ(EVP_CipherInit_ex(context.get(), kind, nullptr, key.data(), vector.data(), encrypt), 1);
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  EXPECT_EQ(
      EVP_CipherUpdate(context.get(), out.data(), &length, in.data(), static_cast<int>(in.size())),
      1);
  EXPECT_EQ(static_cast<std::size_t>(length), in.size());
  out.resize(in.size());
  return out;
}

inline Bytes PeerCbc(std::span<const std::uint8_t> key, std::span<const std::uint8_t> vector,
                     std::span<const std::uint8_t> in, bool encrypt) {
  return PeerCipher(key.size() == 16 ? EVP_aes_128_cbc() : EVP_aes_256_cbc(), key, vector, in,
                    encrypt);
}

inline Bytes PeerEcb(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in,
                     bool encrypt) {
  return PeerCipher(key.size() == 16 ? EVP_aes_128_ecb() : EVP_aes_256_ecb(), key, {}, in, encrypt);
}

// RC4 from its definition, a byte at a time, for keys of any length.
inline Bytes Rc4Keystream(std::span<const std::uint8_t> key, std::size_t count) {
  std::uint8_t s[256];
  for (unsigned k = 0; k < 256; ++k) s[k] = static_cast<std::uint8_t>(k);
  std::uint8_t j = 0;
  for (unsigned k = 0; k < 256; ++k) {
    j = static_cast<std::uint8_t>(j + s[k] + key[k % key.size()]);
    std::swap(s[k], s[j]);
  }
  Bytes stream;
  std::uint8_t i = 0;
  j = 0;
  while (stream.size() < count) {
    i = static_cast<std::uint8_t>(i + 1);
    j = static_cast<std::uint8_t>(j + s[i]);
    std::swap(s[i], s[j]);
    stream.push_back(s[static_cast<std::uint8_t>(s[i] + s[j])]);
  }
  return stream;
}

inline Bytes Xor(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  Bytes result(a.begin(), a.end());
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i] = static_cast<std::uint8_t>(result[i] ^ b[i]);
  }
  return result;
}

}  // namespace kqtest

#endif
