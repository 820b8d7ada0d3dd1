// CBC decryption with two (AVX2) or four (AVX-512) blocks in each vector. On processors with these
// units the eight-block loop over single blocks leaves most of them idle.
//
// Each loop keeps eight vectors in flight. A group's ciphertext is read whole before its first
// result is stored, so in and out may be the same buffer.
#include <immintrin.h>

#include "crypto/aes_hardware.h"

#ifndef __clang__
// The compiler's own AVX-512 header makes its unused operands by reading an uninitialised value.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define KQ_TARGET_AVX2 __attribute__((target("vaes,avx2,aes")))
#define KQ_TARGET_AVX512 __attribute__((target("vaes,avx512f,avx2,aes")))

namespace kq {
namespace {

constexpr std::size_t kDepth = 8;

KQ_TARGET_AVX2 inline __m128i Load128(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

KQ_TARGET_AVX2 inline __m256i RoundKey256(const AES_KEY& key, int round) {
  return _mm256_broadcastsi128_si256(Load128(key.roundKeys + 4 * std::ptrdiff_t{round}));
}

KQ_TARGET_AVX512 inline __m512i RoundKey512(const AES_KEY& key, int round) {
  return _mm512_broadcast_i32x4(Load128(key.roundKeys + 4 * std::ptrdiff_t{round}));
}

template <int kRounds>
KQ_TARGET_AVX2 std::size_t DecryptGroupsAvx2(const std::uint8_t* in, std::uint8_t* out,
                                             std::uint8_t* vector, std::size_t length,
                                             const AES_KEY& key) {
  constexpr std::size_t kVectorBytes = 2 * kAesBlockBytes;
  constexpr std::size_t kGroupBytes = kDepth * kVectorBytes;
  if (length < kGroupBytes) return 0;

  // Only the upper block counts: the one before the next ciphertext.
  __m256i previous = _mm256_broadcastsi128_si256(Load128(vector));
  std::size_t done = 0;
  for (; length - done >= kGroupBytes; done += kGroupBytes) {
    __m256i chained[kDepth];
    __m256i state[kDepth];
    const __m256i first = RoundKey256(key, 0);
    KQ_UNROLL
    for (std::size_t i = 0; i < kDepth; ++i) {
      const __m256i ciphertext =
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + done + i * kVectorBytes));
      chained[i] = _mm256_permute2x128_si256(previous, ciphertext, 0x21);
      state[i] = _mm256_xor_si256(ciphertext, first);
      previous = ciphertext;
    }
    KQ_UNROLL
    for (int round = 1; round < kRounds; ++round) {
      const __m256i roundKey = RoundKey256(key, round);
      KQ_UNROLL
      for (std::size_t i = 0; i < kDepth; ++i) state[i] = _mm256_aesdec_epi128(state[i], roundKey);
    }
    const __m256i last = RoundKey256(key, kRounds);
    KQ_UNROLL
    for (std::size_t i = 0; i < kDepth; ++i) {
      // The last round XORs its key in, so the chained ciphertext can ride on it.
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + done + i * kVectorBytes),
                          _mm256_aesdeclast_epi128(state[i], _mm256_xor_si256(last, chained[i])));
    }
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(vector), _mm256_extracti128_si256(previous, 1));
  return done;
}

template <int kRounds>
KQ_TARGET_AVX512 std::size_t DecryptGroupsAvx512(const std::uint8_t* in, std::uint8_t* out,
                                                 std::uint8_t* vector, std::size_t length,
                                                 const AES_KEY& key) {
  constexpr std::size_t kVectorBytes = 4 * kAesBlockBytes;
  constexpr std::size_t kGroupBytes = kDepth * kVectorBytes;
  if (length < kGroupBytes) return 0;

  // Only the uppermost block counts: the one before the next ciphertext.
  __m512i previous = _mm512_broadcast_i32x4(Load128(vector));
  std::size_t done = 0;
  for (; length - done >= kGroupBytes; done += kGroupBytes) {
    __m512i chained[kDepth];
    __m512i state[kDepth];
    const __m512i first = RoundKey512(key, 0);
    KQ_UNROLL
    for (std::size_t i = 0; i < kDepth; ++i) {
      const __m512i ciphertext = _mm512_loadu_si512(in + done + i * kVectorBytes);
      chained[i] = _mm512_alignr_epi64(ciphertext, previous, 6);
      state[i] = _mm512_xor_si512(ciphertext, first);
      previous = ciphertext;
    }
    KQ_UNROLL
    for (int round = 1; round < kRounds; ++round) {
      const __m512i roundKey = RoundKey512(key, round);
      KQ_UNROLL
      for (std::size_t i = 0; i < kDepth; ++i) state[i] = _mm512_aesdec_epi128(state[i], roundKey);
    }
    const __m512i last = RoundKey512(key, kRounds);
    KQ_UNROLL
    for (std::size_t i = 0; i < kDepth; ++i) {
      // The last round XORs its key in, so the chained ciphertext can ride on it.
      _mm512_storeu_si512(out + done + i * kVectorBytes,
                          _mm512_aesdeclast_epi128(state[i], _mm512_xor_si512(last, chained[i])));
    }
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(vector), _mm512_extracti32x4_epi32(previous, 3));
  return done;
}

}  // namespace

std::size_t AesCbcDecryptGroupsAvx2(const std::uint8_t* in, std::uint8_t* out, std::uint8_t* vector,
                                    std::size_t length, const AES_KEY& key) {
  return key.rounds == 10 ? DecryptGroupsAvx2<10>(in, out, vector, length, key)
                          : DecryptGroupsAvx2<14>(in, out, vector, length, key);
}

std::size_t AesCbcDecryptGroupsAvx512(const std::uint8_t* in, std::uint8_t* out,
                                      std::uint8_t* vector, std::size_t length,
                                      const AES_KEY& key) {
  return key.rounds == 10 ? DecryptGroupsAvx512<10>(in, out, vector, length, key)
                          : DecryptGroupsAvx512<14>(in, out, vector, length, key);
}

}  // namespace kq
