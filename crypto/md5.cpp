#include "crypto/md5.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "foundation/little_endian.h"
#include "foundation/memory.h"

namespace kq {
namespace {

constexpr std::size_t kBlockBytes = 64;
constexpr std::size_t kCountOffset = 56;  // the bit count ends the last block

// floor(2^32 * |sin(i + 1)|).
constexpr std::uint32_t kSines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391};

constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

void Md5Transform(std::uint32_t* state, const std::uint8_t* block) {
  std::uint32_t a = state[0];
  std::uint32_t b = state[1];
  std::uint32_t c = state[2];
  std::uint32_t d = state[3];
  for (std::size_t i = 0; i < 64; ++i) {
    std::uint32_t mixed = 0;
    std::size_t word = 0;
    switch (i / 16) {
      case 0:
        mixed = (b & c) | (~b & d);
        word = i;
        break;
      case 1:
        mixed = (b & d) | (c & ~d);
        word = 5 * i + 1;
        break;
      case 2:
        mixed = b ^ c ^ d;
        word = 3 * i + 5;
        break;
      default:
        mixed = c ^ (b | ~d);
        word = 7 * i;
        break;
    }
    const std::uint32_t sum = a + mixed + LoadU32(block + 4 * (word % 16)) + kSines[i];
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, kShifts[i / 16][i % 4]);
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

std::size_t BufferedBytes(const Md5Context& context) {
  return context.bitCount[0] / 8 % kBlockBytes;
}

}  // namespace

void Md5Update(Md5Context* context, const std::uint8_t* bytes, std::uint32_t length) {
  if (length == 0) return;

  std::size_t buffered = BufferedBytes(*context);
  const std::uint64_t bits =
      LoadU64(context->bitCount) + std::uint64_t{length} * 8;  // low word first, so one u64
  StoreU64(context->bitCount, bits);

  std::size_t left = length;
  while (left != 0) {
    if (buffered == 0 && left >= kBlockBytes) {
      Md5Transform(context->state, bytes);
      bytes += kBlockBytes;
      left -= kBlockBytes;
      continue;
    }
    const std::size_t taken = std::min(left, kBlockBytes - buffered);
    std::memcpy(context->buffer + buffered, bytes, taken);
    bytes += taken;
    left -= taken;
    buffered += taken;
    if (buffered == kBlockBytes) {
      Md5Transform(context->state, context->buffer);
      buffered = 0;
    }
  }
}

void Md5Final(std::uint8_t* digest, Md5Context* context) {
  std::size_t used = BufferedBytes(*context);
  context->buffer[used++] = 0x80;
  if (used > kCountOffset) {
    std::memset(context->buffer + used, 0, kBlockBytes - used);
    Md5Transform(context->state, context->buffer);
    used = 0;
  }
  std::memset(context->buffer + used, 0, kCountOffset - used);
  std::memcpy(context->buffer + kCountOffset, context->bitCount, sizeof context->bitCount);
  Md5Transform(context->state, context->buffer);
  std::memcpy(digest, context->state, kMd5DigestBytes);
  Wipe(context, sizeof *context);
}

}  // namespace kq
