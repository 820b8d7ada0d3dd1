// The hash table of the block compressor, and what is done for many positions at once: hashing a
// stretch of input, and passing over positions that have no match. Each exists for several kinds of
// processor, all with the same results. Nothing here allocates or fails; the table is the caller's.
#ifndef KQ_CODEC_LZO_WIDE_SEARCH_H
#define KQ_CODEC_LZO_WIDE_SEARCH_H

#include <cstddef>
#include <cstdint>

namespace kq {

// A position: the four bytes there, so that a candidate can be judged without going to the input,
// and its place, which is the offset in the frame plus kLzoFirstPlace. The 0 of an empty slot is
// thus too far away from all places.
struct LzoTableEntry {
  std::uint32_t key;
  std::uint32_t place;
};
inline constexpr std::uint32_t kLzoSlots = 0x8000;
inline constexpr std::uint32_t kLzoFirstPlace = 0xC000;

// The slot to be looked at behind the given one, and never the same.
inline constexpr std::uint32_t LzoSecondSlot(std::uint32_t first) {
  return (first & 0x7FF) ^ 0x401F;
}

// Stores the first slot of each of count positions. Reads count + 3 bytes.
using LzoHashStretch = void (*)(const std::uint8_t* bytes, std::size_t count, std::uint16_t* slots);

// Positions with their slots; the first has the given place. 16 bytes can be read at each.
struct LzoPositions {
  const std::uint8_t* bytes;
  const std::uint16_t* slots;
  std::uint32_t firstPlace;
};

// Enters the positions from begin on in the table as the search does, as long as it is plain that
// they have no match. Returns the first that has not been entered, at most end.
using LzoPassLiterals = std::size_t (*)(const LzoPositions& positions, std::size_t begin,
                                        std::size_t end, LzoTableEntry* table);

struct LzoWideSearch {
  LzoHashStretch hashStretch;
  LzoPassLiterals passLiterals;
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
