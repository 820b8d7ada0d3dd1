#include "codec/lzw_encoder.h"

#include <gtest/gtest.h>

#include <vector>

#include "codec/lzw_model.h"
#include "codec/random_numbers.h"
#include "codec/stream_codec_data.h"
#include "codec/stream_codec_drive.h"

namespace kq {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kAmple = 4 << 20;

// Fills the table of codes, holds its ratio for a while, and then loses it.
Bytes DataThatClearsTheTable(unsigned seed) {
  kqtest::RandomNumbers random(seed);
  Bytes data = kqtest::RepetitiveBytes(&random, 300000, 40, 4);
  for (unsigned i = 0; i < 60000; ++i) data.push_back(static_cast<std::uint8_t>(random()));
  const Bytes more = kqtest::RepetitiveBytes(&random, 300000, 5, 6);
  data.insert(data.end(), more.begin(), more.end());
  return data;
}

TEST(LzwEncoder, PacksCodesFromTheLeastSignificantBit) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  // Codes 97, 257 ("aa") and 97 of 9 bits: 97 + (257 << 9) + (97 << 18) = 0x01860261.
  EXPECT_EQ(kqtest::DriveWhole(encoder.get(), Bytes(4, 'a'), kAmple).output,
            (Bytes{0x61, 0x02, 0x86, 0x01}));
}

TEST(LzwEncoder, WritersSequenceOfCallsAnswersAsTold) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const Bytes data(1000, 'x');
  Bytes room(1000);
  std::uint32_t error = 7;
  encoder->Reset();
  encoder->SetInput(data.data(), 1000);
  encoder->SetOutput(room.data(), 1000);
  EXPECT_FALSE(encoder->Run(&error));
  EXPECT_EQ(error, 0U);
  encoder->SetInput(data.data(), 0);
  EXPECT_TRUE(encoder->Run(&error));
  const std::uint64_t size = encoder->OutputSize();
  EXPECT_FALSE(encoder->Run(&error));
  EXPECT_EQ(encoder->OutputSize(), size);
  EXPECT_EQ(Bytes(room.data(), room.data() + size), kqtest::LzwModelEncode(data).bytes);
}

TEST(LzwEncoder, EmptyInputGivesAnEmptyStreamOfOnlyZeros) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  std::uint8_t room[8];
  std::uint32_t error = 0;
  encoder->SetOutput(room, sizeof room);
  encoder->SetInput(room, 0);
  EXPECT_FALSE(encoder->Run(&error));
  EXPECT_EQ(encoder->OutputSize(), 0U);
  EXPECT_TRUE(encoder->SawOnlyZeros());
}

TEST(LzwEncoder, TellsWhetherAnyByteWasSet) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  for (const std::size_t size : {1U, 2U, 500U}) {
    const kqtest::StreamRun zeros = kqtest::DriveWhole(encoder.get(), Bytes(size), kAmple);
    EXPECT_TRUE(zeros.onlyZeros);
    EXPECT_FALSE(zeros.output.empty());
    for (const std::size_t place : {std::size_t{0}, size / 2, size - 1}) {
      Bytes data(size);
      data[place] = 0x10;
      EXPECT_FALSE(kqtest::DriveWhole(encoder.get(), data, kAmple).onlyZeros);
    }
  }
}

TEST(LzwEncoder, EqualsTheModelWhileCodesGrow) {
  constexpr unsigned kSeed = 20;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  for (const unsigned alphabet : {1U, 2U, 20U, 256U}) {
    for (const std::size_t size : {1U, 2U, 3U, 255U, 256U, 257U, 258U, 1000U, 20000U}) {
      const Bytes data = kqtest::RepetitiveBytes(&random, size, alphabet, 5);
      const kqtest::LzwModelStream expected = kqtest::LzwModelEncode(data);
      const Bytes actual = kqtest::DriveWhole(encoder.get(), data, kAmple).output;
      ASSERT_TRUE(actual == expected.bytes) << alphabet << " " << size;
    }
  }
  Bytes data(150000);
  for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(random() % 100);
  const kqtest::LzwModelStream expected = kqtest::LzwModelEncode(data);
  EXPECT_EQ(expected.widest, 16U);
  EXPECT_TRUE(kqtest::DriveWhole(encoder.get(), data, kAmple).output == expected.bytes);
}

TEST(LzwEncoder, ClearsAFullTableOnlyWhenTheRatioGetsWorse) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const Bytes data = DataThatClearsTheTable(3);
  const kqtest::LzwModelStream expected = kqtest::LzwModelEncode(data);
  EXPECT_GE(expected.clears, 1U);
  EXPECT_TRUE(kqtest::DriveWhole(encoder.get(), data, kAmple).output == expected.bytes);

  // Cut where the table is just full and followed by a run whose strings are in it, the ratio only
  // improves, and the table stays.
  kqtest::RandomNumbers random(4);
  Bytes better(3000, 'x');
  const Bytes filling = kqtest::RepetitiveBytes(&random, 300000, 40, 4);
  better.insert(better.end(), filling.begin(), filling.end());
  const std::size_t fullAt = kqtest::LzwModelEncode(better).fullAt;
  ASSERT_GT(fullAt, 3000U);
  better.resize(fullAt);
  better.insert(better.end(), 300000, 'x');
  const kqtest::LzwModelStream kept = kqtest::LzwModelEncode(better);
  EXPECT_EQ(kept.clears, 0U);
  EXPECT_TRUE(kqtest::DriveWhole(encoder.get(), better, kAmple).output == kept.bytes);
}

TEST(LzwEncoder, IncompressibleDataEqualsTheModelThroughManyClears) {
  kqtest::RandomNumbers random(5);
  Bytes data(400000);
  for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(random());
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const kqtest::LzwModelStream expected = kqtest::LzwModelEncode(data);
  EXPECT_GE(expected.clears, 3U);
  EXPECT_TRUE(kqtest::DriveWhole(encoder.get(), data, kAmple).output == expected.bytes);
}

TEST(LzwEncoder, EverySplitOfShortInputAndOutputGivesTheSameStream) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const Bytes data{1, 1, 1, 1, 2, 1, 1, 2, 1, 1, 1, 0, 0};
  const Bytes expected = kqtest::LzwModelEncode(data).bytes;
  for (std::size_t first = 1; first <= data.size(); ++first) {
    for (std::size_t second = 1; second <= data.size(); ++second) {
      for (std::size_t room = 1; room <= expected.size() + 1; ++room) {
        std::size_t pieces = 0;
        const Bytes actual =
            kqtest::DriveStream(
                encoder.get(), data, [&] { return pieces++ == 0 ? first : second; },
                [=] { return room; }, [] { return false; })
                .output;
        ASSERT_EQ(actual, expected) << first << " " << second << " " << room;
      }
    }
  }
}

TEST(LzwEncoder, RandomSplitsOfLongDataGiveTheSameStream) {
  constexpr unsigned kSeed = 6;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const Bytes data = DataThatClearsTheTable(7);
  const Bytes expected = kqtest::LzwModelEncode(data).bytes;
  for (const unsigned largest : {2U, 50U, 30000U}) {
    const Bytes actual = kqtest::DriveStream(
                             encoder.get(), data, [&] { return random() % (4 * largest); },
                             [&] { return random() % largest; }, [&] { return random() % 3 == 0; })
                             .output;
    ASSERT_TRUE(actual == expected) << largest;
  }
}

TEST(LzwEncoder, RoomThatEndsShortOfTheStreamAsksForMoreTwice) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const Bytes data{5, 6, 7, 8, 9, 10, 11};
  const std::size_t size = kqtest::LzwModelEncode(data).bytes.size();
  for (std::size_t capacity = 0; capacity <= size; ++capacity) {
    Bytes room(capacity + 1, 0xEE);
    std::uint32_t error = 0;
    encoder->Reset();
    encoder->SetInput(data.data(), static_cast<std::uint32_t>(data.size()));
    encoder->SetOutput(room.data(), static_cast<std::uint32_t>(capacity));
    bool fits = !encoder->Run(&error);
    if (fits) {
      encoder->SetInput(data.data(), 0);
      fits = !(encoder->Run(&error) && encoder->Run(&error));
    }
    EXPECT_EQ(fits, capacity == size);
    EXPECT_EQ(room.back(), 0xEE);
  }
}

TEST(LzwEncoder, ResetForgetsAnAbandonedStream) {
  const OwnedStreamCodec encoder = LzwEncoder::Create();
  const Bytes first = DataThatClearsTheTable(8);
  Bytes room(1000);
  std::uint32_t error = 0;
  encoder->SetInput(first.data(), static_cast<std::uint32_t>(first.size()));
  encoder->SetOutput(room.data(), 1000);
  EXPECT_TRUE(encoder->Run(&error));
  const Bytes second(300, 9);
  EXPECT_EQ(kqtest::DriveWhole(encoder.get(), second, kAmple).output,
            kqtest::LzwModelEncode(second).bytes);
}

}  // namespace
}  // namespace kq
