#include <cstring>

#include "crypto/image_key.h"
#include "crypto/password_key.h"
#include "crypto/text_conversion.h"

namespace kq {
namespace {

constexpr char kModule[] = "crypto";

// Replaces the enciphered data key at the start of a blob by the data key itself.
void DecipherDataKey128(std::span<const std::uint8_t> password, std::uint8_t* keyBlob) {
  PasswordKey passwordKey;
  MakePasswordKey128(password, &passwordKey);
  ScratchSchedule schedule;
  AesSetDecryptKey(passwordKey.bytes, passwordKey.bits, &schedule.key);
  AesDecipherSingleBlock(keyBlob, keyBlob, schedule.key);
}

[[nodiscard]] bool DecipherDataKey256(std::span<const std::uint8_t> password,
                                      std::uint8_t* keyBlob) {
  PasswordKey passwordKey;
  if (!MakePasswordKey256(password, &passwordKey)) return false;
  ScratchSchedule schedule;
  AesSetDecryptKey(passwordKey.bytes, passwordKey.bits, &schedule.key);
  alignas(16) std::uint8_t vector[kAesBlockBytes] = {};
  AesCbcDecrypt(keyBlob, keyBlob, 32, schedule.key, vector);
  return true;
}

// No check value is stored: every password opens such a blob, and a wrong one gives a wrong key.
KQStatus UnwrapUnchecked(CryptoContext* context, std::span<const std::uint8_t> password,
                         std::span<std::uint8_t> keyBlob, KeyDirection direction) {
  if (keyBlob.size() != 16) return KQ_FAIL(kInvalidParameter);

  DecipherDataKey128(password, keyBlob.data());
  if (direction == KeyDirection::kReading) {
    AesSetDecryptKey(keyBlob.data(), 128, &context->schedule);
  } else {
    AesSetEncryptKey(keyBlob.data(), 128, &context->schedule);
  }
  Wipe(keyBlob.data(), 16);
  return Success();
}

// The test value in clear stands behind the data key, and its enciphered form behind that.
KQStatus UnwrapChecked(CryptoContext* context, std::span<const std::uint8_t> password,
                       std::span<std::uint8_t> keyBlob, std::uint32_t keyBytes,
                       KeyDirection direction) {
  if (keyBlob.size() != keyBytes + 32) return KQ_FAIL(kInvalidParameter);

  std::uint8_t* const dataKey = keyBlob.data();
  if (keyBytes == 16) {
    DecipherDataKey128(password, dataKey);
  } else if (!DecipherDataKey256(password, dataKey)) {
    return KQ_FAIL(kNotEnoughMemory);
  }

  // The test deciphers, so it needs this schedule for writing, too.
  AesSetDecryptKey(dataKey, 8 * keyBytes, &context->schedule);
  const std::uint8_t* const testValue = dataKey + keyBytes;
  std::uint8_t* const testBlock = dataKey + keyBytes + 16;
  AesDecipherSingleBlock(testBlock, testBlock, context->schedule);
  if (std::memcmp(testBlock, testValue, 16) != 0) {
    Wipe(dataKey, keyBytes);
    return KQ_FAIL(kInvalidPassword);
  }

  if (direction == KeyDirection::kWriting) {
    AesSetEncryptKey(dataKey, 8 * keyBytes, &context->schedule);
  }
  Wipe(dataKey, keyBytes);
  return Success();
}

KQStatus UnwrapRc4(CryptoContext* context, std::span<const std::uint8_t> password,
                   std::span<std::uint8_t> keyBlob) {
  if (keyBlob.size() != 48) return KQ_FAIL(kInvalidParameter);

  std::uint8_t* const dataKey = keyBlob.data();
  DecipherDataKey128(password, dataKey);
  Rc4Init(&context->rc4, dataKey);
  Wipe(dataKey, 16);

  // The context goes on behind these 16 bytes of the keystream.
  const std::uint8_t* const testValue = dataKey + 16;
  std::uint8_t* const testBlock = dataKey + 32;
  Rc4Crypt(&context->rc4, testBlock, testBlock, 16);
  if (std::memcmp(testBlock, testValue, 16) != 0) return KQ_FAIL(kInvalidPassword);
  return Success();
}

}  // namespace

KQStatus ImageKeyUnwrap(CryptoContext* context, const std::uint8_t* password,
                        std::uint32_t passwordBytes, std::uint8_t* keyBlob,
                        std::uint32_t keyBlobLength, KeyDirection direction) {
  const std::span units(password, passwordBytes);
  const std::span blob(keyBlob, keyBlobLength);
  switch (context->type) {
    case KQ_ENCRYPTION_AES128_UNCHECKED:
      return UnwrapUnchecked(context, units, blob, direction);
    case KQ_ENCRYPTION_AES128:
      return UnwrapChecked(context, units, blob, 16, direction);
    case KQ_ENCRYPTION_RC4:
      return UnwrapRc4(context, units, blob);
    case KQ_ENCRYPTION_AES256:
      return UnwrapChecked(context, units, blob, 32, direction);
    default:
      return Success();
  }
}

KQStatus ImageKeyOpen(CryptoContext* context, const char* password, std::uint8_t* keyBlob,
                      std::uint32_t keyBlobLength) {
  if (password == nullptr) return KQ_FAIL(kNotEnoughMemory);
  const std::size_t length = std::strlen(password);
  // Twice the length is a password's largest size in units.
  if (length > UINT32_MAX / 2) return KQ_FAIL(kNotEnoughMemory);

  const SecretBuffer units = Utf8ToUtf16(password, static_cast<std::uint32_t>(length));
  if (!units) return KQ_FAIL(kNotEnoughMemory);
  const std::size_t unitBytes = units.size() - sizeof(std::uint16_t);
  return ImageKeyUnwrap(context, units.data(), static_cast<std::uint32_t>(unitBytes), keyBlob,
                        keyBlobLength, KeyDirection::kReading);
}

}  // namespace kq
