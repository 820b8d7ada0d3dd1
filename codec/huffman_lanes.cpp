#include "codec/huffman_lanes.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "foundation/little_endian.h"

namespace kq {
namespace {

constexpr std::size_t kLanes = 4;
// Boundaries that a lane notes at its begin, for the lane before it to meet.
constexpr std::size_t kNotedBoundaries = 256;

// One round of a lane: a load of 8 bytes, of which at least 57 bits count, as many lookups as they
// suffice for, and one longer code if one comes in between.
constexpr std::uint32_t kLookupsPerRound = 4;
static_assert(kLookupsPerRound * kHuffmanLookupBits <= 57);
constexpr std::uint64_t kBitsPerRound =
    std::uint64_t{kLookupsPerRound} * kHuffmanLookupBits + kHuffmanLongestStoredLength;
// Each lookup stores 4 bytes, of which up to 3 count.
constexpr std::uint64_t kBytesPerRound = std::uint64_t{4} * kLookupsPerRound;
static_assert(kLookupsPerRound * kHuffmanEntryMaxCount + 1 + 1 <= kBytesPerRound);

// Rounds that a lane can do without looking at its limits.
std::uint64_t SafeRounds(const HuffmanLane& lane) {
  if (lane.position >= lane.limit) return 0;
  return std::min((lane.limit - lane.position) / kBitsPerRound,
                  static_cast<std::uint64_t>(lane.outputEnd - lane.output) / kBytesPerRound);
}

struct Step {
  std::uint32_t length;  // 0: the end symbol or no code
  std::uint8_t byte;
};

Step FindStep(const HuffmanDecoderTables& tables, std::uint64_t bits) {
  const std::uint32_t one = tables.oneSymbol[bits >> (64 - kHuffmanLookupBits)];
  if (one != 0) return {one & 0xFF, static_cast<std::uint8_t>(one >> 8)};
  const std::uint32_t length = FindHuffmanCode(tables, bits);
  if (length == 0) return {0, 0};
  const std::uint64_t code = bits >> (64 - length);
  if (code == tables.endCode) return {0, 0};
  return {length, HuffmanByteOf(tables, length, code)};
}

// Decodes one symbol. False: the lane stops here.
bool StepLane(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code, HuffmanLane* lane) {
  const Step step = FindStep(tables, code.Peek(lane->position));
  if (step.length == 0 || lane->output == lane->outputEnd ||
      step.length > 8 * code.length - lane->position) {
    return false;
  }
  *lane->output++ = step.byte;
  lane->position += step.length;
  return true;
}

// Runs the lanes in turn, a lookup of each, until one of them has no safe round left. The indices
// are unrolled, so that the lanes live in registers.
template <std::size_t... index>
void RunTogether(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code,
                 HuffmanLane* const* lanes, std::index_sequence<index...>) {
  constexpr std::size_t kCount = sizeof...(index);
  const std::uint32_t* const lookup = tables.lookup;
  const std::uint8_t* const bytes = code.bytes;
  std::uint64_t position[kCount] = {lanes[index]->position...};
  std::uint8_t* output[kCount] = {lanes[index]->output...};
  std::uint64_t bits[kCount];
  std::uint32_t entry[kCount];
  const auto look = [&](std::size_t i) {
    entry[i] = lookup[bits[i] >> (64 - kHuffmanLookupBits)];
    StoreU32(output[i], entry[i] >> kHuffmanEntryBytesShift);
    output[i] += entry[i] >> kHuffmanEntryCountShift & kHuffmanEntryMaxCount;
    position[i] += entry[i] & kHuffmanEntryBitsMask;
    bits[i] <<= entry[i] & kHuffmanEntryBitsMask;
  };
  // An entry of 0 takes no bits, so the last lookup of a round has met it if any has.
  const auto isStuck = [&](std::size_t i) { return entry[i] == 0; };
  const auto stepOver = [&](std::size_t i) {
    if (!isStuck(i)) return true;
    HuffmanLane* const lane = lanes[i];
    lane->position = position[i];
    lane->output = output[i];
    const bool stepped = StepLane(tables, code, lane);
    position[i] = lane->position;
    output[i] = lane->output;
    if (!stepped) lane->limit = lane->position;
    return stepped;
  };

  bool going = true;
  while (going) {
    std::uint64_t rounds = std::min({SafeRounds(*lanes[index])...});
    if (rounds == 0) break;
    for (; rounds != 0; --rounds) {
      ((bits[index] = __builtin_bswap64(LoadU64(bytes + (position[index] >> 3)))
                      << (position[index] & 7)),
       ...);
      static_assert(kLookupsPerRound == 4);
      (look(index), ...);
      (look(index), ...);
      (look(index), ...);
      (look(index), ...);
      if ((isStuck(index) || ...)) {
        going = (stepOver(index) && ...);
        if (!going) break;
      }
    }
    ((lanes[index]->position = position[index]), ...);
    ((lanes[index]->output = output[index]), ...);
  }
}

// Steps on until the lane is at one of the noted boundaries, and returns which. Returns the count
// if it stops or passes them all.
std::size_t MeetBoundary(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code,
                         HuffmanLane* lane, const std::uint64_t* boundaries, std::size_t count) {
  std::size_t next = 0;
  for (;;) {
    while (next < count && boundaries[next] < lane->position) ++next;
    if (next == count || boundaries[next] == lane->position) return next;
    if (!StepLane(tables, code, lane)) return count;
  }
}

}  // namespace

std::uint64_t HuffmanCodeBits::Peek(std::uint64_t bitPosition) const {
  const std::uint64_t byte = bitPosition >> 3;
  std::uint64_t bits = 0;
  if (length - byte >= 8) {
    bits = LoadU64(bytes + byte);
  } else {
    std::memcpy(&bits, bytes + byte, length - byte);
  }
  return __builtin_bswap64(bits) << (bitPosition & 7);
}

void RunHuffmanLane(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code,
                    HuffmanLane* lane) {
  // A round loads 8 bytes at once.
  if (code.length < 8) return;
  lane->limit = std::min(lane->limit, 8 * (code.length - 8));
  RunTogether(tables, code, &lane, std::index_sequence<0>());
}

void RunHuffmanLanes(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code,
                     HuffmanLane* lane) {
  const std::uint64_t pieceBits = 8 * (code.length / kLanes);
  const std::uint64_t pieceRoom =
      static_cast<std::uint64_t>(lane->outputEnd - lane->output) / kLanes;
  std::array<HuffmanLane, kLanes> lanes;
  std::array<std::uint8_t*, kLanes> starts;
  std::array<std::array<std::uint64_t, kNotedBoundaries>, kLanes> boundaries;
  std::array<std::size_t, kLanes> boundaryCounts;
  std::array<HuffmanLane*, kLanes> running;
  for (std::size_t i = 0; i < kLanes; ++i) {
    starts[i] = lane->output + i * pieceRoom;
    lanes[i] = {.position = i * pieceBits,
                .limit = i + 1 < kLanes ? (i + 1) * pieceBits : 8 * (code.length - 8),
                .output = starts[i],
                .outputEnd = starts[i] + pieceRoom};
    running[i] = &lanes[i];
    boundaryCounts[i] = 0;
    if (i == 0) continue;
    do {
      boundaries[i][boundaryCounts[i]++] = lanes[i].position;
    } while (boundaryCounts[i] < kNotedBoundaries && StepLane(tables, code, &lanes[i]));
  }

  for (std::size_t count = kLanes; count != 0;) {
    switch (count) {
      case 4:
        RunTogether(tables, code, running.data(), std::make_index_sequence<4>());
        break;
      case 3:
        RunTogether(tables, code, running.data(), std::make_index_sequence<3>());
        break;
      case 2:
        RunTogether(tables, code, running.data(), std::make_index_sequence<2>());
        break;
      default:
        RunTogether(tables, code, running.data(), std::make_index_sequence<1>());
        break;
    }
    const auto done = [](const HuffmanLane* each) { return SafeRounds(*each) == 0; };
    count = static_cast<std::size_t>(
        std::remove_if(running.begin(), running.begin() + count, done) - running.begin());
  }

  // Joins the outputs, as far as the lanes have met. The bytes in front of a meeting are the
  // earlier lane's, so each output moves down.
  std::uint8_t* output = lanes[0].output;
  std::size_t last = 0;
  while (last + 1 < kLanes) {
    // One that the end symbol or the end of its room stopped before its piece was done.
    if (boundaries[last + 1][0] > lanes[last].position + kBitsPerRound) break;
    HuffmanLane met = lanes[last];
    met.output = output;
    met.outputEnd = starts[last + 1];
    const std::size_t boundary =
        MeetBoundary(tables, code, &met, boundaries[last + 1].data(), boundaryCounts[last + 1]);
    output = met.output;
    lanes[last].position = met.position;
    if (boundary == boundaryCounts[last + 1]) break;
    ++last;
    const std::uint8_t* const from = starts[last] + boundary;
    const auto moved = static_cast<std::size_t>(lanes[last].output - from);
    std::memmove(output, from, moved);
    output += moved;
  }
  lane->position = lanes[last].position;
  lane->output = output;
}

}  // namespace kq
