#include "codec/lzw_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/lzw_encoder.h"
#include "codec/lzw_model.h"
#include "codec/random_numbers.h"
#include "codec/stream_codec_data.h"
#include "codec/stream_codec_drive.h"

namespace kq {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kAmple = 4 << 20;

struct LzwDecoderTest : testing::Test {
  Owned<LzwDecoder> decoder = MakeOwned<LzwDecoder>();
};

// Joins codes of 9 bits.
Bytes NineBitCodes(const std::vector<unsigned>& codes) {
  Bytes stream((9 * codes.size() + 7) / 8);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    for (std::size_t bit = 0; bit < 9; ++bit) {
      const std::size_t at = 9 * i + bit;
      stream[at / 8] =
          static_cast<std::uint8_t>(stream[at / 8] | (codes[i] >> bit & 1) << (at % 8));
    }
  }
  return stream;
}

TEST_F(LzwDecoderTest, ReturnsTheOriginalOfEveryStream) {
  constexpr unsigned kSeed = 11;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  for (const unsigned alphabet : {1U, 2U, 30U, 256U}) {
    for (const std::size_t size : {0U, 1U, 2U, 5U, 511U, 5000U, 250000U}) {
      const Bytes data = kqtest::RepetitiveBytes(&random, size, alphabet, 50);
      const Bytes stream = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
      const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), stream, kAmple);
      ASSERT_EQ(run.error, 0U);
      ASSERT_TRUE(run.output == data) << alphabet << " " << size;
      const std::string model = kqtest::LzwModelDecode(stream);
      ASSERT_TRUE(Bytes(model.begin(), model.end()) == data) << alphabet << " " << size;
    }
  }
}

TEST_F(LzwDecoderTest, AnySplitGivesTheSameData) {
  constexpr unsigned kSeed = 12;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  Bytes data = kqtest::RepetitiveBytes(&random, 200000, 256, 100);
  data.insert(data.end(), 100000, 'r');  // strings of hundreds of bytes
  const Bytes stream = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
  for (const unsigned largest : {2U, 60U, 20000U}) {
    const kqtest::StreamRun run = kqtest::DriveStream(
        decoder.get(), stream, [&] { return random() % largest; },
        [&] { return random() % (2 * largest); }, [&] { return random() % 4 == 0; });
    ASSERT_EQ(run.error, 0U);
    ASSERT_TRUE(run.output == data) << largest;
  }
}

TEST_F(LzwDecoderTest, StringNotYetInTheTableIsThePreviousAndItsFirstByte) {
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), NineBitCodes({'a', 257, 258}), 100).output,
            Bytes(6, 'a'));
}

TEST_F(LzwDecoderTest, AfterAClearCodeNumbersBeginAnew) {
  // a, b; then cleared: c, and 257 again names what follows c.
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), NineBitCodes({'a', 'b', 256, 'c', 257}), 100).output,
            (Bytes{'a', 'b', 'c', 'c', 'c'}));
}

TEST_F(LzwDecoderTest, FirstCodeMustBeAByte) {
  for (const unsigned code : {256U, 257U, 511U}) {
    const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), NineBitCodes({code, 1}), 100);
    EXPECT_EQ(run.error, 1U);
    EXPECT_TRUE(run.output.empty());
  }
}

TEST_F(LzwDecoderTest, TooLargeCodeIsLoggedAndAnError) {
  testing::internal::CaptureStderr();
  const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), NineBitCodes({'a', 258}), 100);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: too large code value!\n");
  EXPECT_EQ(run.error, 1U);
  EXPECT_EQ(run.output, Bytes(1, 'a'));

  // The first code after a clear code must be a byte too.
  testing::internal::CaptureStderr();
  EXPECT_EQ(kqtest::DriveWhole(decoder.get(), NineBitCodes({'a', 256, 257}), 100).error, 1U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERT: too large code value!\n");
}

TEST_F(LzwDecoderTest, ErrorStaysUntilReset) {
  testing::internal::CaptureStderr();
  const Bytes bad = NineBitCodes({'a', 400});
  const Bytes good = NineBitCodes({'b'});
  std::uint8_t room[8];
  std::uint32_t error = 0;
  decoder->SetOutput(room, sizeof room);
  decoder->SetInput(bad.data(), static_cast<std::uint32_t>(bad.size()));
  EXPECT_FALSE(decoder->Run(&error));
  EXPECT_EQ(error, 1U);
  decoder->SetInput(good.data(), static_cast<std::uint32_t>(good.size()));
  EXPECT_FALSE(decoder->Run(&error));
  EXPECT_EQ(error, 1U);
  testing::internal::GetCapturedStderr();
  const kqtest::StreamRun run = kqtest::DriveWhole(decoder.get(), good, 100);
  EXPECT_EQ(run.error, 0U);
  EXPECT_EQ(run.output, Bytes(1, 'b'));
}

TEST_F(LzwDecoderTest, AnyInputEndsWithoutHarm) {
  constexpr unsigned kSeed = 13;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  testing::internal::CaptureStderr();
  for (unsigned round = 0; round < 40; ++round) {
    const Bytes data = kqtest::RepetitiveBytes(&random, random() % 100000, 3 + round, 9);
    Bytes stream = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
    if (stream.empty()) continue;
    for (unsigned change = 0; change < 3; ++change) {
      const std::size_t place = random() % stream.size();
      stream[place] =
          static_cast<std::uint8_t>(random() % 4 == 0 ? 0 : stream[place] ^ 1 << round % 8);
    }
    kqtest::DriveStream(
        decoder.get(), stream, [&] { return random() % 3000; }, [&] { return random() % 9000; },
        [] { return false; });
  }
  testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace kq
