// How a password opens an image's data key, and how runs of sectors are ciphered with it.
//
// The random data key of an image stands in sector 0, in the KeyBlob, enciphered under a key made
// from the password. A CryptoContext holds an open data key for one direction. It is filled by one
// open or create, read-only from then on, and may serve any number of threads at once.
#ifndef KQ_CRYPTO_IMAGE_KEY_H
#define KQ_CRYPTO_IMAGE_KEY_H

#include <cstdint>
#include <span>

#include "crypto/aes.h"
#include "crypto/rc4.h"
#include "foundation/memory.h"
#include "foundation/status.h"
#include "kqimageformat.h"

namespace kq {

inline constexpr std::uint32_t kLargestKeyBlob = 64;

// Wiped when it goes. Made with MakeOwned<CryptoContext>().
struct alignas(16) CryptoContext {
  std::uint32_t type = 0;  // EncryptionType
  union alignas(16) {
    AES_KEY
    schedule;      // types 1, 2, 4; of the data key, for the direction the context was opened for
    Rc4State rc4;  // type 3; it stands behind the bytes that the blob's test has used
  };

  CryptoContext();
  CryptoContext(const CryptoContext&) = delete;
  CryptoContext& operator=(const CryptoContext&) = delete;
  ~CryptoContext();
};

enum class KeyDirection { kReading, kWriting };

// Opens the KeyBlob with the password's UTF-16 units (passwordBytes long, no NUL). context->type is
// set. The blob's key part is destroyed, so callers hand in a copy. -86 wrong password; -87 a blob
// of the wrong length.
KQStatus ImageKeyUnwrap(CryptoContext* context, const std::uint8_t* password,
                        std::uint32_t passwordBytes, std::uint8_t* keyBlob,
                        std::uint32_t keyBlobLength, KeyDirection direction);

// Converts a UTF-8 password, then unwraps for reading. -8 password null or not convertible.
KQStatus ImageKeyOpen(CryptoContext* context, const char* password, std::uint8_t* keyBlob,
                      std::uint32_t keyBlobLength);

// Makes a new data key and its KeyBlob under the password's units, and opens the context for
// writing. context->type is set; keyBlob has room for kLargestKeyBlob bytes and *keyBlobLength
// receives the length. A type outside 1 to 4 makes no key and succeeds with length 0. -86 no
// randomness.
KQStatus ImageKeyCreate(CryptoContext* context, const std::uint8_t* password,
                        std::uint32_t passwordBytes, std::uint8_t* keyBlob,
                        std::uint32_t* keyBlobLength);

// Deciphers or enciphers length bytes; in and out may be the same. The 16-byte vector is wiped on
// success. Types 0 and above 4 do nothing at all. For the AES types -87, and nothing is touched, if
// the length is no multiple of 16.
KQStatus ImageDecipherRun(const CryptoContext& context, std::uint8_t* out, const std::uint8_t* in,
                          std::uint32_t length, std::uint8_t* vector);
KQStatus ImageEncipherRun(const CryptoContext& context, std::uint8_t* out, const std::uint8_t* in,
                          std::uint32_t length, std::uint8_t* vector);

// Fills the buffer from the system's random device.
KQStatus RandomBytes(std::uint32_t count, std::uint8_t* buffer);

}  // namespace kq

#endif
