#include "crypto/rc4.h"

#include <utility>

#include "foundation/little_endian.h"

namespace kq {
namespace {

constexpr std::uint32_t kKeyBytes = 16;

// The indices live in locals during a run; the entries are the state's own.
struct Generator {
  std::uint32_t* entries;
  std::uint32_t i;
  std::uint32_t j;

  std::uint32_t NextByte() {
    i = (i + 1) & 0xFF;
    const std::uint32_t atI = entries[i];
    j = (j + atI) & 0xFF;
    const std::uint32_t atJ = entries[j];
    entries[i] = atJ;
    entries[j] = atI;
    return entries[(atI + atJ) & 0xFF];
  }
};

}  // namespace

void Rc4Init(Rc4State* state, const std::uint8_t* keyBytes) {
  state->i = 0;
  state->j = 0;
  for (std::uint32_t k = 0; k < 256; ++k) state->entries[k] = k;
  std::uint32_t j = 0;
  for (std::uint32_t k = 0; k < 256; ++k) {
    j = (j + state->entries[k] + keyBytes[k % kKeyBytes]) & 0xFF;
    std::swap(state->entries[k], state->entries[j]);
  }
}

void Rc4Crypt(Rc4State* state, const std::uint8_t* in, std::uint8_t* out, std::uint32_t length) {
  Generator generator{state->entries, state->i, state->j};
  for (; length >= 8; length -= 8) {
    std::uint64_t keystream = 0;
    for (int shift = 0; shift < 64; shift += 8) {
      keystream |= std::uint64_t{generator.NextByte()} << shift;
    }
    StoreU64(out, LoadU64(in) ^ keystream);
    in += 8;
    out += 8;
  }
  for (; length != 0; --length) {
    *out++ = static_cast<std::uint8_t>(*in++ ^ generator.NextByte());
  }
  state->i = generator.i;
  state->j = generator.j;
}

}  // namespace kq
