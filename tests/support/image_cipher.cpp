#include "tests/support/image_cipher.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <utility>

namespace kqtest {
namespace {

constexpr std::size_t kBlock = 16;

Bytes Digest(const EVP_MD* algorithm, std::span<const std::uint8_t> bytes) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, algorithm, nullptr) != 1) {
    ADD_FAILURE() << "libcrypto makes no digest";
  }
  digest.resize(length);
  return digest;
}

Bytes AesCbc(bool encipher, std::span<const std::uint8_t> key, const Bytes& vector,
             std::span<const std::uint8_t> bytes) {
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  const EVP_CIPHER* cipher = key.size() == 32 ? EVP_aes_256_cbc() : EVP_aes_128_cbc();
  Bytes out(bytes.size() + kBlock);
  int length = 0;
  if (bytes.size() % kBlock != 0 ||
      EVP_CipherInit_ex(context.get(), cipher, nullptr, key.data(), vector.data(),
                        encipher ? 1 : 0) != 1 ||
      EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
      EVP_CipherUpdate(context.get(), out.data(), &length, bytes.data(),
                       static_cast<int>(bytes.size())) != 1) {
    ADD_FAILURE() << "libcrypto does not cipher " << bytes.size() << " bytes";
  }
  out.resize(bytes.size());
  return out;
}

Bytes ZeroVector() { return Bytes(kBlock); }

// The first count bytes of the RC4 keystream.
Bytes Rc4Keystream(std::span<const std::uint8_t> key, std::size_t count) {
  std::array<std::uint8_t, 256> state{};
  std::iota(state.begin(), state.end(), std::uint8_t{0});
  for (std::size_t i = 0, j = 0; i < 256; ++i) {
    j = (j + state[i] + key[i % key.size()]) % 256;
    std::swap(state[i], state[j]);
  }
  Bytes stream(count);
  std::size_t i = 0;
  std::size_t j = 0;
  for (std::uint8_t& byte : stream) {
    i = (i + 1) % 256;
    j = (j + state[i]) % 256;
    std::swap(state[i], state[j]);
    byte = state[(state[i] + state[j]) % 256];
  }
  return stream;
}

Bytes Xor(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  Bytes out(a.size());
  for (std::size_t i = 0; i < a.size(); ++i) out[i] = a[i] ^ b[i];
  return out;
}

std::size_t DataKeyBytes(std::uint32_t type) { return type == 4 ? 32 : 16; }
std::size_t BlobBytes(std::uint32_t type) {
  return type == 1 ? DataKeyBytes(type) : DataKeyBytes(type) + 2 * kBlock;
}

Bytes PasswordKey(std::uint32_t type, std::string_view password) {
  const Bytes units = PasswordUnits(password);
  if (type != 4) return Digest(EVP_md5(), units);
  Bytes key = Digest(EVP_sha1(), units);
  Append(&key, Digest(EVP_md5(), units));
  key.resize(32);
  return key;
}

Bytes CipheredTestValue(std::uint32_t type, std::span<const std::uint8_t> dataKey,
                        std::span<const std::uint8_t> testValue) {
  if (type == 3) return Xor(testValue, Rc4Keystream(dataKey, kBlock));
  return AesCbc(true, dataKey, ZeroVector(), testValue);
}

// The AES vector of a run, or the RC4 keystream's place: behind the test value and the vector.
Bytes CipherRun(const ImageKey& key, bool encipher, const Bytes& run, std::uint64_t volumeOffset) {
  if (key.type == 3) {
    const Bytes stream = Rc4Keystream(key.dataKey, 2 * kBlock + run.size());
    return Xor(run, std::span(stream).subspan(2 * kBlock));
  }
  Bytes vector = ZeroVector();
  Set64(&vector, 0, volumeOffset);
  return AesCbc(encipher, key.dataKey, vector, run);
}

}  // namespace

Bytes PasswordUnits(std::string_view utf8) {
  Bytes units;
  for (std::size_t i = 0; i < utf8.size();) {
    const auto lead = static_cast<std::uint8_t>(utf8[i]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::uint32_t value = length == 1 ? lead : lead & (0x7Fu >> length);
    for (std::size_t k = 1; k < length; ++k) {
      value = value << 6 | (static_cast<std::uint8_t>(utf8[i + k]) & 0x3Fu);
    }
    if (value >= 0x10000) {
      Set16(&units, units.size(), 0xD800 + ((value - 0x10000) >> 10));
      value = 0xDC00 + ((value - 0x10000) & 0x3FF);
    }
    Set16(&units, units.size(), value);
    i += length;
  }
  return units;
}

ImageKey MakeImageKey(std::uint32_t type, std::string_view password, std::uint64_t seed) {
  ImageKey key;
  key.type = type;
  key.dataKey = PatternBytes(seed * 2 + 1000, DataKeyBytes(type));
  key.blob = AesCbc(true, PasswordKey(type, password), ZeroVector(), key.dataKey);
  if (type != 1) {
    const Bytes testValue = PatternBytes(seed * 2 + 1001, kBlock);
    Append(&key.blob, testValue);
    Append(&key.blob, CipheredTestValue(type, key.dataKey, testValue));
  }
  return key;
}

std::optional<ImageKey> OpenImageKey(std::uint32_t type, std::string_view password,
                                     std::span<const std::uint8_t> blob) {
  if (blob.size() != BlobBytes(type)) return std::nullopt;
  ImageKey key;
  key.type = type;
  key.blob.assign(blob.begin(), blob.end());
  const std::size_t keyBytes = DataKeyBytes(type);
  key.dataKey = AesCbc(false, PasswordKey(type, password), ZeroVector(), blob.first(keyBytes));
  if (type != 1) {
    const Bytes expected = CipheredTestValue(type, key.dataKey, blob.subspan(keyBytes, kBlock));
    if (!std::equal(expected.begin(), expected.end(),
                    blob.begin() + static_cast<std::ptrdiff_t>(keyBytes + kBlock))) {
      return std::nullopt;
    }
  }
  return key;
}

RunCipher EncipherWith(const ImageKey& key) {
  return [key](const Bytes& run, std::uint64_t volumeOffset) {
    return CipherRun(key, true, run, volumeOffset);
  };
}

RunCipher DecipherWith(const ImageKey& key) {
  return [key](const Bytes& run, std::uint64_t volumeOffset) {
    return CipherRun(key, false, run, volumeOffset);
  };
}

void EncipherImage(ImageSpec* spec, std::uint32_t type, std::string_view password,
                   std::uint64_t seed) {
  const ImageKey key = MakeImageKey(type, password, seed);
  spec->header.encryptionType = type;
  spec->header.keyBlob = key.blob;
  spec->encipher = EncipherWith(key);
}

}  // namespace kqtest
