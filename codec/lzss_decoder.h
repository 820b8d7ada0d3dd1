// The decoder of compression type 4, whose format lzss_encoder.h tells.
//
// Nothing in the library builds one: an image of type 4 is written here and read elsewhere. It
// fixes the format from the reader's side. It has the operations of a StreamCodec and their
// meaning, but stands behind no table of virtual ones.
#ifndef KQ_CODEC_LZSS_DECODER_H
#define KQ_CODEC_LZSS_DECODER_H

#include <cstdint>

namespace kq {

class LzssDecoder final {
 public:
  LzssDecoder() { Reset(); }

  void SetInput(const std::uint8_t* input, std::uint32_t length);
  void SetOutput(std::uint8_t* output, std::uint32_t capacity);
  // A stream that no encoder makes gives false with *error 1, from then on until Reset.
  bool Run(std::uint32_t* error);
  std::uint64_t OutputSize() const { return static_cast<std::uint64_t>(Output - OutputStart); }
  void Reset();
  bool SawOnlyZeros() const { return AnySet == 0; }

 private:
  static constexpr std::uint32_t kBufferSize = 8192;

  enum class Step { kDone, kNeedsInput, kError };

  bool Drain();
  void SlideFor(std::uint32_t length);
  bool ReadByte(std::uint8_t* byte);
  Step DecodeItem();
  Step DecodeMatch();

  const std::uint8_t* Input;  // null: finished
  const std::uint8_t* InputEnd;
  std::uint8_t* Output;
  std::uint8_t* OutputEnd;
  std::uint8_t* OutputStart;
  std::uint8_t AnySet;
  std::uint8_t InputEnded;
  std::uint8_t Failed;
  std::uint8_t FlagByte;
  std::uint8_t FlagMask;      // flag of the next item; 0: a flag byte comes next
  std::uint8_t MatchBegun;    // the first byte of a match was the input's last
  std::uint8_t MatchLow;      // that byte
  std::uint32_t ReadOffset;   // in Buffer: what the output has had
  std::uint32_t WriteOffset;  // in Buffer: what is decoded; below it stands the history
  std::uint8_t Buffer[kBufferSize];
};

}  // namespace kq

#endif
