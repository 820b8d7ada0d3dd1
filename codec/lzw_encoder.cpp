#include "codec/lzw_encoder.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace kq {
namespace {

constexpr std::uint32_t kNoPrefix = 0xFFFFFFFF;
constexpr std::uint32_t kClearCode = 256;
constexpr std::uint32_t kFirstCode = 257;
constexpr std::uint32_t kNarrowestCode = 9;
constexpr std::uint32_t kWidestCode = 16;
constexpr std::uint32_t kBitBufferBits = 32;
constexpr std::int32_t kEmptySlot = -1;
constexpr std::uint32_t kRatioUnit = 256;

}  // namespace

OwnedStreamCodec LzwEncoder::Create() {
  return OwnedStreamCodec(MakeOwned<LzwEncoder>().release());
}

void LzwEncoder::Destroy() {
  this->~LzwEncoder();
  std::free(this);
}

void LzwEncoder::Reset() {
  Input = nullptr;
  InputEnd = nullptr;
  Output = nullptr;
  OutputEnd = nullptr;
  OutputStart = nullptr;
  BitBuffer = 0;
  FreeBits = kBitBufferBits;
  BytesIn = 0;
  BytesOut = 0;
  BestRatio = kRatioUnit;
  AnySet = 0;
  CodeWidth = kNarrowestCode;
  WidthLimit = 1U << kNarrowestCode;
  std::fill(std::begin(HashKeys), std::end(HashKeys), kEmptySlot);
  NextCode = kFirstCode;
  Prefix = kNoPrefix;
  ClearPending = 0;
}

void LzwEncoder::SetInput(const std::uint8_t* input, std::uint32_t length) {
  Input = input;
  InputEnd = input == nullptr ? nullptr : input + length;
}

void LzwEncoder::SetOutput(std::uint8_t* output, std::uint32_t capacity) {
  Output = output;
  OutputStart = output;
  OutputEnd = output == nullptr ? nullptr : output + capacity;
}

std::uint64_t LzwEncoder::OutputSize() const {
  return static_cast<std::uint64_t>(Output - OutputStart);
}

bool LzwEncoder::Run(std::uint32_t* error) {
  *error = 0;
  if (Input == nullptr) return false;
  return Input == InputEnd ? Finish() : EncodeInput();
}

// Lets the lowest byte of the bit buffer leave. False: the output is full and nothing has changed.
bool LzwEncoder::PutByte() {
  if (Output == OutputEnd) return false;
  *Output++ = static_cast<std::uint8_t>(BitBuffer);
  ++BytesOut;
  BitBuffer >>= 8;
  FreeBits += 8;
  return true;
}

// Takes a code into the bit buffer, which makes room first. False: the output is full and the code
// has not been taken; the same call goes on when there is room again.
bool LzwEncoder::Emit(std::uint32_t code) {
  while (FreeBits < CodeWidth) {
    if (!PutByte()) return false;
  }
  BitBuffer |= code << (kBitBufferBits - FreeBits);
  FreeBits -= CodeWidth;
  return true;
}

bool LzwEncoder::Finish() {
  if (Prefix != kNoPrefix) {
    if (!Emit(Prefix)) return true;
    Prefix = kNoPrefix;
  }
  while (FreeBits < kBitBufferBits) {
    if (!PutByte()) return true;
  }
  if (Output == OutputStart) return false;
  Input = nullptr;
  return true;
}

// The prefix and the counts that measure the ratio outlive the table.
bool LzwEncoder::ClearTable() {
  if (!Emit(kClearCode)) return false;
  CodeWidth = kNarrowestCode;
  WidthLimit = 1U << kNarrowestCode;
  std::fill(std::begin(HashKeys), std::end(HashKeys), kEmptySlot);
  ClearPending = 0;
  NextCode = kFirstCode;
  return true;
}

// The slot that holds the key, or the empty slot where it belongs.
std::uint32_t LzwEncoder::FindSlot(std::int32_t key, std::uint32_t byte) const {
  std::uint32_t slot = byte << 9 ^ Prefix;
  if (HashKeys[slot] == key) return slot;
  const std::uint32_t step = slot == 0 ? 1 : kHashSize - slot;
  while (HashKeys[slot] >= 0 && HashKeys[slot] != key) {
    slot = slot >= step ? slot - step : slot + kHashSize - step;
  }
  return slot;
}

// Numbers the string that a code has just ended with the byte behind it, and decides on a clear
// code if the numbers are used up.
void LzwEncoder::EnterString(std::uint32_t slot, std::int32_t key) {
  if (CodeWidth < kWidestCode && NextCode >= WidthLimit) {
    ++CodeWidth;
    WidthLimit = 1U << CodeWidth;
  }
  if (NextCode < WidthLimit) {
    HashKeys[slot] = key;
    HashCodes[slot] = NextCode++;
    return;
  }
  // The byte in hand counts, though it is not used up yet.
  const auto ratio = static_cast<std::uint32_t>(BytesOut * kRatioUnit / (BytesIn + 1));
  if (ratio > BestRatio) {
    ClearPending = 1;
  } else {
    BestRatio = ratio;
  }
}

// A byte is used up only when all that it causes is in the bit buffer, so that a call that stopped
// at a full output repeats nothing.
bool LzwEncoder::EncodeInput() {
  for (; Input != InputEnd; ++Input) {
    if (ClearPending != 0 && !ClearTable()) return true;
    const std::uint32_t byte = *Input;
    if (Prefix == kNoPrefix) {
      Prefix = byte;
    } else {
      const auto key = static_cast<std::int32_t>(byte << 16 | Prefix);
      const std::uint32_t slot = FindSlot(key, byte);
      if (HashKeys[slot] == key) {
        Prefix = HashCodes[slot];
      } else {
        if (!Emit(Prefix)) return true;
        Prefix = byte;
        EnterString(slot, key);
      }
    }
    AnySet = static_cast<std::uint8_t>(AnySet | byte);
    ++BytesIn;
  }
  return false;
}

}  // namespace kq
