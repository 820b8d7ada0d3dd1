#include "crypto/aes_hardware.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "crypto/aes_dispatch.h"
#include "foundation/log.h"

#define KQ_TARGET_AES __attribute__((target("aes,sse2")))

namespace kq {
namespace {

// Loads and stores without an alignment demand: data may lie anywhere, and a misaligned schedule is
// reported and then used as it is.
KQ_TARGET_AES inline __m128i Load(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

KQ_TARGET_AES inline void Store(void* to, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

KQ_TARGET_AES inline __m128i RoundKey(const AES_KEY& key, int round) {
  return Load(key.roundKeys + 4 * std::ptrdiff_t{round});
}

// Each word XORed with all words before it: the expansion's running sum over one round key.
KQ_TARGET_AES inline __m128i RunningXor(__m128i words) {
  words = _mm_xor_si128(words, _mm_slli_si128(words, 4));
  return _mm_xor_si128(words, _mm_slli_si128(words, 8));
}

template <int kRoundConstant>
KQ_TARGET_AES inline __m128i NextFromRotated(__m128i older, __m128i newest) {
  const __m128i assist = _mm_aeskeygenassist_si128(newest, kRoundConstant);
  return _mm_xor_si128(RunningXor(older), _mm_shuffle_epi32(assist, 0xFF));
}

KQ_TARGET_AES inline __m128i NextFromSubstituted(__m128i older, __m128i newest) {
  const __m128i assist = _mm_aeskeygenassist_si128(newest, 0);
  return _mm_xor_si128(RunningXor(older), _mm_shuffle_epi32(assist, 0xAA));
}

KQ_TARGET_AES void Expand128(const std::uint8_t* keyBytes, std::uint32_t* words) {
  __m128i k = Load(keyBytes);
  Store(words, k);
  Store(words + 4, k = NextFromRotated<0x01>(k, k));
  Store(words + 8, k = NextFromRotated<0x02>(k, k));
  Store(words + 12, k = NextFromRotated<0x04>(k, k));
  Store(words + 16, k = NextFromRotated<0x08>(k, k));
  Store(words + 20, k = NextFromRotated<0x10>(k, k));
  Store(words + 24, k = NextFromRotated<0x20>(k, k));
  Store(words + 28, k = NextFromRotated<0x40>(k, k));
  Store(words + 32, k = NextFromRotated<0x80>(k, k));
  Store(words + 36, k = NextFromRotated<0x1B>(k, k));
  Store(words + 40, NextFromRotated<0x36>(k, k));
}

KQ_TARGET_AES void Expand256(const std::uint8_t* keyBytes, std::uint32_t* words) {
  __m128i low = Load(keyBytes);
  __m128i high = Load(keyBytes + 16);
  Store(words, low);
  Store(words + 4, high);
  Store(words + 8, low = NextFromRotated<0x01>(low, high));
  Store(words + 12, high = NextFromSubstituted(high, low));
  Store(words + 16, low = NextFromRotated<0x02>(low, high));
  Store(words + 20, high = NextFromSubstituted(high, low));
  Store(words + 24, low = NextFromRotated<0x04>(low, high));
  Store(words + 28, high = NextFromSubstituted(high, low));
  Store(words + 32, low = NextFromRotated<0x08>(low, high));
  Store(words + 36, high = NextFromSubstituted(high, low));
  Store(words + 40, low = NextFromRotated<0x10>(low, high));
  Store(words + 44, high = NextFromSubstituted(high, low));
  Store(words + 48, low = NextFromRotated<0x20>(low, high));
  Store(words + 52, high = NextFromSubstituted(high, low));
  Store(words + 56, NextFromRotated<0x40>(low, high));
}

template <int kRounds>
KQ_TARGET_AES inline __m128i DecipherBlock(__m128i block, const AES_KEY& key) {
  block = _mm_xor_si128(block, RoundKey(key, 0));
  KQ_UNROLL
  for (int round = 1; round < kRounds; ++round) {
    block = _mm_aesdec_si128(block, RoundKey(key, round));
  }
  return _mm_aesdeclast_si128(block, RoundKey(key, kRounds));
}

// A block's rounds wait for each other, so one block alone leaves the unit idle most of the time;
// eight in flight fill it.
template <int kRounds>
KQ_TARGET_AES void CbcDecrypt(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* vector,
                              std::size_t length, const AES_KEY& key) {
  constexpr std::size_t kDepth = 8;
  __m128i previous = Load(vector);
  for (; length >= kDepth * kAesBlockBytes; length -= kDepth * kAesBlockBytes) {
    __m128i state[kDepth];
    __m128i chained[kDepth];
    KQ_UNROLL
    for (std::size_t i = 0; i < kDepth; ++i) {
      const __m128i ciphertext = Load(in + i * kAesBlockBytes);
      state[i] = _mm_xor_si128(ciphertext, RoundKey(key, 0));
      chained[i] = previous;
      previous = ciphertext;
    }
    KQ_UNROLL
    for (int round = 1; round < kRounds; ++round) {
      const __m128i roundKey = RoundKey(key, round);
      KQ_UNROLL
      for (std::size_t i = 0; i < kDepth; ++i) state[i] = _mm_aesdec_si128(state[i], roundKey);
    }
    const __m128i last = RoundKey(key, kRounds);
    KQ_UNROLL
    for (std::size_t i = 0; i < kDepth; ++i) {
      // The last round XORs its key in, so the chained ciphertext can ride on it.
      Store(out + i * kAesBlockBytes,
            _mm_aesdeclast_si128(state[i], _mm_xor_si128(last, chained[i])));
    }
    in += kDepth * kAesBlockBytes;
    out += kDepth * kAesBlockBytes;
  }
  for (; length >= kAesBlockBytes; length -= kAesBlockBytes) {
    const __m128i ciphertext = Load(in);
    Store(out, _mm_xor_si128(DecipherBlock<kRounds>(ciphertext, key), previous));
    previous = ciphertext;
    in += kAesBlockBytes;
    out += kAesBlockBytes;
  }
}

// Each block waits for the one before, so what counts is the chain of dependent instructions. The
// next block's plaintext, whitened with the first round key, goes into the last round of this block
// in place of the last round key alone: that gives the next block's state at once, and the chain is
// the rounds and nothing else.
template <int kRounds>
KQ_TARGET_AES void CbcEncrypt(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* vector,
                              std::size_t blocks, const AES_KEY& key) {
  const __m128i first = RoundKey(key, 0);
  const __m128i last = RoundKey(key, kRounds);
  __m128i state = _mm_xor_si128(Load(vector), _mm_xor_si128(Load(in), first));
  for (; blocks > 1; --blocks) {
    const __m128i nextWhitened = _mm_xor_si128(Load(in + kAesBlockBytes), first);
    KQ_UNROLL
    for (int round = 1; round < kRounds; ++round) {
      state = _mm_aesenc_si128(state, RoundKey(key, round));
    }
    state = _mm_aesenclast_si128(state, _mm_xor_si128(last, nextWhitened));
    Store(out, _mm_xor_si128(state, nextWhitened));
    in += kAesBlockBytes;
    out += kAesBlockBytes;
  }
  KQ_UNROLL
  for (int round = 1; round < kRounds; ++round) {
    state = _mm_aesenc_si128(state, RoundKey(key, round));
  }
  Store(out, _mm_aesenclast_si128(state, last));
}

void CheckAlignment(const AES_KEY* key) {
  if (reinterpret_cast<std::uintptr_t>(key) % 16 != 0) {
    LogAssertion("AES_KEY must be 16 byte aligned");
  }
}

}  // namespace

void AesHardwareSetEncryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key) {
  CheckAlignment(key);
  key->rounds = bits == 128 ? 10 : 14;
  std::fill(std::begin(key->roundKeys), std::end(key->roundKeys), 0);
  if (bits == 128) {
    Expand128(keyBytes, key->roundKeys);
  } else if (bits == 256) {
    Expand256(keyBytes, key->roundKeys);
  }
}

KQ_TARGET_AES void AesHardwareSetDecryptKey(const std::uint8_t* keyBytes, std::uint32_t bits,
                                            AES_KEY* key) {
  AesHardwareSetEncryptKey(keyBytes, bits, key);
  std::uint32_t* low = key->roundKeys;
  std::uint32_t* high = key->roundKeys + 4 * std::ptrdiff_t{key->rounds};
  std::swap_ranges(low, low + 4, high);
  for (low += 4, high -= 4; low <= high; low += 4, high -= 4) {
    const __m128i lowKey = _mm_aesimc_si128(Load(low));
    const __m128i highKey = _mm_aesimc_si128(Load(high));
    Store(low, highKey);
    Store(high, lowKey);
  }
}

void AesCbcEncryptHardware(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* vector,
                           std::size_t length, const AES_KEY& key) {
  const std::size_t blocks = length / kAesBlockBytes;
  if (blocks == 0) return;
  if (key.rounds == 10) {
    CbcEncrypt<10>(in, out, vector, blocks, key);
  } else {
    CbcEncrypt<14>(in, out, vector, blocks, key);
  }
}

void AesCbcDecryptHardware(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* vector,
                           std::size_t length, const AES_KEY& key) {
  std::uint8_t chained[kAesBlockBytes];
  std::memcpy(chained, vector, kAesBlockBytes);
  std::size_t done = 0;
  switch (AesGetDecryptVectorBlocks()) {
    case AesVectorBlocks::kFour:
      done = AesCbcDecryptGroupsAvx512(in, out, chained, length, key);
      break;
    case AesVectorBlocks::kTwo:
      done = AesCbcDecryptGroupsAvx2(in, out, chained, length, key);
      break;
    default:
      break;
  }
  if (key.rounds == 10) {
    CbcDecrypt<10>(in + done, out + done, chained, length - done, key);
  } else {
    CbcDecrypt<14>(in + done, out + done, chained, length - done, key);
  }
}

}  // namespace kq
