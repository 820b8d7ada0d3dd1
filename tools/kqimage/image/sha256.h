// A SHA-256 that grows piece by piece.
#ifndef KQIMAGE_IMAGE_SHA256_H
#define KQIMAGE_IMAGE_SHA256_H

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace kqimage {

class Sha256 {
 public:
  Sha256();

  // Throws std::bad_alloc, as the constructor does, when libcrypto fails.
  void Update(std::span<const std::byte> bytes);

  // Adds the file from the offset to its end. Throws a Failure if it can't be read.
  void UpdateFromFile(const std::string& path, std::uint64_t offset);

  // The digest as hexadecimal digits. Nothing can be added then.
  std::string Digits();

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const;
  };
  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

}  // namespace kqimage

#endif
