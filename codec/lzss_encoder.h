// The encoder of compression type 4.
//
// Format of the stream: groups of a flag byte and up to eight items, whose flags stand in it from
// the most significant bit down; unused flags of the last group are 0. Flag 0: one literal byte.
// Flag 1: two bytes, a little-endian number whose low 12 bits are the distance back, 1 to 4095, and
// whose high 4 bits are the length less 3, so 3 to 18. A length never exceeds its distance: no
// match overlaps what it makes.
#ifndef KQ_CODEC_LZSS_ENCODER_H
#define KQ_CODEC_LZSS_ENCODER_H

#include <cstdint>

#include "codec/stream_codec.h"

namespace kq {

struct LzssParameters {
  std::uint32_t longestEntered;  // matches up to this length are entered position by position
  std::uint32_t goodLength;      // a match of this length ends the search
  std::uint32_t longestChain;    // links followed at most
};

class LzssEncoder final : public StreamCodec {
 public:
  // Empty if there is no memory.
  static OwnedStreamCodec Create();

  LzssEncoder();  // for Create

  void Destroy() override;
  void SetInput(const std::uint8_t* input, std::uint32_t length) override;
  void SetOutput(std::uint8_t* output, std::uint32_t capacity) override;
  bool Run(std::uint32_t* error) override;
  std::uint64_t OutputSize() const override;
  void Reset() override;
  bool SawOnlyZeros() const override { return AnySet == 0; }

 private:
  static constexpr std::uint32_t kWindowSize = 8192;
  // Behind the window, always zero. Near the end of the input the search compares bytes and hashes
  // positions behind the last byte; what it finds there is cut off or comes too late to be used.
  static constexpr std::uint32_t kWindowSlack = 32;
  static constexpr std::uint32_t kChainSize = 4096;
  static constexpr std::uint32_t kHashSize = 2048;
  static constexpr std::uint32_t kGroupSize = 1 + 8 * 2;

  bool SendGroup();
  bool FillWindow();
  void SlideWindow();
  void HashByte(std::uint8_t byte) { Hash = (Hash << 4 ^ byte) & (kHashSize - 1); }
  std::uint32_t EnterPosition(std::uint32_t position);
  std::uint32_t FindMatch(std::uint32_t candidate);
  void EncodeItem();
  void PutMatch(std::uint32_t distance, std::uint32_t length);

  const std::uint8_t* Input;  // null: finished
  const std::uint8_t* InputEnd;
  std::uint8_t* Output;
  std::uint8_t* OutputEnd;
  std::uint8_t* OutputStart;
  const LzssParameters* Params;
  std::uint8_t AnySet;      // OR of all input bytes
  std::uint8_t InputEnded;  // no more will come
  std::uint8_t Primed;      // bytes hashed in front of the first position, 0 to 2
  std::uint8_t Window[kWindowSize + kWindowSlack];
  std::uint32_t Position;   // in Window, of the next item
  std::uint32_t Lookahead;  // bytes from there on
  std::uint32_t MatchStart;
  std::uint32_t Hash;              // of the last three bytes
  std::uint16_t Head[kHashSize];   // newest position of each hash; 0: none
  std::uint16_t Prev[kChainSize];  // position of the same hash before, by position & 0xFFF
  // A group is put together here and leaves when it is whole, so it does not matter how the room
  // is cut, and nothing is written behind what OutputSize counts.
  std::uint8_t Staging[kGroupSize];
  std::uint32_t GroupLength;  // bytes in it, the reserved flag byte included
  std::uint32_t GroupSent;    // of them already in the output
  std::uint32_t FlagMask;     // flag of the next item; 0: the group is whole
};

}  // namespace kq

#endif
