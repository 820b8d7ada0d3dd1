// Frames, and what of them is not the search (lzo_search.h): how much input one takes, the table,
// the literals at the end.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "codec/lzo_block.h"
#include "codec/lzo_format.h"
#include "codec/lzo_put.h"
#include "codec/lzo_search.h"
#include "codec/lzo_wide_search.h"

namespace kq {
namespace {

using Byte = std::uint8_t;

constexpr std::uint64_t kLargestFrameInput = 0xFFFFFF;
// A frame's stream is at most its input, a sixteenth of it, and this much long.
constexpr std::uint64_t kWorstCaseExtra = 67;
constexpr std::ptrdiff_t kFirstSearchPosition = 4;
constexpr std::ptrdiff_t kSearchMargin = 13;  // bytes at a frame's end where no match begins
constexpr std::ptrdiff_t kWideMargin = 32;    // bytes that the search reads at once at a position

static_assert(kLzoSlots * sizeof(LzoTableEntry) <= kLzoHashTableBytes);
static_assert(kLzoFirstPlace == kLzoFarDistance + 1);

void Search(LzoFrame* frame, const Byte* start, const Byte* searchEnd, const LzoWideSearch& wide,
            LzoSearchStretch searchStretch, LzoTableEntry* table) {
  LzoStretchSlots slots;
  while (frame->p < searchEnd) {
    const std::size_t length =
        std::min(kLzoStretch, static_cast<std::size_t>(searchEnd - frame->p));
    wide.hashStretch(frame->p, length, &slots);
    slots.first[length] = 0;
    const LzoPositions stretch = {frame->p, &slots,
                                  kLzoFirstPlace + static_cast<std::uint32_t>(frame->p - start)};
    searchStretch(frame, stretch, length, table);
  }
}

Byte* CompressFrame(const Byte* in, std::size_t length, Byte* out, const LzoWideSearch& wide,
                    LzoTableEntry* table) {
  LzoFrame frame{in, in, in + length, out};
  const auto searched = static_cast<std::ptrdiff_t>(length) - kSearchMargin;
  if (searched > kFirstSearchPosition) {
    std::memset(table, 0, kLzoSlots * sizeof(LzoTableEntry));
    frame.p = in + kFirstSearchPosition;
    const std::ptrdiff_t searchedWide = searched + kSearchMargin - kWideMargin;
    if (searchedWide > kFirstSearchPosition) {
      Search(&frame, in, in + searchedWide, wide, wide.searchStretch, table);
    }
    Search(&frame, in, in + searched, wide, LzoSearchFrameEnd, table);
  }
  const auto tail = static_cast<std::size_t>(frame.end - frame.pending);
  if (frame.out == out && tail <= kLzoFirstRunLength) {
    *frame.out++ = static_cast<Byte>(kLzoFirstRunCode + tail);
  } else if (tail != 0) {
    frame.out = LzoPutLiteralCount(frame.out, tail);
  }
  std::memcpy(frame.out, frame.pending, tail);
  frame.out += tail;
  frame.out[0] = kLzoFarCode | 1;
  frame.out[1] = 0;
  frame.out[2] = 0;
  return frame.out + kLzoEndMarkerBytes;
}

}  // namespace

int LzoBlockCompressWith(const LzoWideSearch& wide, const std::uint8_t* input,
                         std::uint64_t inputLength, std::uint8_t* output,
                         std::uint64_t* outputLength, void* hashTable) {
  auto* const table = static_cast<LzoTableEntry*>(hashTable);
  Byte* out = output;
  std::uint64_t room = *outputLength;
  while (inputLength != 0) {
    if (room < kLzoFrameLengthBytes + kWorstCaseExtra) return kLzoOutputFull;
    room -= kLzoFrameLengthBytes;
    const std::uint64_t frameInput =
        std::min({inputLength, kLargestFrameInput, (room - kWorstCaseExtra) * 16 / 17});
    Byte* const frame = out + kLzoFrameLengthBytes;
    Byte* const frameEnd = CompressFrame(input, frameInput, frame, wide, table);
    const auto length = static_cast<std::uint64_t>(frameEnd - frame);
    out[0] = static_cast<Byte>(length);
    out[1] = static_cast<Byte>(length >> 8);
    out[2] = static_cast<Byte>(length >> 16);
    out = frameEnd;
    room -= length;
    input += frameInput;
    inputLength -= frameInput;
  }
  *outputLength = static_cast<std::uint64_t>(out - output);
  return kLzoSuccess;
}

int LzoBlockCompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                     std::uint64_t* outputLength, void* hashTable) {
  return LzoBlockCompressWith(LzoWideSearchHere(), input, inputLength, output, outputLength,
                              hashTable);
}

}  // namespace kq
