#include "codec/lzw_decoder.h"

#include "foundation/log.h"

namespace kq {
namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFF;
constexpr std::uint32_t kLargestByte = 255;
constexpr std::uint32_t kClearCode = 256;
constexpr std::uint32_t kFirstCode = 257;
constexpr std::uint32_t kNarrowestCode = 9;
constexpr std::uint32_t kWidestCode = 16;

}  // namespace

LzwDecoder::LzwDecoder() {
  for (std::uint32_t code = 0; code < kTableSize; ++code) {
    Links[code] = 0;
    Bytes[code] = static_cast<std::uint8_t>(code <= kLargestByte ? code : 0);
  }
  Reset();
}

void LzwDecoder::Reset() {
  Input = nullptr;
  InputEnd = nullptr;
  Output = nullptr;
  OutputEnd = nullptr;
  OutputStart = nullptr;
  BitBuffer = 0;
  BitCount = 0;
  CodeWidth = kNarrowestCode;
  NextCode = kFirstCode;
  OldCode = kNone;
  FirstByte = kNone;
  StackSize = 0;
  AnySet = 0;
  InputEnded = 0;
  Failed = 0;
}

void LzwDecoder::SetInput(const std::uint8_t* input, std::uint32_t length) {
  Input = input;
  InputEnd = input == nullptr ? nullptr : input + length;
  if (length == 0) InputEnded = 1;
}

void LzwDecoder::SetOutput(std::uint8_t* output, std::uint32_t capacity) {
  Output = output;
  OutputStart = output;
  OutputEnd = output == nullptr ? nullptr : output + capacity;
}

bool LzwDecoder::Run(std::uint32_t* error) {
  *error = Failed;
  if (Failed != 0 || Input == nullptr) return false;
  std::uint32_t code = 0;
  for (;;) {
    if (!DrainStack()) return true;
    if (!ReadCode(&code)) break;
    if (!TakeCode(code)) {
      Failed = 1;
      *error = Failed;
      return false;
    }
  }
  if (InputEnded == 0 || Output == OutputStart) return false;
  Input = nullptr;
  return true;
}

bool LzwDecoder::DrainStack() {
  while (StackSize != 0) {
    if (Output == OutputEnd) return false;
    *Output++ = Stack[--StackSize];
  }
  return true;
}

bool LzwDecoder::ReadCode(std::uint32_t* code) {
  while (BitCount < CodeWidth) {
    if (Input == InputEnd) return false;
    AnySet = static_cast<std::uint8_t>(AnySet | *Input);
    BitBuffer |= std::uint32_t{*Input++} << BitCount;
    BitCount += 8;
  }
  *code = BitBuffer & ((1U << CodeWidth) - 1);
  BitBuffer >>= CodeWidth;
  BitCount -= CodeWidth;
  return true;
}

bool LzwDecoder::TakeCode(std::uint32_t code) {
  if (OldCode == kNone) {
    if (code > kLargestByte) return false;
    PushString(code);
    OldCode = code;
    return true;
  }
  if (code == kClearCode) {
    CodeWidth = kNarrowestCode;
    // One below the encoder's first code: the entry that the next code makes, which would join
    // strings of both generations, goes into the clear code's own slot, where nothing reads it.
    NextCode = kClearCode;
    return true;
  }
  if (code > NextCode) {
    LogAssertion("too large code value");
    return false;
  }
  if (code == NextCode) {
    // The string that this very code is about to name: the one before and its own first byte.
    if (FirstByte == kNone) LogAssertion("KwKwK as a very first string");
    Stack[StackSize++] = static_cast<std::uint8_t>(FirstByte);
    PushString(OldCode);
  } else {
    PushString(code);
  }
  EnterString();
  OldCode = code;
  return true;
}

void LzwDecoder::PushString(std::uint32_t code) {
  for (; code > kLargestByte; code = Links[code]) Stack[StackSize++] = Bytes[code];
  Stack[StackSize++] = Bytes[code];
  FirstByte = Bytes[code];
}

void LzwDecoder::EnterString() {
  if (NextCode < kTableSize) {
    Links[NextCode] = static_cast<std::uint16_t>(OldCode);
    Bytes[NextCode] = static_cast<std::uint8_t>(FirstByte);
    if (OldCode == NextCode) LogAssertion("circular loop in match reference");
    ++NextCode;
  }
  if (NextCode > (1U << CodeWidth) - 1 && CodeWidth < kWidestCode) ++CodeWidth;
}

}  // namespace kq
