#include "codec/lzss_decoder.h"

#include <gtest/gtest.h>

#include <vector>

#include "codec/lzss_encoder.h"
#include "codec/lzss_model.h"
#include "codec/random_numbers.h"
#include "codec/stream_codec_data.h"
#include "codec/stream_codec_drive.h"
#include "foundation/memory.h"

namespace kq {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kAmple = 4 << 20;

struct LzssDecoderTest : testing::Test {
  Owned<LzssDecoder> decoder = MakeOwned<LzssDecoder>();
  OwnedStreamCodec encoder = LzssEncoder::Create();
};

TEST_F(LzssDecoderTest, ReturnsTheOriginalOfEveryStream) {
  constexpr unsigned kSeed = 40;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (const unsigned alphabet : {1U, 2U, 30U, 256U}) {
    for (const std::size_t size : {0U, 1U, 2U, 5U, 4096U, 8192U, 8193U, 20480U, 50000U}) {
      const Bytes data = kqtest::RepetitiveBytes(&random, size, alphabet, 4);
      const Bytes stream = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
      const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), stream, kAmple);
      ASSERT_EQ(run.error, 0U);
      ASSERT_TRUE(run.output == data) << alphabet << " " << size;
      ASSERT_TRUE(kqtest::LzssModelDecode(stream) == data) << alphabet << " " << size;
    }
  }
}

TEST_F(LzssDecoderTest, AnySplitGivesTheSameData) {
  constexpr unsigned kSeed = 41;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const Bytes data = kqtest::RepetitiveBytes(&random, 50000, 20, 3);
  const Bytes stream = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
  for (const unsigned largest : {1U, 2U, 60U, 20000U}) {
    const kqtest::StreamRun run = kqtest::DriveStream(
        decoder.get(), stream, [&] { return random() % largest; },
        [&] { return random() % (2 * largest); }, [&] { return random() % 4 == 0; });
    ASSERT_EQ(run.error, 0U);
    ASSERT_TRUE(run.output == data) << largest;
  }
}

TEST_F(LzssDecoderTest, MatchMayGoBackToTheFirstByte) {
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), {0x10, 'a', 'b', 'c', 3, 0}, 100).output,
            (Bytes{'a', 'b', 'c', 'a', 'b', 'c'}));
}

TEST_F(LzssDecoderTest, DistanceBeyondTheHistoryIsAnError) {
  const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), {0x10, 'a', 'b', 'c', 4, 0}, 100);
  EXPECT_EQ(run.error, 1U);
  EXPECT_EQ(run.output, (Bytes{'a', 'b', 'c'}));
}

TEST_F(LzssDecoderTest, LengthBeyondTheDistanceIsAnError) {
  // Four back: three and four bytes pass, five don't. Nor does any length at distance 0 or 2.
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), {0x08, 1, 2, 3, 4, 4, 0x00}, 100).error, 0U);
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), {0x08, 1, 2, 3, 4, 4, 0x10}, 100).error, 0U);
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), {0x08, 1, 2, 3, 4, 4, 0x20}, 100).error, 1U);
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), {0x08, 1, 2, 3, 4, 2, 0x00}, 100).error, 1U);
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), {0x08, 1, 2, 3, 4, 0, 0x00}, 100).error, 1U);
}

TEST_F(LzssDecoderTest, HistoryReachesBack4095BytesForEver) {
  // Literals only, then a match at the greatest distance, at every place in the buffer.
  for (std::size_t size = 4095; size < 4095 + 9000; size += 253) {
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
    Bytes stream;
    for (std::size_t i = 0; i < size; ++i) {
      if (i % 8 == 0) stream.push_back(0);
      stream.push_back(data[i]);
    }
    if (size % 8 == 0) stream.push_back(0x80);
    if (size % 8 != 0) {
      stream[stream.size() - size % 8 - 1] = static_cast<std::uint8_t>(128 >> (size % 8));
    }
    stream.push_back(0xFF);
    stream.push_back(0xFF);
    const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), stream, kAmple);
    ASSERT_EQ(run.error, 0U);
    ASSERT_EQ(run.output.size(), size + 18);
    const auto from = data.end() - 4095;
    ASSERT_TRUE(std::equal(from, from + 18, run.output.end() - 18)) << size;
  }
}

TEST_F(LzssDecoderTest, ErrorStaysUntilReset) {
  const Bytes bad{0x80, 3, 0};
  const Bytes good{0x00, 'b'};
  std::uint8_t room[8];
  std::uint32_t error = 0;
  decoder->SetOutput(room, sizeof room);
  decoder->SetInput(bad.data(), 3);
  EXPECT_FALSE(decoder->Run(&error));
  EXPECT_EQ(error, 1U);
  decoder->SetInput(good.data(), 2);
  EXPECT_FALSE(decoder->Run(&error));
  EXPECT_EQ(error, 1U);
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), good, 100).output, Bytes(1, 'b'));
}

TEST_F(LzssDecoderTest, AnyInputEndsWithoutHarm) {
  constexpr unsigned kSeed = 42;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (unsigned round = 0; round < 60; ++round) {
    const Bytes data = kqtest::RepetitiveBytes(&random, random() % 30000, 2 + round % 200, 3);
    Bytes stream = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
    for (unsigned change = 0; change < 3 && !stream.empty(); ++change) {
      stream[random() % stream.size()] = static_cast<std::uint8_t>(random());
    }
    kqtest::DriveStream(
        decoder.get(), stream, [&] { return random() % 3000; }, [&] { return random() % 9000; },
        [] { return false; });
  }
}

}  // namespace
}  // namespace kq
