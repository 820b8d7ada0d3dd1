// Measured per position on incompressible data, where each position is searched: one after another
// 2.7 ns; eight at once with AVX-512 2.1 ns. Gathering is no faster than single loads; what is
// saved is the judging. AVX2 has neither a scatter nor a test for lanes that meet, so it only
// hashes.
#include "codec/lzo_wide_search.h"

#include <immintrin.h>

#include <initializer_list>

#include "codec/lzo_format.h"
#include "foundation/little_endian.h"

#define KQ_TARGET_AVX2 __attribute__((target("avx2")))
#define KQ_TARGET_AVX512 __attribute__((target("avx512f,avx512bw,avx512cd,avx512dq,avx512vl,avx2")))

namespace kq {
namespace {

using Byte = std::uint8_t;

// ((((b[3] << 6 ^ b[2]) << 5 ^ b[1]) << 5 ^ b[0]) * 33 >> 5) & 0x7FFF of the four bytes from b on,
// one position at a time.
void HashOneByOne(const Byte* bytes, std::size_t count, std::uint16_t* slots) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t key = LoadU32(bytes + i);
    const std::uint32_t mixed =
        (key & 0xFF) ^ (key & 0xFF00) >> 3 ^ (key & 0xFF0000) >> 6 ^ (key & 0xFF000000) >> 8;
    slots[i] = static_cast<std::uint16_t>((mixed + (mixed >> 5)) % kLzoSlots);
  }
}

// The wide ways make the same of 16-bit lanes. With m the bytes mixed before the multiplication,
// m * 33 >> 5 is m + (m >> 5); a lane holds the low 16 bits of m, and another those of m >> 5, to
// which all four bytes add what is left of them after that shift.
void HashStretchSse2(const Byte* bytes, std::size_t count, std::uint16_t* slots) {
  const auto load = [](const Byte* from) {
    return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(from)),
                             _mm_setzero_si128());
  };
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m128i b0 = load(bytes + i);
    const __m128i b1 = load(bytes + i + 1);
    const __m128i b2 = load(bytes + i + 2);
    const __m128i b3 = load(bytes + i + 3);
    const __m128i m =
        _mm_xor_si128(_mm_xor_si128(b0, _mm_slli_epi16(b1, 5)), _mm_slli_epi16(b2, 10));
    const __m128i shifted =
        _mm_xor_si128(_mm_xor_si128(_mm_srli_epi16(b0, 5), b1),
                      _mm_xor_si128(_mm_slli_epi16(b2, 5), _mm_slli_epi16(b3, 11)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(slots + i),
                     _mm_and_si128(_mm_add_epi16(m, shifted), _mm_set1_epi16(0x7FFF)));
  }
  HashOneByOne(bytes + i, count - i, slots + i);
}

KQ_TARGET_AVX2 inline __m256i Load16Lanes(const Byte* from) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

KQ_TARGET_AVX2 void HashStretchAvx2(const Byte* bytes, std::size_t count, std::uint16_t* slots) {
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m256i b0 = Load16Lanes(bytes + i);
    const __m256i b1 = Load16Lanes(bytes + i + 1);
    const __m256i b2 = Load16Lanes(bytes + i + 2);
    const __m256i b3 = Load16Lanes(bytes + i + 3);
    const __m256i m =
        _mm256_xor_si256(_mm256_xor_si256(b0, _mm256_slli_epi16(b1, 5)), _mm256_slli_epi16(b2, 10));
    const __m256i shifted =
        _mm256_xor_si256(_mm256_xor_si256(_mm256_srli_epi16(b0, 5), b1),
                         _mm256_xor_si256(_mm256_slli_epi16(b2, 5), _mm256_slli_epi16(b3, 11)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(slots + i),
                        _mm256_and_si256(_mm256_add_epi16(m, shifted), _mm256_set1_epi16(0x7FFF)));
  }
  HashOneByOne(bytes + i, count - i, slots + i);
}

KQ_TARGET_AVX512 inline __m512i Load32Lanes(const Byte* from) {
  return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)));
}

KQ_TARGET_AVX512 void HashStretchAvx512(const Byte* bytes, std::size_t count,
                                        std::uint16_t* slots) {
  std::size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m512i b0 = Load32Lanes(bytes + i);
    const __m512i b1 = Load32Lanes(bytes + i + 1);
    const __m512i b2 = Load32Lanes(bytes + i + 2);
    const __m512i b3 = Load32Lanes(bytes + i + 3);
    const __m512i m =
        _mm512_xor_si512(_mm512_xor_si512(b0, _mm512_slli_epi16(b1, 5)), _mm512_slli_epi16(b2, 10));
    const __m512i shifted =
        _mm512_xor_si512(_mm512_xor_si512(_mm512_srli_epi16(b0, 5), b1),
                         _mm512_xor_si512(_mm512_slli_epi16(b2, 5), _mm512_slli_epi16(b3, 11)));
    _mm512_storeu_si512(slots + i,
                        _mm512_and_si512(_mm512_add_epi16(m, shifted), _mm512_set1_epi16(0x7FFF)));
  }
  HashOneByOne(bytes + i, count - i, slots + i);
}

std::size_t PassNoLiterals(const LzoPositions& /*positions*/, std::size_t begin,
                           std::size_t /*end*/, LzoTableEntry* /*table*/) {
  return begin;
}

// The plain form of the intrinsic starts from a register that compilers warn about.
KQ_TARGET_AVX512 inline __m512i Gather(const LzoTableEntry* table, __m256i slots) {
  return _mm512_mask_i32gather_epi64(_mm512_setzero_si512(), 0xFF, slots, table,
                                     sizeof(LzoTableEntry));
}

constexpr long long InHighHalf(std::uint64_t value) {
  const std::uint64_t lane = value << 32;
  return static_cast<long long>(lane);
}

// Eight positions at once. A group is left to the caller if one of its positions has a match, or if
// two of them might meet in a slot, where the later would have to see the earlier one's entry.
// Lanes are as entries: the key in the low half, the place or a distance in the high one.
KQ_TARGET_AVX512 std::size_t PassLiteralsAvx512(const LzoPositions& positions, std::size_t begin,
                                                std::size_t end, LzoTableEntry* table) {
  constexpr std::size_t kGroup = 8;
  constexpr __mmask16 kHighHalves = 0xAAAA;
  const __m512i nearest = _mm512_set1_epi64(InHighHalf(kLzoNearDistance) | 0xFFFFFFFF);
  const __m512i tooFar = _mm512_set1_epi64(InHighHalf(kLzoFarDistance + 1));
  const __m512i threeBytes = _mm512_set1_epi64(0xFFFFFF);
  const __m512i fourthByte = _mm512_set1_epi64(0xFF000000);
  // From 16 bytes in each quarter, the keys of two positions.
  const __m512i keyBytes = _mm512_set_epi64(
      static_cast<long long>(0xFFFFFFFF0A090807), static_cast<long long>(0xFFFFFFFF09080706),
      static_cast<long long>(0xFFFFFFFF08070605), static_cast<long long>(0xFFFFFFFF07060504),
      static_cast<long long>(0xFFFFFFFF06050403), static_cast<long long>(0xFFFFFFFF05040302),
      static_cast<long long>(0xFFFFFFFF04030201), static_cast<long long>(0xFFFFFFFF03020100));
  __m512i places = _mm512_add_epi64(
      _mm512_set1_epi64(InHighHalf(positions.firstPlace + begin)),
      _mm512_set_epi64(InHighHalf(7), InHighHalf(6), InHighHalf(5), InHighHalf(4), InHighHalf(3),
                       InHighHalf(2), InHighHalf(1), InHighHalf(0)));

  std::size_t i = begin;
  for (; i + kGroup <= end; i += kGroup) {
    const __m256i first = _mm256_cvtepu16_epi32(
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(positions.slots + i)));
    const __m256i second = _mm256_xor_si256(_mm256_and_si256(first, _mm256_set1_epi32(0x7FF)),
                                            _mm256_set1_epi32(0x401F));
    const __m512i met =
        _mm512_conflict_epi32(_mm512_inserti32x8(_mm512_castsi256_si512(first), second, 1));
    if (_mm512_test_epi32_mask(met, met) != 0) break;

    const __m512i keys = _mm512_shuffle_epi8(
        _mm512_maskz_broadcast_i32x4(
            0xFFFF, _mm_loadu_si128(reinterpret_cast<const __m128i*>(positions.bytes + i))),
        keyBytes);
    const __m512i entries = _mm512_or_si512(keys, places);
    const __m512i found1 = Gather(table, first);
    const __m512i found2 = Gather(table, second);
    // Different bits below, the distance above.
    const __m512i back1 =
        _mm512_mask_sub_epi32(_mm512_xor_si512(entries, found1), kHighHalves, entries, found1);
    const __m512i back2 =
        _mm512_mask_sub_epi32(_mm512_xor_si512(entries, found2), kHighHalves, entries, found2);
    const auto useSecond = static_cast<__mmask8>(_mm512_cmpgt_epu64_mask(back1, nearest) &
                                                 _mm512_cmplt_epu64_mask(back1, tooFar) &
                                                 _mm512_test_epi64_mask(back1, fourthByte));
    const __m512i back = _mm512_mask_blend_epi64(useSecond, back1, back2);
    const unsigned promising =
        _mm512_cmple_epu64_mask(back, nearest) |
        (_mm512_cmplt_epu64_mask(back, tooFar) & _mm512_testn_epi64_mask(back, fourthByte));
    if ((_mm512_testn_epi64_mask(back, threeBytes) & promising) != 0) break;
    _mm512_i32scatter_epi64(table, _mm256_mask_blend_epi32(useSecond, first, second), entries,
                            sizeof(LzoTableEntry));
    places = _mm512_add_epi64(places, _mm512_set1_epi64(InHighHalf(kGroup)));
  }
  return i;
}

}  // namespace

bool LzoSupports(LzoInstructions instructions) {
  switch (instructions) {
    case LzoInstructions::kAvx512:
      return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
             __builtin_cpu_supports("avx512cd") != 0 && __builtin_cpu_supports("avx512dq") != 0 &&
             __builtin_cpu_supports("avx512vl") != 0 && __builtin_cpu_supports("avx2") != 0;
    case LzoInstructions::kAvx2:
      return __builtin_cpu_supports("avx2") != 0;
    case LzoInstructions::kSse2:
      break;
  }
  return true;
}

LzoWideSearch LzoWideSearchWith(LzoInstructions instructions) {
  switch (instructions) {
    case LzoInstructions::kAvx512:
      return {HashStretchAvx512, PassLiteralsAvx512};
    case LzoInstructions::kAvx2:
      return {HashStretchAvx2, PassNoLiterals};
    case LzoInstructions::kSse2:
      break;
  }
  return {HashStretchSse2, PassNoLiterals};
}

LzoWideSearch LzoWideSearchHere() {
  LzoInstructions widest = LzoInstructions::kSse2;
  for (const LzoInstructions wider : {LzoInstructions::kAvx2, LzoInstructions::kAvx512}) {
    if (LzoSupports(wider)) widest = wider;
  }
  return LzoWideSearchWith(widest);
}

}  // namespace kq
