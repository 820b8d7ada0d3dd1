// Key blobs made and opened without the library, on libcrypto: the peer of the image-key tests.
#ifndef KQ_CRYPTO_KEY_BLOB_MODEL_H
#define KQ_CRYPTO_KEY_BLOB_MODEL_H

#include <algorithm>
#include <optional>

#include "crypto/crypto_test_support.h"

namespace kqtest {

inline Bytes Slice(const Bytes& bytes, std::size_t from, std::size_t count) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
          bytes.begin() + static_cast<std::ptrdiff_t>(from + count)};
}

inline Bytes Joined(const Bytes& a, const Bytes& b) {
  Bytes all = a;
  all.insert(all.end(), b.begin(), b.end());
  return all;
}

inline std::size_t DataKeyBytes(std::uint32_t type) { return type == 4 ? 32 : 16; }

inline std::size_t KeyBlobBytes(std::uint32_t type) {
  return type == 1 ? 16 : DataKeyBytes(type) + 32;
}

inline Bytes PasswordKeyOf(std::uint32_t type, const Bytes& units) {
  const Bytes md5 = PeerDigest(EVP_md5(), units);
  if (type != 4) return md5;
  return Slice(Joined(PeerDigest(EVP_sha1(), units), md5), 0, 32);
}

// Both directions of the test value's cipher.
inline Bytes CheckValue(std::uint32_t type, const Bytes& dataKey, const Bytes& testValue) {
  return type == 3 ? Xor(testValue, Rc4Keystream(dataKey, 16)) : PeerEcb(dataKey, testValue, true);
}

inline Bytes MakeKeyBlob(std::uint32_t type, const Bytes& units, const Bytes& dataKey,
                         const Bytes& testValue) {
  const Bytes wrapped = PeerCbc(PasswordKeyOf(type, units), Bytes(16), dataKey, true);
  if (type == 1) return wrapped;
  return Joined(Joined(wrapped, testValue), CheckValue(type, dataKey, testValue));
}

// The data key, or nothing if the blob's check value does not fit.
inline std::optional<Bytes> OpenKeyBlob(std::uint32_t type, const Bytes& units, const Bytes& blob) {
  if (blob.size() != KeyBlobBytes(type)) return std::nullopt;
  const std::size_t keyBytes = DataKeyBytes(type);
  const Bytes dataKey =
      PeerCbc(PasswordKeyOf(type, units), Bytes(16), Slice(blob, 0, keyBytes), false);
  if (type == 1) return dataKey;
  const Bytes testValue = Slice(blob, keyBytes, 16);
  if (CheckValue(type, dataKey, testValue) != Slice(blob, keyBytes + 16, 16)) return std::nullopt;
  return dataKey;
}

// A run of sectors under an open data key; type 3 uses the keystream from byte 32 on.
inline Bytes CipherRun(std::uint32_t type, const Bytes& dataKey, const Bytes& vector,
                       const Bytes& in, bool encrypt) {
  if (type != 3) return PeerCbc(dataKey, vector, in, encrypt);
  const Bytes stream = Rc4Keystream(dataKey, 32 + in.size());
  return Xor(in, Slice(stream, 32, in.size()));
}

}  // namespace kqtest

#endif
