// The hash table of the block compressor, and what is done for many positions at once: hashing a
// stretch of input. It exists for several kinds of processor, all with the same results; so does
// the search itself (lzo_search.h), and LzoWideSearch is what goes together. Nothing here allocates
// or fails; the table is the caller's.
#ifndef KQ_CODEC_LZO_WIDE_SEARCH_H
#define KQ_CODEC_LZO_WIDE_SEARCH_H

#include <cstddef>
#include <cstdint>

namespace kq {

// A position: the four bytes there, so that a candidate can be judged without going to the input,
// above its place, which is the offset in the frame plus kLzoFirstPlace. The difference of two
// positions with the same bytes is thus their distance, and the 0 of an empty slot is too far away
// from all places.
using LzoTableEntry = std::uint64_t;
inline constexpr LzoTableEntry LzoEntry(std::uint32_t key, std::uint64_t place) {
  return std::uint64_t{key} << 32 | place;
}
inline constexpr std::uint32_t kLzoSlots = 0x8000;
inline constexpr std::uint32_t kLzoFirstPlace = 0xC000;

// The slot to be looked at behind the given one, and never the same.
inline constexpr std::uint32_t LzoSecondSlot(std::uint32_t first) {
  return (first & 0x7FF) ^ 0x401F;
}

inline constexpr std::size_t kLzoStretch = 1024;  // positions whose slots are worked out at once
// Where each position of a stretch is looked for, first and second. One more can be read.
struct LzoStretchSlots {
  alignas(64) std::uint16_t first[kLzoStretch + 1];
  alignas(64) std::uint16_t second[kLzoStretch + 1];
};

// Stores the slots of each of count positions. Reads count + 3 bytes.
using LzoHashStretch = void (*)(const std::uint8_t* bytes, std::size_t count,
                                LzoStretchSlots* slots);

// Positions with their slots; the first has the given place.
struct LzoPositions {
  const std::uint8_t* bytes;
  const LzoStretchSlots* slots;
  std::uint32_t firstPlace;
};

struct LzoFrame;
// As in lzo_search.h.
using LzoSearchStretch = void (*)(LzoFrame* frame, const LzoPositions& stretch, std::size_t length,
                                  LzoTableEntry* table);

struct LzoWideSearch {
  LzoHashStretch hashStretch;
  LzoSearchStretch searchStretch;
};

enum class LzoInstructions { kSse2, kAvx2, kAvx512 };
bool LzoSupports(LzoInstructions instructions);
LzoWideSearch LzoWideSearchWith(LzoInstructions instructions);
// The best for this processor.
LzoWideSearch LzoWideSearchHere();

// For tests and measurements: LzoBlockCompress with these ways of searching.
int LzoBlockCompressWith(const LzoWideSearch& wide, const std::uint8_t* input,
                         std::uint64_t inputLength, std::uint8_t* output,
                         std::uint64_t* outputLength, void* hashTable);

}  // namespace kq

#endif
