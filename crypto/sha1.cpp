#include "crypto/sha1.h"

#include <bit>
#include <cstddef>
#include <cstring>

#include "foundation/little_endian.h"
#include "foundation/memory.h"

namespace kq {
namespace {

constexpr std::size_t kBlockBytes = 64;
constexpr std::size_t kCountOffset = 56;  // the bit count ends the last block

}  // namespace

void Sha1Transform(Sha1Context* context, const std::uint8_t* block, std::uint32_t* scheduleWords) {
  std::uint32_t* const w = scheduleWords;
  for (std::size_t i = 0; i < 16; ++i) w[i] = __builtin_bswap32(LoadU32(block + 4 * i));
  for (std::size_t i = 16; i < 80; ++i) {
    w[i] = std::rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  }

  std::uint32_t a = context->state[0];
  std::uint32_t b = context->state[1];
  std::uint32_t c = context->state[2];
  std::uint32_t d = context->state[3];
  std::uint32_t e = context->state[4];
  for (std::size_t i = 0; i < 80; ++i) {
    std::uint32_t mixed = 0;
    if (i < 20) {
      mixed = ((b & c) | (~b & d)) + 0x5A827999;
    } else if (i < 40) {
      mixed = (b ^ c ^ d) + 0x6ED9EBA1;
    } else if (i < 60) {
      mixed = ((b & c) | (b & d) | (c & d)) + 0x8F1BBCDC;
    } else {
      mixed = (b ^ c ^ d) + 0xCA62C1D6;
    }
    const std::uint32_t next = std::rotl(a, 5) + mixed + e + w[i];
    e = d;
    d = c;
    c = std::rotl(b, 30);
    b = a;
    a = next;
  }
  context->state[0] += a;
  context->state[1] += b;
  context->state[2] += c;
  context->state[3] += d;
  context->state[4] += e;
}

void Sha1Final(std::uint8_t* digest, Sha1Context* context) {
  std::size_t used = context->bitCount / 8 % kBlockBytes;
  context->buffer[used++] = 0x80;
  if (used > kCountOffset) {
    std::memset(context->buffer + used, 0, kBlockBytes - used);
    Sha1Transform(context, context->buffer, context->schedule);
    used = 0;
  }
  std::memset(context->buffer + used, 0, kCountOffset - used);
  StoreU64(context->buffer + kCountOffset, __builtin_bswap64(context->bitCount));
  Sha1Transform(context, context->buffer, context->schedule);
  for (std::size_t i = 0; i < 5; ++i) {
    StoreU32(digest + 4 * i, __builtin_bswap32(context->state[i]));
  }
  Wipe(context, sizeof *context);
}

bool Sha1OfMessage(std::span<const std::uint8_t> message, std::uint8_t* digest) {
  const Owned<Sha1Context> context = MakeOwned<Sha1Context>();
  if (!context) return false;

  context->bitCount = std::uint64_t{message.size()} * 8;
  for (; message.size() >= kBlockBytes; message = message.subspan(kBlockBytes)) {
    Sha1Transform(context.get(), message.data(), context->schedule);
  }
  if (!message.empty()) std::memcpy(context->buffer, message.data(), message.size());
  Sha1Final(digest, context.get());
  return true;
}

}  // namespace kq
