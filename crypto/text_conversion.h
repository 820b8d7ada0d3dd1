// UTF-8 to UTF-16, with exactly the refusals that stored passwords and comments rest on.
#ifndef KQ_CRYPTO_TEXT_CONVERSION_H
#define KQ_CRYPTO_TEXT_CONVERSION_H

#include <cstdint>

#include "foundation/memory.h"

namespace kq {

// Converts, or with a null out (capacity 0) only counts. Returns the number of units; 0 on a
// failure, with errno EILSEQ or E2BIG. An empty text gives 0 with errno 0.
std::uint32_t Utf8ToUtf16Count(const std::uint8_t* text, std::uint32_t length, std::uint16_t* out,
                               std::uint32_t capacity);

// The converted text with a NUL unit behind it, which counts in size(). Empty on a failure. The
// buffer wipes itself, since passwords pass through here.
SecretBuffer Utf8ToUtf16(const char* text, std::uint32_t length);

}  // namespace kq

#endif
