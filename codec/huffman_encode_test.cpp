#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>
#include <vector>

#include "codec/huffman_code_lengths.h"
#include "codec/huffman_model.h"
#include "codec/huffman_stage.h"
#include "codec/random_numbers.h"
#include "foundation/memory.h"

namespace kq {
namespace {

using Bytes = std::vector<std::uint8_t>;

HeapBuffer& WorkArea() {
  static HeapBuffer area =
      HeapBuffer::AllocateAlignedZeroed(kHuffmanWorkAreaAlignment, kHuffmanWorkAreaBytes);
  return area;
}

struct Encoded {
  bool fits = false;
  Bytes stream;
};

// Encodes the input with a given byte behind it into room of exactly that size, with guard bytes
// behind the room.
Encoded Encode(const Bytes& input, std::optional<std::uint8_t> behind, std::size_t capacity) {
  HeapBuffer& area = WorkArea();
  std::memset(area.data(), 0xA5, kHuffmanInputOffset);  // what another use of the area left there
  std::copy(input.begin(), input.end(), area.data() + kHuffmanInputOffset);
  if (behind) area.data()[kHuffmanInputOffset + input.size()] = *behind;
  Bytes room(capacity + 16, 0xEE);
  std::uint64_t length = 0;
  Encoded result;
  result.fits = HuffmanStageEncode(area.data(), input.size(), room.data(), capacity, &length);
  EXPECT_EQ(Bytes(room.end() - 16, room.end()), Bytes(16, 0xEE)) << "wrote behind its room";
  if (result.fits) result.stream.assign(room.begin(), room.begin() + static_cast<long>(length));
  return result;
}

void ExpectModelStream(const Bytes& input, std::uint8_t behind) {
  const Encoded encoded = Encode(input, behind, 2 * input.size() + 300);
  ASSERT_TRUE(encoded.fits);
  ASSERT_TRUE(encoded.stream == kqtest::HuffmanModelEncode(input, behind))
      << "length " << input.size() << ", behind " << int{behind};
}

TEST(HuffmanStageEncode, OneByteValueAndTheEndTakeOneBitEach) {
  // 'a' is 0x61: group 3, bitmap byte 12, bit 1. Lengths 1 and 1 make 0x21, 0x00. Codes 0 0 0 1.
  EXPECT_EQ(Encode(Bytes(3, 'a'), 0x00, 100).stream,
            (Bytes{0x08, 0x02, 0x00, 0x00, 0x00, 0x21, 0x00, 0x10}));
}

TEST(HuffmanStageEncode, CodesThatEndOnAByteBoundaryAreFollowedByAZeroByte) {
  EXPECT_EQ(Encode(Bytes(7, 'a'), 0x00, 100).stream,
            (Bytes{0x08, 0x02, 0x00, 0x00, 0x00, 0x21, 0x00, 0x01, 0x00}));
  EXPECT_EQ(Encode(Bytes(15, 'a'), 0x00, 100).stream,
            (Bytes{0x08, 0x02, 0x00, 0x00, 0x00, 0x21, 0x00, 0x00, 0x01, 0x00}));
}

TEST(HuffmanStageEncode, OnlyGroupsWithAUsedValueAreStored) {
  // 0x00 is in group 0 and 0xFF in group 7; counts 1, 2 and the end's 1. 0xFF gets one bit, the
  // others two: lengths 2, 1, 2 make 0x22, 0x08; codes 0xFF = 0, 0x00 = 10, end = 11.
  EXPECT_EQ(Encode({0xFF, 0x00, 0xFF}, 0x55, 100).stream,
            (Bytes{0x81, 0x01, 0, 0, 0, 0, 0, 0, 0x80, 0x22, 0x08, 0x4C}));
}

TEST(HuffmanStageEncode, EmptyInputMakesAnEndSymbolWithoutBits) {
  EXPECT_EQ(Encode({}, 0x55, 100).stream, (Bytes{0x00, 0x00, 0x00}));
}

TEST(HuffmanStageEncode, ByteBehindIsCountedForMultiplesOfEightAboveEight) {
  for (std::size_t length = 1; length <= 40; ++length) {
    const Encoded encoded = Encode(Bytes(length, 'a'), 0xFF, 200);
    const bool counted = length == 16 || length == 24 || length == 32 || length == 40;
    EXPECT_EQ(encoded.stream.at(0), counted ? 0x88 : 0x08) << length;
  }
}

TEST(HuffmanStageEncode, ByteBehindAddsToTheCountOfAUsedValue) {
  // Sixteen bytes, eight of each value; the one more decides which value gets the single bit.
  Bytes input(8, 1);
  input.insert(input.end(), 8, 2);
  EXPECT_NE(Encode(input, 1, 100).stream, Encode(input, 2, 100).stream);
  EXPECT_EQ(Encode(input, 1, 100).stream, kqtest::HuffmanModelEncode(input, 1));
  EXPECT_EQ(Encode(input, 2, 100).stream, kqtest::HuffmanModelEncode(input, 2));
}

TEST(HuffmanStageEncode, InputThatFillsTheWorkAreaHasNoByteBehind) {
  Bytes input(kHuffmanInputLimit);
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<std::uint8_t>(i * i >> 9);
  const Encoded encoded = Encode(input, std::nullopt, 2 * input.size());
  ASSERT_TRUE(encoded.fits);
  EXPECT_TRUE(encoded.stream == kqtest::HuffmanModelEncode(input, std::nullopt));
}

TEST(HuffmanStageEncode, StreamsOfAllShortLengthsEqualTheModels) {
  constexpr unsigned kSeed = 20110501;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (std::size_t length = 0; length < 300; ++length) {
    for (const unsigned alphabet : {1U, 2U, 3U, 5U, 16U, 100U, 256U}) {
      Bytes input(length);
      for (std::uint8_t& byte : input) byte = static_cast<std::uint8_t>(random() % alphabet * 7);
      ExpectModelStream(input, static_cast<std::uint8_t>(random()));
    }
  }
}

TEST(HuffmanStageEncode, StreamsOfSkewedInputsEqualTheModels) {
  constexpr unsigned kSeed = 777;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (const double skew : {0.3, 1.0, 2.0, 5.0, 12.0, 40.0}) {
    for (const std::size_t length : {1000U, 4096U, 65536U, 100001U}) {
      Bytes input(length);
      for (std::uint8_t& byte : input) {
        const double uniform = static_cast<double>(random() % 1000000) / 1000000;
        byte = static_cast<std::uint8_t>(255 * std::pow(uniform, skew));
      }
      ExpectModelStream(input, static_cast<std::uint8_t>(random()));
    }
  }
}

TEST(HuffmanStageEncode, EveryValueOnceEqualsTheModel) {
  Bytes input(256);
  for (std::size_t i = 0; i < 256; ++i) input[i] = static_cast<std::uint8_t>(255 - i);
  ExpectModelStream(input, 17);
}

// Counts that grow as Fibonacci's numbers make the deepest trees. 27 of them are about 830,000
// bytes and would give codes of 27 bits.
TEST(HuffmanStageEncode, CountsThatAskForLongerCodesAreHalvedUntilTwentyBitsDo) {
  std::vector<std::uint64_t> counts{1};
  Bytes input;
  std::uint64_t a = 1;
  std::uint64_t b = 1;
  for (unsigned value = 0; value < 27; ++value) {
    input.insert(input.end(), a, static_cast<std::uint8_t>(value * 9));
    counts.push_back(a);
    b += a;
    std::swap(a, b);
  }
  const std::vector<unsigned> lengths = kqtest::HuffmanModelLengths(counts);
  EXPECT_LE(*std::max_element(lengths.begin(), lengths.end()), 20U);
  // The rare values stand among the common ones, so that all loops of the coder meet long codes.
  kqtest::RandomNumbers random(5);
  std::shuffle(input.begin(), input.end(), random);
  input.resize(input.size() / 8 * 8);
  ExpectModelStream(input, 3);
  input.pop_back();
  ExpectModelStream(input, 3);
}

// The coder changes its stride where the longest code of a byte passes 14 and 19 bits.
TEST(HuffmanStageEncode, EveryLongestLengthEqualsTheModel) {
  std::set<unsigned> met;
  for (unsigned depth = 2; depth <= 22; ++depth) {
    // Each value occurs a little more often than two thirds of all before it together.
    std::vector<std::uint64_t> counts;
    Bytes input;
    for (unsigned value = 0; value < depth; ++value) {
      counts.push_back(input.size() * 2 / 3 + 1);
      input.insert(input.end(), counts.back(), static_cast<std::uint8_t>(value));
    }
    kqtest::RandomNumbers random(depth);
    std::shuffle(input.begin(), input.end(), random);
    ExpectModelStream(input, 0);
    counts.push_back(1);
    std::vector<unsigned> lengths = kqtest::HuffmanModelLengths(counts);
    lengths.pop_back();
    met.insert(*std::max_element(lengths.begin(), lengths.end()));
  }
  for (const unsigned length : {13U, 14U, 15U, 18U, 19U, 20U})
    EXPECT_TRUE(met.contains(length)) << length;
}

TEST(HuffmanStageEncode, FailsExactlyWhenTheRoomIsShorterThanTheStream) {
  constexpr unsigned kSeed = 99;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (const std::size_t length : {0U, 1U, 7U, 40U, 333U}) {
    Bytes input(length);
    for (std::uint8_t& byte : input) byte = static_cast<std::uint8_t>(random() % 60);
    const Bytes stream = kqtest::HuffmanModelEncode(input, 200);
    for (std::size_t capacity = 0; capacity < stream.size() + 12; ++capacity) {
      const Encoded encoded = Encode(input, 200, capacity);
      ASSERT_EQ(encoded.fits, capacity >= stream.size()) << length << " in " << capacity;
      if (encoded.fits) {
        ASSERT_EQ(encoded.stream, stream);
      }
    }
  }
}

TEST(HuffmanStageEncode, LeavesTheInputAlone) {
  Bytes input(5000);
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<std::uint8_t>(i * 31 >> 3);
  ASSERT_TRUE(Encode(input, 9, 20000).fits);
  EXPECT_EQ(std::memcmp(WorkArea().data() + kHuffmanInputOffset, input.data(), input.size()), 0);
}

TEST(BuildHuffmanCodeLengths, EqualsTheModelForTiesAndExtremes) {
  constexpr unsigned kSeed = 4242;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  HuffmanTreeSpace space;
  for (unsigned round = 0; round < 500; ++round) {
    const std::uint32_t symbols = 1 + random() % kHuffmanMaxSymbols;
    const std::uint32_t range = 1 + random() % (round % 3 == 0 ? 3 : 5000);
    std::vector<std::uint32_t> counts(symbols);
    for (std::uint32_t& count : counts) count = random() % (range + 1);  // 0 weighs as 1 does
    if (round % 5 == 0) counts[random() % symbols] = kHuffmanInputLimit;
    std::uint8_t lengths[kHuffmanMaxSymbols];
    BuildHuffmanCodeLengths(counts.data(), symbols, &space, lengths);
    const std::vector<std::uint64_t> wide(counts.begin(), counts.end());
    const std::vector<unsigned> expected = kqtest::HuffmanModelLengths(wide);
    ASSERT_TRUE(std::equal(expected.begin(), expected.end(), lengths)) << "round " << round;
  }
}

}  // namespace
}  // namespace kq
