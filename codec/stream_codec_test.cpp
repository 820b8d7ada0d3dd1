#include "codec/stream_codec.h"

#include <gtest/gtest.h>

#include "codec/lzss_decoder.h"
#include "codec/lzss_encoder.h"
#include "codec/lzw_decoder.h"
#include "codec/lzw_encoder.h"
#include "codec/random_numbers.h"
#include "codec/stream_codec_data.h"
#include "codec/stream_codec_drive.h"

namespace kq {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kAmple = 1 << 20;

template <class Codec>
void ExpectNothingLostWithoutBuffers(Codec* codec, const Bytes& input) {
  const Bytes expected = kqtest::DriveWhole(codec, input, kAmple).output;
  codec->Reset();
  std::uint32_t error = 1;
  codec->SetInput(nullptr, 7);
  EXPECT_FALSE(codec->Run(&error));
  EXPECT_EQ(error, 0U);
  codec->SetOutput(nullptr, 0);
  codec->SetInput(input.data(), static_cast<std::uint32_t>(input.size()));
  EXPECT_TRUE(codec->Run(&error));  // asks for room
  EXPECT_EQ(codec->OutputSize(), 0U);

  Bytes output(kAmple);
  codec->SetOutput(output.data(), kAmple);
  EXPECT_FALSE(codec->Run(&error));
  codec->SetInput(input.data(), 0);
  while (codec->Run(&error)) {
  }
  EXPECT_EQ(error, 0U);
  output.resize(codec->OutputSize());
  EXPECT_TRUE(output == expected);
}

// No input is not the input's end, and no room is room that is full.
TEST(StreamCodec, WithoutBuffersNothingIsLost) {
  kqtest::RandomNumbers random(14);
  const Bytes data = kqtest::RepetitiveBytes(&random, 300000, 30, 50);  // more than a window
  const OwnedStreamCodec lzw = LzwEncoder::Create();
  const OwnedStreamCodec lzss = LzssEncoder::Create();
  ExpectNothingLostWithoutBuffers(lzw.get(), data);
  ExpectNothingLostWithoutBuffers(lzss.get(), data);
  const Owned<LzwDecoder> lzwDecoder = MakeOwned<LzwDecoder>();
  const Owned<LzssDecoder> lzssDecoder = MakeOwned<LzssDecoder>();
  ExpectNothingLostWithoutBuffers(lzwDecoder.get(),
                                  kqtest::DriveWhole(lzw.get(), data, kAmple).output);
  ExpectNothingLostWithoutBuffers(lzssDecoder.get(),
                                  kqtest::DriveWhole(lzss.get(), data, kAmple).output);
}

}  // namespace
}  // namespace kq
