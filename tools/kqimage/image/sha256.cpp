#include "kqimage/image/sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <new>
#include <vector>

#include "kqimage/system/read_at.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kReadBytes = std::size_t{1} << 20;

// libcrypto fails when memory does.
void Require(bool isDone) {
  if (!isDone) throw std::bad_alloc();
}

}  // namespace

void Sha256::Free::operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  Require(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::Update(std::span<const std::byte> bytes) {
  Require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
}

void Sha256::UpdateFromFile(const std::string& path, std::uint64_t offset) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) FailErrno(errno, "open", path);
  std::vector<std::byte> bytes(kReadBytes);
  while (const std::size_t got = ReadAt(fd.Get(), offset, bytes, path)) {
    Update(std::span(bytes).first(got));
    offset += got;
  }
}

std::string Sha256::Digits() {
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest;
  unsigned length = 0;
  Require(EVP_DigestFinal_ex(context_.get(), digest.data(), &length) == 1);
  return HexText(std::span(digest).first(length));
}

}  // namespace kqimage
