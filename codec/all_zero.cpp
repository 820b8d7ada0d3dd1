#include "codec/all_zero.h"

#include <cstring>

#include "foundation/little_endian.h"

namespace kq {

bool IsAllZero(const void* data, std::uint64_t length) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  for (; length >= 32; bytes += 32, length -= 32) {
    if ((LoadU64(bytes) | LoadU64(bytes + 8) | LoadU64(bytes + 16) | LoadU64(bytes + 24)) != 0) {
      return false;
    }
  }
  for (; length != 0; ++bytes, --length) {
    if (*bytes != 0) return false;
  }
  return true;
}

}  // namespace kq
