// Keys and ciphers of enciphered images, made with libcrypto and a plain RC4 instead of the
// library's own code.
#ifndef KQ_TESTS_SUPPORT_IMAGE_CIPHER_H
#define KQ_TESTS_SUPPORT_IMAGE_CIPHER_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tests/support/bytes.h"
#include "tests/support/image_builder.h"

namespace kqtest {

struct ImageKey {
  std::uint32_t type = 0;  // EncryptionType 1 to 4
  Bytes dataKey;
  Bytes blob;  // KeyBlob
};

// The little-endian UTF-16 bytes of a password, which must be valid UTF-8, without a NUL.
Bytes PasswordUnits(std::string_view utf8);

// A KeyBlob under the password, for a data key and test value that follow from the seed.
ImageKey MakeImageKey(std::uint32_t type, std::string_view password, std::uint64_t seed = 1);

// Opens a KeyBlob; empty if its length or its test value is wrong.
std::optional<ImageKey> OpenImageKey(std::uint32_t type, std::string_view password,
                                     std::span<const std::uint8_t> blob);

// Runs of header sectors (volume offset 0) and chunk bodies.
RunCipher EncipherWith(const ImageKey& key);
RunCipher DecipherWith(const ImageKey& key);

// Makes the image an enciphered one: EncryptionType, KeyBlob and the cipher of its runs.
void EncipherImage(ImageSpec* spec, std::uint32_t type, std::string_view password,
                   std::uint64_t seed = 1);

}  // namespace kqtest

#endif
