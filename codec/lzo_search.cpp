// A usual volume has one match and three searched positions in 12 bytes. What costs most is what
// can't be foreseen, whether a position has a match, and how late that is known; after that, how
// soon the position behind a match is known, and only then instructions. docs/performance.md tells
// what was tried. Speed on data below /usr as a share of liblzo2's lzo1x_1_15_compress, which
// passes over positions (the last four on a busy machine, where the one above them came to 0.71):
//   0.53  slots worked out position by position, entries that need the input for their bytes
//   0.60  slots hashed ahead, many positions at once
//   0.67  entries that hold the position's four bytes
//   0.72  one branch for each position, all else chosen without; the same for the usual literals,
//         lengths and forms of matches
//   0.75  entries of one word, whose difference is the distance where all four bytes are alike, and
//         a branch of its own for that in the first slot, as soon as its entry is there
//   0.79  instructions of AVX2 and BMI, second slots hashed ahead too
//   0.82  the next position's slot at hand before the branch, 32 bytes of literals at once
//   0.85  no other way of searching for long stretches without a match
#include "codec/lzo_search.h"

#include <immintrin.h>

#include <bit>

#include "codec/lzo_format.h"
#include "codec/lzo_put.h"
#include "foundation/little_endian.h"

#define KQ_TARGET_AVX2 __attribute__((target("avx2,bmi,bmi2")))

namespace kq {
namespace {

using Byte = std::uint8_t;

struct WithSse2 {
  static constexpr bool kAtFrameEnd = false;
  static inline void Copy32(Byte* to, const Byte* from) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 16));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), low);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + 16), high);
  }
  // A bit for each of 32 bytes that a and b have alike.
  static inline std::uint32_t Alike32(const Byte* a, const Byte* b) {
    const auto alike = [](const Byte* one, const Byte* other) {
      return static_cast<std::uint32_t>(_mm_movemask_epi8(
          _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(one)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(other)))));
    };
    return alike(a, b) | alike(a + 16, b + 16) << 16;
  }
};

struct WithAvx2 {
  static constexpr bool kAtFrameEnd = false;
  KQ_TARGET_AVX2 static inline void Copy32(Byte* to, const Byte* from) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to),
                        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)));
  }
  KQ_TARGET_AVX2 static inline std::uint32_t Alike32(const Byte* a, const Byte* b) {
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(
        _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(a)),
                          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b)))));
  }
};

struct WithinFrame : WithSse2 {
  static constexpr bool kAtFrameEnd = true;
};

// Length of what a and b, a before b, have in common up to b's end.
std::size_t CommonLength(const Byte* a, const Byte* b, const Byte* end) {
  const Byte* const start = b;
  while (end - b >= 8) {
    const std::uint64_t different = LoadU64(a) ^ LoadU64(b);
    if (different != 0) {
      return static_cast<std::size_t>(b - start) +
             static_cast<std::size_t>(std::countr_zero(different) / 8);
    }
    a += 8;
    b += 8;
  }
  while (b < end && *a == *b) {
    ++a;
    ++b;
  }
  return static_cast<std::size_t>(b - start);
}

template <class Wide>
[[gnu::always_inline]] inline std::size_t MatchLength(const Byte* a, const Byte* b,
                                                      const Byte* end) {
  if constexpr (Wide::kAtFrameEnd) return CommonLength(a, b, end);
  const std::uint32_t different = ~Wide::Alike32(a, b);
  if (different == 0) [[unlikely]]
    return 32 + CommonLength(a + 32, b + 32, end);
  return static_cast<std::size_t>(std::countr_zero(different));
}

// The positions of a stretch by their places, so that one number is index and place. Addresses,
// since what stands at place 0 need not be in the stretch.
struct ByPlace {
  std::uintptr_t bytes;
  std::uintptr_t first;
  std::uintptr_t second;

  ByPlace(const LzoPositions& positions, std::uint64_t begin)
      : bytes(reinterpret_cast<std::uintptr_t>(positions.bytes) - begin),
        first(AddressOfPlaceZero(positions.slots->first, begin)),
        second(AddressOfPlaceZero(positions.slots->second, begin)) {}

  [[gnu::always_inline]] const Byte* BytesAt(std::uint64_t place) const {
    return reinterpret_cast<const Byte*>(bytes + place);
  }
  [[gnu::always_inline]] std::uint64_t FirstSlot(std::uint64_t place) const {
    return *reinterpret_cast<const std::uint16_t*>(first + place * sizeof(std::uint16_t));
  }
  [[gnu::always_inline]] std::uint64_t SecondSlot(std::uint64_t place) const {
    return *reinterpret_cast<const std::uint16_t*>(second + place * sizeof(std::uint16_t));
  }

 private:
  static std::uintptr_t AddressOfPlaceZero(const std::uint16_t* slots, std::uint64_t begin) {
    return reinterpret_cast<std::uintptr_t>(slots) - begin * sizeof(std::uint16_t);
  }
};

// Looks for a match of at least three bytes at a place, whose first slot is given, and enters it in
// the table. Distance is that of the match, if there is one.
[[gnu::always_inline]] inline bool FindMatch(const ByPlace& stretch, std::uint64_t place,
                                             std::uint64_t slot, LzoTableEntry* table,
                                             std::uint32_t* distance) {
  const LzoTableEntry entry = LzoEntry(LoadU32(stretch.BytesAt(place)), place);
  LzoTableEntry found = table[slot];
  std::uint64_t back = entry - found;
  if (back <= kLzoFarDistance) {
    table[slot] = entry;
    *distance = static_cast<std::uint32_t>(back);
    return true;
  }
  // The second slot has its turn if the first one's candidate is near enough to be used, but
  // neither near nor alike in the fourth byte. A place is beyond all distances.
  const std::uint64_t slot2 = stretch.SecondSlot(place);
  const LzoTableEntry found2 = table[slot2];
  auto beyondNear = static_cast<std::uint32_t>(back - (kLzoNearDistance + 1));
  asm("cmp %[fourthByte], %[different]\n\tcmovb %k[entry], %[beyondNear]\n\t"
      "cmp %[bound], %[beyondNear]\n\tcmovb %[slot2], %[slot]\n\tcmovb %[found2], %[found]"
      : [beyondNear] "+r"(beyondNear), [slot] "+r"(slot), [found] "+r"(found)
      : [different] "r"(entry ^ found), [fourthByte] "r"(std::uint64_t{1} << 56),
        [entry] "r"(entry), [bound] "i"(kLzoFarDistance - kLzoNearDistance), [slot2] "r"(slot2),
        [found2] "r"(found2)
      : "cc");
  table[slot] = entry;
  back = entry - found;
  // Three bytes alike, at a distance that can be used; the fourth byte is shifted out.
  if (back << 8 <= kLzoFarDistance << 8) [[unlikely]] {
    *distance = static_cast<std::uint32_t>(back);
    return back <= kLzoFarDistance || *distance <= kLzoNearDistance;
  }
  return false;
}

// Goes on from a place, which is before the end, to the first that has a match, or to the end.
[[gnu::always_inline]] inline bool FindNextMatch(const ByPlace& stretch, std::uint64_t* place,
                                                 std::uint64_t end, LzoTableEntry* table,
                                                 std::uint32_t* distance) {
  std::uint64_t slot = stretch.FirstSlot(*place);
  do {
    // Read before the branch, so that it is at hand where the branch goes wrong.
    const std::uint64_t nextSlot = stretch.FirstSlot(*place + 1);
    if (FindMatch(stretch, *place, slot, table, distance)) return true;
    slot = nextSlot;
  } while (++*place < end);
  return false;
}

template <class Wide>
[[gnu::always_inline]] inline void SearchStretch(LzoFrame* frame, const LzoPositions& positions,
                                                 std::size_t length, LzoTableEntry* table) {
  const std::uint64_t begin = positions.firstPlace;
  const std::uint64_t end = begin + length;
  const ByPlace stretch(positions, begin);
  const Byte* pending = frame->pending;
  Byte* out = frame->out;
  std::uint64_t place = begin;
  std::uint32_t distance;
  while (place < end && FindNextMatch(stretch, &place, end, table, &distance)) {
    const Byte* const p = stretch.BytesAt(place);
    const std::size_t matchLength = MatchLength<Wide>(p - distance, p, frame->end);
    const auto literals = static_cast<std::size_t>(p - pending);
    if (!Wide::kAtFrameEnd && literals <= kLzoShortRun) [[likely]] {
      out = LzoPutFewLiterals<Wide>(out, pending, literals);
    } else {
      out = LzoPutLiterals(out, pending, literals);
    }
    out = LzoPutMatch(out, static_cast<std::uint32_t>(matchLength), distance);
    place += matchLength;
    pending = p + matchLength;
  }
  frame->p = stretch.BytesAt(place);
  frame->pending = pending;
  frame->out = out;
}

}  // namespace

void LzoSearchStretchSse2(LzoFrame* frame, const LzoPositions& stretch, std::size_t length,
                          LzoTableEntry* table) {
  SearchStretch<WithSse2>(frame, stretch, length, table);
}

KQ_TARGET_AVX2 void LzoSearchStretchAvx2(LzoFrame* frame, const LzoPositions& stretch,
                                         std::size_t length, LzoTableEntry* table) {
  SearchStretch<WithAvx2>(frame, stretch, length, table);
}

void LzoSearchFrameEnd(LzoFrame* frame, const LzoPositions& stretch, std::size_t length,
                       LzoTableEntry* table) {
  SearchStretch<WithinFrame>(frame, stretch, length, table);
}

}  // namespace kq
