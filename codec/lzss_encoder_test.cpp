#include "codec/lzss_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "codec/lzss_model.h"
#include "codec/random_numbers.h"
#include "codec/stream_codec_data.h"
#include "codec/stream_codec_drive.h"

namespace kq {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kAmple = 4 << 20;

Bytes Encode(const Bytes& data) {
  static const OwnedStreamCodec encoder = LzssEncoder::Create();
  return kqtest::DriveWhole(encoder.get(), data, kAmple).output;
}

void AppendText(Bytes* data, std::string_view text) {
  data->insert(data->end(), text.begin(), text.end());
}

kqtest::LzssItem LastItem(const Bytes& data) { return kqtest::LzssModelParse(Encode(data)).back(); }

TEST(LzssEncoder, LiteralsStandBehindAFlagByteOfZeros) {
  EXPECT_EQ(Encode({'a', 'b', 'c'}), (Bytes{0x00, 'a', 'b', 'c'}));
}

TEST(LzssEncoder, NinthItemBeginsAGroup) {
  EXPECT_EQ(Encode({1, 2, 3, 4, 5, 6, 7, 8}), (Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(Encode({1, 2, 3, 4, 5, 6, 7, 8, 9}), (Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 9}));
}

TEST(LzssEncoder, RepeatedByteBecomesMatchesOfLengthThreeAtDistanceThree) {
  // Position 0 is never matched, and 1 and 2 are too near: four literals come first.
  EXPECT_EQ(Encode(Bytes(20, 'x')),
            (Bytes{0x0F, 'x', 'x', 'x', 'x', 3, 0, 3, 0, 3, 0, 3, 0, 0x80, 3, 0, 'x'}));
}

TEST(LzssEncoder, DistanceAndLengthShareALittleEndianNumber) {
  Bytes data;
  AppendText(&data, "-abcdefghijABCabcdefghij");
  // "abcdefghij" 13 back: 13 | (10 - 3) << 12 = 0x700D.
  const Bytes stream = Encode(data);
  EXPECT_EQ(Bytes(stream.end() - 2, stream.end()), (Bytes{0x0D, 0x70}));
}

TEST(LzssEncoder, LengthNeverExceedsDistanceNorEighteen) {
  Bytes data;
  AppendText(&data, "-abcdeabcdeabcde");
  std::vector<kqtest::LzssItem> items = kqtest::LzssModelParse(Encode(data));
  EXPECT_EQ(items[6], (kqtest::LzssItem{5, 5, 0}));
  EXPECT_EQ(items[7], (kqtest::LzssItem{5, 5, 0}));

  data.clear();
  AppendText(&data, "-abcdefghijklmnopqrstuvwxyz0123abcdefghijklmnopqrstuvwxyz");
  items = kqtest::LzssModelParse(Encode(data));
  EXPECT_EQ(items[31], (kqtest::LzssItem{30, 18, 0}));
}

TEST(LzssEncoder, FourthLinkIsFollowedAndTheFifthIsNot) {
  Bytes data;
  AppendText(&data, "-abcdefgh");
  for (const char separator : {'1', '2', '3'})
    AppendText(&data, {&separator, 1}), AppendText(&data, "abc");
  Bytes four = data;
  AppendText(&four, "!abcdefgh");
  EXPECT_EQ(LastItem(four).length, 8U);
  Bytes five = data;
  AppendText(&five, "4abc!abcdefgh");
  const std::vector<kqtest::LzssItem> items = kqtest::LzssModelParse(Encode(five));
  EXPECT_EQ(items[items.size() - 2].length, 3U);
}

TEST(LzssEncoder, NearestCandidateOfEightBytesEndsTheSearch) {
  Bytes data;
  AppendText(&data, "-abcdefghijkl1abcdefgh2");
  AppendText(&data, "abcdefghijkl");
  // Twelve bytes could be had further back.
  const std::vector<kqtest::LzssItem> items = kqtest::LzssModelParse(Encode(data));
  EXPECT_NE(std::find(items.begin(), items.end(), kqtest::LzssItem{9, 8, 0}), items.end());
  EXPECT_EQ(std::find(items.begin(), items.end(), kqtest::LzssItem{22, 12, 0}), items.end());
}

TEST(LzssEncoder, MatchesAreFoundUpToADistanceOf4095) {
  for (const std::size_t distance : {4094U, 4095U, 4096U}) {
    Bytes data;
    AppendText(&data, "-WXYZWXYQ");
    data.resize(5 + distance);
    AppendText(&data, "WXYQ");
    EXPECT_EQ(LastItem(data).distance, distance < 4096 ? distance : 0U) << distance;
  }
}

TEST(LzssEncoder, EmptyInputGivesAnEmptyStreamOfOnlyZeros) {
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  std::uint8_t room[32];
  std::uint32_t error = 7;
  encoder->SetOutput(room, sizeof room);
  encoder->SetInput(room, 0);
  EXPECT_FALSE(encoder->Run(&error));
  EXPECT_EQ(error, 0U);
  EXPECT_EQ(encoder->OutputSize(), 0U);
  EXPECT_TRUE(encoder->SawOnlyZeros());
}

TEST(LzssEncoder, TellsWhetherAnyByteWasSet) {
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  for (const std::size_t size : {1U, 2U, 500U, 9000U}) {
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

TEST(LzssEncoder, WritersSequenceOfCallsAnswersAsTold) {
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  for (const std::size_t size : {10U, 8192U, 30000U}) {
    const Bytes data(size, 'x');
    Bytes room(size);
    std::uint32_t error = 0;
    encoder->Reset();
    encoder->SetInput(data.data(), static_cast<std::uint32_t>(size));
    encoder->SetOutput(room.data(), static_cast<std::uint32_t>(size));
    EXPECT_FALSE(encoder->Run(&error));
    encoder->SetInput(data.data() + size, 0);
    EXPECT_TRUE(encoder->Run(&error));
    const std::uint64_t streamSize = encoder->OutputSize();
    EXPECT_FALSE(encoder->Run(&error));
    // Eight items end a group, and the flag byte reserved for the next is not counted.
    EXPECT_EQ(encoder->OutputSize(), streamSize);
    EXPECT_EQ(Bytes(room.data(), room.data() + streamSize), kqtest::LzssModelEncode(data));
  }
}

TEST(LzssEncoder, StreamsEqualTheModels) {
  constexpr unsigned kSeed = 30;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  // Around the window's size and its moves; multiples of 4096 end flush with the window.
  std::vector<std::size_t> sizes{0, 1, 2, 3, 4, 17, 18, 19, 40000};
  for (const std::size_t middle : {8166U, 8192U, 12288U, 16384U}) {
    for (const std::size_t above : {0U, 1U, 2U, 7U, 20U, 25U, 26U, 27U}) {
      sizes.push_back(middle + above);
      sizes.push_back(middle - above);
    }
  }
  for (const std::size_t size : sizes) {
    for (const unsigned alphabet : {1U, 3U, 256U}) {
      const Bytes data = kqtest::RepetitiveBytes(&random, size, alphabet, 3);
      ASSERT_TRUE(Encode(data) == kqtest::LzssModelEncode(data)) << size << " " << alphabet;
    }
  }
}

TEST(LzssEncoder, EverySplitOfShortInputAndOutputGivesTheSameStream) {
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  Bytes data;
  AppendText(&data, "-ababcababcdabcdab");
  const Bytes expected = kqtest::LzssModelEncode(data);
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

TEST(LzssEncoder, SplitsAroundTheWindowsMovesGiveTheSameStream) {
  constexpr unsigned kSeed = 31;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  for (const std::size_t size : {8192U, 8193U, 12288U, 16384U}) {
    const Bytes data = kqtest::RepetitiveBytes(&random, size, 3, 3);
    const Bytes expected = kqtest::LzssModelEncode(data);
    for (const std::size_t tail : {1U, 2U, 17U, 18U, 24U, 25U, 26U, 27U, 40U}) {
      bool head = true;
      const auto next = [&] { return std::exchange(head, false) ? size - tail : tail; };
      const Bytes actual =
          kqtest::DriveStream(
              encoder.get(), data, next, [] { return std::size_t{100000}; }, [] { return false; })
              .output;
      ASSERT_TRUE(actual == expected) << size << " " << tail;
    }
  }
}

TEST(LzssEncoder, RandomSplitsOfLongDataGiveTheSameStream) {
  constexpr unsigned kSeed = 32;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  for (const unsigned alphabet : {2U, 60U}) {
    const Bytes data = kqtest::RepetitiveBytes(&random, 60000, alphabet, 4);
    const Bytes expected = kqtest::LzssModelEncode(data);
    for (const unsigned largest : {2U, 20U, 20000U}) {
      const Bytes actual =
          kqtest::DriveStream(
              encoder.get(), data, [&] { return random() % (4 * largest); },
              [&] { return random() % largest; }, [&] { return random() % 3 == 0; })
              .output;
      ASSERT_TRUE(actual == expected) << alphabet << " " << largest;
    }
  }
}

TEST(LzssEncoder, RoomThatEndsShortOfTheStreamAsksForMoreTwice) {
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  Bytes data;
  AppendText(&data, "-abcabcabcdefghijklmnopqrstuvwxyz");
  const std::size_t size = kqtest::LzssModelEncode(data).size();
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

TEST(LzssEncoder, ResetForgetsAnAbandonedStream) {
  kqtest::RandomNumbers random(33);
  const OwnedStreamCodec encoder = LzssEncoder::Create();
  const Bytes first = kqtest::RepetitiveBytes(&random, 50000, 200, 5);
  // Its end meets old bytes of the window in the search, which must be zero again.
  const Bytes second = kqtest::RepetitiveBytes(&random, 5000, 3, 3);
  Bytes room(20000);
  std::uint32_t error = 0;
  encoder->SetInput(first.data(), static_cast<std::uint32_t>(first.size()));
  encoder->SetOutput(room.data(), static_cast<std::uint32_t>(room.size()));
  EXPECT_TRUE(encoder->Run(&error));
  EXPECT_TRUE(kqtest::DriveWhole(encoder.get(), second, kAmple).output ==
              kqtest::LzssModelEncode(second));
}

}  // namespace
}  // namespace kq
