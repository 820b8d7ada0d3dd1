#include <cstring>

#include "crypto/image_key.h"
#include "crypto/password_key.h"

namespace kq {
namespace {

constexpr char kModule[] = "crypto";

void EncipherDataKey128(std::span<const std::uint8_t> password, std::uint8_t* keyBlob) {
  PasswordKey passwordKey;
  MakePasswordKey128(password, &passwordKey);
  ScratchSchedule schedule;
  AesSetEncryptKey(passwordKey.bytes, passwordKey.bits, &schedule.key);
  AesEncipherSingleBlock(keyBlob, keyBlob, schedule.key);
}

[[nodiscard]] bool EncipherDataKey256(std::span<const std::uint8_t> password,
                                      std::uint8_t* keyBlob) {
  PasswordKey passwordKey;
  if (!MakePasswordKey256(password, &passwordKey)) return false;
  ScratchSchedule schedule;
  AesSetEncryptKey(passwordKey.bytes, passwordKey.bits, &schedule.key);
  alignas(16) std::uint8_t vector[kAesBlockBytes] = {};
  AesCbcEncrypt(keyBlob, keyBlob, 32, schedule.key, vector);
  return true;
}

// Turns the random bytes at the start of the blob (the data key, then the test value) into the
// finished blob, and keys the context.
[[nodiscard]] bool FillKeyBlob(CryptoContext* context, std::span<const std::uint8_t> password,
                               std::uint8_t* keyBlob) {
  switch (context->type) {
    case KQ_ENCRYPTION_AES128_UNCHECKED:
      AesSetEncryptKey(keyBlob, 128, &context->schedule);
      EncipherDataKey128(password, keyBlob);
      return true;
    case KQ_ENCRYPTION_AES128:
      AesSetEncryptKey(keyBlob, 128, &context->schedule);
      EncipherDataKey128(password, keyBlob);
      AesEncipherSingleBlock(keyBlob + 16, keyBlob + 32, context->schedule);
      return true;
    case KQ_ENCRYPTION_RC4:
      Rc4Init(&context->rc4, keyBlob);
      EncipherDataKey128(password, keyBlob);
      Rc4Crypt(&context->rc4, keyBlob + 16, keyBlob + 32, 16);
      return true;
    default:
      AesSetEncryptKey(keyBlob, 256, &context->schedule);
      if (!EncipherDataKey256(password, keyBlob)) return false;
      AesEncipherSingleBlock(keyBlob + 32, keyBlob + 48, context->schedule);
      return true;
  }
}

struct KeyBlobSizes {
  std::uint32_t randomBytes;
  std::uint32_t blobBytes;
};

constexpr KeyBlobSizes kSizesByType[] = {{0, 0}, {16, 16}, {32, 48}, {32, 48}, {48, 64}};

}  // namespace

KQStatus ImageKeyCreate(CryptoContext* context, const std::uint8_t* password,
                        std::uint32_t passwordBytes, std::uint8_t* keyBlob,
                        std::uint32_t* keyBlobLength) {
  *keyBlobLength = 0;
  if (context->type < KQ_ENCRYPTION_AES128_UNCHECKED || context->type > KQ_ENCRYPTION_AES256) {
    return Success();
  }

  const KeyBlobSizes sizes = kSizesByType[context->type];
  const bool random = !Failed(RandomBytes(sizes.randomBytes, keyBlob));
  if (!random || !FillKeyBlob(context, std::span(password, passwordBytes), keyBlob)) {
    Wipe(keyBlob, sizes.blobBytes);
    return random ? KQ_FAIL(kNotEnoughMemory) : KQ_FAIL(kInvalidPassword);
  }
  *keyBlobLength = sizes.blobBytes;
  return Success();
}

}  // namespace kq
