#include "crypto/image_key.h"

namespace kq {
namespace {

constexpr char kModule[] = "crypto";

// Both directions. The local copy leaves the context to other threads, and makes each run start at
// the same place of the keystream: readers and writers of files must keep that.
void CryptRc4Run(const CryptoContext& context, std::uint8_t* out, const std::uint8_t* in,
                 std::uint32_t length, std::uint8_t* vector) {
  Rc4State state = context.rc4;
  // The vector takes 16 bytes of the keystream and never reaches the data.
  Rc4Crypt(&state, vector, vector, kAesBlockBytes);
  Rc4Crypt(&state, in, out, length);
  Wipe(&state, sizeof state);
  Wipe(vector, kAesBlockBytes);
}

}  // namespace

KQStatus ImageDecipherRun(const CryptoContext& context, std::uint8_t* out, const std::uint8_t* in,
                          std::uint32_t length, std::uint8_t* vector) {
  switch (context.type) {
    case KQ_ENCRYPTION_AES128_UNCHECKED:
    case KQ_ENCRYPTION_AES128:
    case KQ_ENCRYPTION_AES256:
      if (length % kAesBlockBytes != 0) return KQ_FAIL(kInvalidParameter);
      AesCbcDecrypt(in, out, length, context.schedule, vector);
      return Success();
    case KQ_ENCRYPTION_RC4:
      CryptRc4Run(context, out, in, length, vector);
      return Success();
    default:
      return Success();
  }
}

KQStatus ImageEncipherRun(const CryptoContext& context, std::uint8_t* out, const std::uint8_t* in,
                          std::uint32_t length, std::uint8_t* vector) {
  switch (context.type) {
    case KQ_ENCRYPTION_AES128_UNCHECKED:
    case KQ_ENCRYPTION_AES128:
    case KQ_ENCRYPTION_AES256:
      if (length % kAesBlockBytes != 0) return KQ_FAIL(kInvalidParameter);
      AesCbcEncrypt(in, out, length, context.schedule, vector);
      return Success();
    case KQ_ENCRYPTION_RC4:
      CryptRc4Run(context, out, in, length, vector);
      return Success();
    default:
      return Success();
  }
}

}  // namespace kq
