// The decoder of compression type 3, whose format lzw_encoder.h tells.
//
// Nothing in the library builds one: an image of type 3 is written here and read elsewhere. It
// fixes the format from the reader's side. It has the operations of a StreamCodec and their
// meaning, but stands behind no table of virtual ones. It is 256 KB large: make it with MakeOwned.
#ifndef KQ_CODEC_LZW_DECODER_H
#define KQ_CODEC_LZW_DECODER_H

#include <cstdint>

namespace kq {

class LzwDecoder final {
 public:
  LzwDecoder();

  void SetInput(const std::uint8_t* input, std::uint32_t length);
  void SetOutput(std::uint8_t* output, std::uint32_t capacity);
  // A stream that no encoder makes gives false with *error 1, from then on until Reset.
  bool Run(std::uint32_t* error);
  std::uint64_t OutputSize() const { return static_cast<std::uint64_t>(Output - OutputStart); }
  void Reset();
  bool SawOnlyZeros() const { return AnySet == 0; }

 private:
  static constexpr std::uint32_t kTableSize = 65536;

  bool DrainStack();
  bool ReadCode(std::uint32_t* code);
  bool TakeCode(std::uint32_t code);
  void PushString(std::uint32_t code);
  void EnterString();

  const std::uint8_t* Input;  // null: finished
  const std::uint8_t* InputEnd;
  std::uint8_t* Output;
  std::uint8_t* OutputEnd;
  std::uint8_t* OutputStart;
  std::uint32_t BitBuffer;  // bits read and not used yet, the next lowest
  std::uint32_t BitCount;
  std::uint32_t CodeWidth;
  std::uint32_t NextCode;
  std::uint32_t OldCode;    // the code before, or kNone
  std::uint32_t FirstByte;  // of the string before, or kNone
  std::uint32_t StackSize;
  std::uint8_t AnySet;
  std::uint8_t InputEnded;
  std::uint8_t Failed;
  // Strings: the code of the string without its last byte, and that byte. Every link goes to a
  // smaller code of the same generation of the table, down to the codes of single bytes.
  std::uint16_t Links[kTableSize];
  std::uint8_t Bytes[kTableSize];
  std::uint8_t Stack[kTableSize];  // a string on its way out, its first byte topmost
};

}  // namespace kq

#endif
