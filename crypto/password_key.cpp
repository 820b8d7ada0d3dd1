#include "crypto/password_key.h"

#include "crypto/md5.h"
#include "crypto/sha1.h"
#include "foundation/memory.h"

namespace kq {
namespace {

void Md5OfUnits(std::span<const std::uint8_t> units, std::uint8_t* digest) {
  Md5Context context;
  Md5Update(&context, units.data(), static_cast<std::uint32_t>(units.size()));
  Md5Final(digest, &context);
}

}  // namespace

PasswordKey::~PasswordKey() { Wipe(bytes, sizeof bytes); }

ScratchSchedule::~ScratchSchedule() { Wipe(&key, sizeof key); }

void MakePasswordKey128(std::span<const std::uint8_t> units, PasswordKey* key) {
  key->bits = 128;
  Md5OfUnits(units, key->bytes);
}

bool MakePasswordKey256(std::span<const std::uint8_t> units, PasswordKey* key) {
  static_assert(sizeof(PasswordKey::bytes) == kSha1DigestBytes + kMd5DigestBytes);
  key->bits = 256;
  if (!Sha1OfMessage(units, key->bytes)) return false;
  Md5OfUnits(units, key->bytes + kSha1DigestBytes);
  return true;
}

}  // namespace kq
