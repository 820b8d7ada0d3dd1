#include "header/header_cipher.h"

#include "crypto/image_key.h"
#include "foundation/memory.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

}  // namespace

KQStatus DecipherHeaderRun(std::uint32_t encryptionType, const std::uint8_t* keyBlob,
                           std::uint32_t keyBlobLength, const char* password, std::uint8_t* buffer,
                           std::uint32_t length) {
  if (password == nullptr || *password == '\0') return KQ_FAIL(kInvalidPassword);

  const Owned<CryptoContext> context = MakeOwned<CryptoContext>();
  if (!context) return KQ_FAIL(kNotEnoughMemory);
  context->type = encryptionType;

  // Opening a key destroys its blob.
  SecretBuffer keyCopy = SecretBuffer::CopyOf(keyBlob, keyBlobLength);
  if (!keyCopy) return KQ_FAIL(kNotEnoughMemory);
  KQ_RETURN_IF_FAILED(ImageKeyOpen(context.get(), password, keyCopy.data(), keyBlobLength));

  std::uint8_t vector[16] = {};
  return ImageDecipherRun(*context, buffer, buffer, length, vector);
}

}  // namespace kq
