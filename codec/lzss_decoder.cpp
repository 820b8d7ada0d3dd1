#include "codec/lzss_decoder.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace kq {
namespace {

constexpr std::uint8_t kFirstFlag = 128;
constexpr std::uint32_t kShortestMatch = 3;
constexpr std::uint32_t kDistanceBits = 12;
constexpr std::uint32_t kDistanceMask = (1U << kDistanceBits) - 1;

}  // namespace

void LzssDecoder::Reset() {
  Input = nullptr;
  InputEnd = nullptr;
  Output = nullptr;
  OutputEnd = nullptr;
  OutputStart = nullptr;
  AnySet = 0;
  InputEnded = 0;
  Failed = 0;
  FlagByte = 0;
  FlagMask = 0;
  MatchBegun = 0;
  MatchLow = 0;
  ReadOffset = 0;
  WriteOffset = 0;
}

void LzssDecoder::SetInput(const std::uint8_t* input, std::uint32_t length) {
  Input = input;
  InputEnd = input == nullptr ? nullptr : input + length;
  if (length == 0) InputEnded = 1;
}

void LzssDecoder::SetOutput(std::uint8_t* output, std::uint32_t capacity) {
  Output = output;
  OutputStart = output;
  OutputEnd = output == nullptr ? nullptr : output + capacity;
}

bool LzssDecoder::Run(std::uint32_t* error) {
  *error = Failed;
  if (Failed != 0 || Input == nullptr) return false;
  for (;;) {
    if (!Drain()) return true;
    const Step step = DecodeItem();
    if (step == Step::kNeedsInput) break;
    if (step == Step::kError) {
      Failed = 1;
      *error = Failed;
      return false;
    }
  }
  if (InputEnded == 0 || Output == OutputStart) return false;
  Input = nullptr;
  return true;
}

// Hands over what is decoded. False: there is no room for all of it.
bool LzssDecoder::Drain() {
  const auto room = static_cast<std::size_t>(OutputEnd - Output);
  const std::size_t sent = std::min<std::size_t>(room, WriteOffset - ReadOffset);
  if (sent != 0) std::memcpy(Output, Buffer + ReadOffset, sent);
  Output += sent;
  ReadOffset += static_cast<std::uint32_t>(sent);
  return ReadOffset == WriteOffset;
}

// Makes room for length bytes by dropping all history but the last half of the buffer, which no
// distance goes beyond. Called only when everything has been handed over.
void LzssDecoder::SlideFor(std::uint32_t length) {
  constexpr std::uint32_t kHalf = kBufferSize / 2;
  if (WriteOffset + length <= kBufferSize) return;
  std::memmove(Buffer, Buffer + WriteOffset - kHalf, kHalf);
  WriteOffset = kHalf;
  ReadOffset = kHalf;
}

bool LzssDecoder::ReadByte(std::uint8_t* byte) {
  if (Input == InputEnd) return false;
  *byte = *Input++;
  AnySet = static_cast<std::uint8_t>(AnySet | *byte);
  return true;
}

LzssDecoder::Step LzssDecoder::DecodeItem() {
  if (FlagMask == 0) {
    if (!ReadByte(&FlagByte)) return Step::kNeedsInput;
    FlagMask = kFirstFlag;
  }
  if ((FlagByte & FlagMask) != 0) return DecodeMatch();
  std::uint8_t literal = 0;
  if (!ReadByte(&literal)) return Step::kNeedsInput;
  SlideFor(1);
  Buffer[WriteOffset++] = literal;
  FlagMask >>= 1;
  return Step::kDone;
}

LzssDecoder::Step LzssDecoder::DecodeMatch() {
  if (MatchBegun == 0) {
    if (!ReadByte(&MatchLow)) return Step::kNeedsInput;
    MatchBegun = 1;
  }
  std::uint8_t high = 0;
  if (!ReadByte(&high)) return Step::kNeedsInput;
  MatchBegun = 0;
  const std::uint32_t match = std::uint32_t{high} << 8 | MatchLow;
  const std::uint32_t distance = match & kDistanceMask;
  const std::uint32_t length = (match >> kDistanceBits) + kShortestMatch;
  if (distance > WriteOffset || length > distance) return Step::kError;
  SlideFor(length);
  std::memcpy(Buffer + WriteOffset, Buffer + WriteOffset - distance, length);
  WriteOffset += length;
  FlagMask >>= 1;
  return Step::kDone;
}

}  // namespace kq
