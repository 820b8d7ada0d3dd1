#include "codec/lzss_encoder.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "foundation/little_endian.h"

namespace kq {
namespace {

constexpr LzssParameters kParameters = {.longestEntered = 4, .goodLength = 8, .longestChain = 4};

constexpr std::uint32_t kShortestMatch = 3;
constexpr std::uint32_t kLongestMatch = 18;
// Bytes that an item may look at; below that the window is filled up.
constexpr std::uint32_t kNeededLookahead = 26;
constexpr std::uint32_t kFirstFlag = 128;
constexpr std::uint32_t kDistanceBits = 12;

}  // namespace

OwnedStreamCodec LzssEncoder::Create() {
  return OwnedStreamCodec(MakeOwned<LzssEncoder>().release());
}

LzssEncoder::LzssEncoder() : Params(&kParameters) { Reset(); }

void LzssEncoder::Destroy() {
  this->~LzssEncoder();
  std::free(this);
}

void LzssEncoder::Reset() {
  Input = nullptr;
  InputEnd = nullptr;
  Output = nullptr;
  OutputEnd = nullptr;
  OutputStart = nullptr;
  AnySet = 0;
  InputEnded = 0;
  Primed = 0;
  // Old bytes behind the input's end can decide between two matches, so they are part of the state.
  std::fill(std::begin(Window), std::end(Window), std::uint8_t{0});
  Position = 0;
  Lookahead = 0;
  MatchStart = 0;
  Hash = 0;
  std::fill(std::begin(Head), std::end(Head), std::uint16_t{0});
  std::fill(std::begin(Prev), std::end(Prev), std::uint16_t{0});
  std::fill(std::begin(Staging), std::end(Staging), std::uint8_t{0});
  GroupLength = 1;
  GroupSent = 0;
  FlagMask = kFirstFlag;
}

void LzssEncoder::SetInput(const std::uint8_t* input, std::uint32_t length) {
  Input = input;
  InputEnd = input == nullptr ? nullptr : input + length;
}

void LzssEncoder::SetOutput(std::uint8_t* output, std::uint32_t capacity) {
  Output = output;
  OutputStart = output;
  OutputEnd = output == nullptr ? nullptr : output + capacity;
}

std::uint64_t LzssEncoder::OutputSize() const {
  return static_cast<std::uint64_t>(Output - OutputStart);
}

bool LzssEncoder::Run(std::uint32_t* error) {
  *error = 0;
  if (Input == nullptr) return false;
  // Input that is used up always ends a call, so this is the SetInput of length 0.
  if (Input == InputEnd) InputEnded = 1;
  if (InputEnded == 0 && !FillWindow()) return false;
  for (;;) {
    if (!SendGroup()) return true;
    if (Lookahead < kNeededLookahead && InputEnded == 0) {
      SlideWindow();
      if (!FillWindow()) return false;
    }
    if (Lookahead == 0) break;
    EncodeItem();
  }
  if (Output == OutputStart) return false;
  Input = nullptr;
  return true;
}

// Moves a whole group into the output and begins the next. False: there is no room for all of it.
bool LzssEncoder::SendGroup() {
  if (FlagMask != 0) return true;
  const auto room = static_cast<std::size_t>(OutputEnd - Output);
  const std::size_t sent = std::min<std::size_t>(room, GroupLength - GroupSent);
  if (sent != 0) std::memcpy(Output, Staging + GroupSent, sent);
  Output += sent;
  GroupSent += static_cast<std::uint32_t>(sent);
  if (GroupSent != GroupLength) return false;
  Staging[0] = 0;
  GroupLength = 1;
  GroupSent = 0;
  FlagMask = kFirstFlag;
  return true;
}

// Takes as much input as fits. False: all of it is in the window, and what is to become of it
// waits for more input or for its end. Items are thus made only while the window is full or the
// input has ended, so the stream does not depend on how the input came in pieces.
bool LzssEncoder::FillWindow() {
  const std::uint32_t end = Position + Lookahead;
  const auto left = static_cast<std::size_t>(InputEnd - Input);
  const auto taken = static_cast<std::uint32_t>(std::min<std::size_t>(kWindowSize - end, left));
  for (std::uint32_t i = 0; i < taken; ++i) {
    const std::uint8_t byte = Input[i];
    Window[end + i] = byte;
    AnySet = static_cast<std::uint8_t>(AnySet | byte);
    if (Primed < 2) {
      HashByte(byte);
      ++Primed;
    }
  }
  Input += taken;
  Lookahead += taken;
  return Input != InputEnd;
}

// Drops the lower half of a full window with less than the needed lookahead. What stood at the
// start of the upper half can't be matched any more, since it comes to stand at position 0.
void LzssEncoder::SlideWindow() {
  constexpr std::uint32_t kHalf = kWindowSize / 2;
  std::memcpy(Window, Window + kHalf, kHalf);
  Position -= kHalf;
  const auto lower = [](std::uint16_t& position) {
    position = static_cast<std::uint16_t>(position > kHalf ? position - kHalf : 0);
  };
  std::for_each(std::begin(Head), std::end(Head), lower);
  std::for_each(std::begin(Prev), std::end(Prev), lower);
}

// Enters a position into its chain and returns the one before it there.
std::uint32_t LzssEncoder::EnterPosition(std::uint32_t position) {
  HashByte(Window[position + 2]);
  const std::uint16_t previous = Head[Hash];
  Prev[position & (kChainSize - 1)] = previous;
  Head[Hash] = static_cast<std::uint16_t>(position);
  return previous;
}

// The length of the longest match in the chain that begins with candidate, and its place in
// MatchStart; 2 if there is none. The length may go beyond what is left of the input. Position 0
// is never matched: 0 ends a chain.
std::uint32_t LzssEncoder::FindMatch(std::uint32_t candidate) {
  const std::uint32_t tooFar = Position > kChainSize ? Position - kChainSize : 0;
  const std::uint8_t* const here = Window + Position;
  std::uint32_t best = kShortestMatch - 1;
  for (std::uint32_t links = 0; links < Params->longestChain && candidate > tooFar;
       ++links, candidate = Prev[candidate & (kChainSize - 1)]) {
    // A length may not exceed its distance, so a nearer one is useless; it counts as a link.
    if (Position - candidate < kShortestMatch) continue;
    const std::uint8_t* const there = Window + candidate;
    if (there[best] != here[best] || there[best - 1] != here[best - 1] || there[0] != here[0] ||
        there[1] != here[1]) {
      continue;
    }
    std::uint32_t length = 2;
    while (length < kLongestMatch && there[length] == here[length]) ++length;
    if (length <= best) continue;
    best = length;
    MatchStart = candidate;
    if (length >= Params->goodLength) break;
  }
  return best;
}

void LzssEncoder::EncodeItem() {
  const std::uint32_t candidate = EnterPosition(Position);
  const std::uint32_t found = std::min(Lookahead, FindMatch(candidate));
  if (found >= kShortestMatch) {
    const std::uint32_t distance = Position - MatchStart;
    PutMatch(distance, std::min({distance, kLongestMatch, found}));
  } else {
    Staging[GroupLength++] = Window[Position++];
    --Lookahead;
  }
  // The last group is whole with what it has.
  FlagMask = Lookahead == 0 ? 0 : FlagMask >> 1;
}

void LzssEncoder::PutMatch(std::uint32_t distance, std::uint32_t length) {
  Staging[0] = static_cast<std::uint8_t>(Staging[0] | FlagMask);
  StoreU16(Staging + GroupLength,
           static_cast<std::uint16_t>(distance | (length - kShortestMatch) << kDistanceBits));
  GroupLength += 2;
  Lookahead -= length;
  if (length <= Params->longestEntered) {
    for (std::uint32_t i = 1; i < length; ++i) EnterPosition(Position + i);
    Position += length;
  } else {
    Position += length;
    Hash = 0;
    HashByte(Window[Position]);
    HashByte(Window[Position + 1]);
  }
}

}  // namespace kq
