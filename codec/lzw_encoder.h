// The encoder of compression type 3.
//
// Format of the stream: codes, packed into bytes from the least significant bit up, the last byte
// padded with zero bits. Codes 0 to 255 are bytes, 256 clears the table, and new strings are
// numbered from 257. Codes are 9 bits wide at first and after a clear code and grow to 16 bits, one
// bit at a time, as the numbers do. When all numbers are given the table is kept for as long as the
// ratio of output to input holds or improves, and then cleared.
#ifndef KQ_CODEC_LZW_ENCODER_H
#define KQ_CODEC_LZW_ENCODER_H

#include <cstdint>

#include "codec/stream_codec.h"

namespace kq {

class LzwEncoder final : public StreamCodec {
 public:
  // Empty if there is no memory: an encoder takes 1.1 MB.
  static OwnedStreamCodec Create();

  LzwEncoder() { Reset(); }  // for Create

  void Destroy() override;
  void SetInput(const std::uint8_t* input, std::uint32_t length) override;
  void SetOutput(std::uint8_t* output, std::uint32_t capacity) override;
  bool Run(std::uint32_t* error) override;
  std::uint64_t OutputSize() const override;
  void Reset() override;
  bool SawOnlyZeros() const override { return AnySet == 0; }

 private:
  // A prime, so that a probe of any step visits every slot.
  static constexpr std::uint32_t kHashSize = 138007;

  bool Finish();
  bool Emit(std::uint32_t code);
  bool PutByte();
  bool EncodeInput();
  bool ClearTable();
  std::uint32_t FindSlot(std::int32_t key, std::uint32_t byte) const;
  void EnterString(std::uint32_t slot, std::int32_t key);

  const std::uint8_t* Input;  // null: finished
  const std::uint8_t* InputEnd;
  std::uint8_t* Output;
  std::uint8_t* OutputEnd;
  std::uint8_t* OutputStart;
  std::uint32_t BitBuffer;  // bits that have not left yet, the next to leave lowest
  std::uint32_t FreeBits;   // of the 32 in BitBuffer
  std::uint64_t BytesIn;
  std::uint64_t BytesOut;
  std::uint32_t BestRatio;  // of BytesOut to BytesIn, in 256ths, since the table was full
  std::uint8_t AnySet;      // OR of all input bytes
  std::uint32_t CodeWidth;
  std::uint32_t WidthLimit;            // 1 << CodeWidth
  std::int32_t HashKeys[kHashSize];    // byte << 16 | prefix; -1: empty
  std::uint32_t HashCodes[kHashSize];  // read only where the key matches, so never cleared
  std::uint32_t NextCode;
  std::uint32_t Prefix;       // code of the string matched so far, or kNoPrefix
  std::uint8_t ClearPending;  // the next byte is preceded by a clear code
};

}  // namespace kq

#endif
