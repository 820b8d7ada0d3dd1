#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

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

kqtest::HuffmanModelResult Decode(const Bytes& stream) {
  // A copy of exactly the stream's size, so that the sanitizers see a byte read too many.
  const auto exact = std::make_unique<std::uint8_t[]>(stream.size());
  std::copy(stream.begin(), stream.end(), exact.get());
  const std::uint8_t* decoded = nullptr;
  std::uint64_t length = 0;
  kqtest::HuffmanModelResult result;
  result.status = static_cast<int>(
      HuffmanStageDecode(exact.get(), stream.size(), WorkArea().data(), &decoded, &length));
  if (result.status == 0) result.bytes.assign(decoded, decoded + length);
  return result;
}

// Where the decoded bytes stand, counted from the work area's start.
std::size_t DecodedOffset() {
  const Bytes stream{0x00, 0x01, 0x00};
  const std::uint8_t* decoded = nullptr;
  std::uint64_t length = 0;
  EXPECT_EQ(HuffmanStageDecode(stream.data(), stream.size(), WorkArea().data(), &decoded, &length),
            StatusCode::kSuccess);
  return static_cast<std::size_t>(decoded - WorkArea().data());
}

// Joins a stream of used values, the lengths of those values and the end, and code bits.
Bytes MakeStream(const std::vector<unsigned>& values, const std::vector<unsigned>& lengths,
                 const Bytes& codeBytes) {
  Bytes bitmap(32);
  for (const unsigned value : values) {
    bitmap[value / 8] = static_cast<std::uint8_t>(bitmap[value / 8] | 1 << (value % 8));
  }
  Bytes stream(1);
  for (unsigned group = 0; group < 8; ++group) {
    const auto first = bitmap.begin() + 4 * static_cast<long>(group);
    if (first[0] == 0 && first[1] == 0 && first[2] == 0 && first[3] == 0) continue;
    stream[0] = static_cast<std::uint8_t>(stream[0] | 1 << group);
    stream.insert(stream.end(), first, first + 4);
  }
  Bytes packed((5 * lengths.size() + 7) / 8);
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    for (std::size_t bit = 0; bit < 5; ++bit) {
      const std::size_t at = 5 * i + bit;
      packed[at / 8] =
          static_cast<std::uint8_t>(packed[at / 8] | (lengths[i] >> bit & 1) << (at % 8));
    }
  }
  stream.insert(stream.end(), packed.begin(), packed.end());
  stream.insert(stream.end(), codeBytes.begin(), codeBytes.end());
  return stream;
}

void ExpectAsModel(const Bytes& stream) {
  static const std::size_t room = kHuffmanWorkAreaBytes - DecodedOffset();
  const kqtest::HuffmanModelResult expected = kqtest::HuffmanModelDecode(stream, room);
  const kqtest::HuffmanModelResult actual = Decode(stream);
  ASSERT_EQ(actual.status, expected.status);
  if (expected.status == 0) {
    ASSERT_TRUE(actual.bytes == expected.bytes);
  }
}

TEST(HuffmanStageDecode, ReadsAWorkedStream) {
  EXPECT_EQ(Decode({0x08, 0x02, 0x00, 0x00, 0x00, 0x21, 0x00, 0x10}).bytes, Bytes(3, 'a'));
  EXPECT_EQ(Decode({0x81, 0x01, 0, 0, 0, 0, 0, 0, 0x80, 0x22, 0x08, 0x4C}).bytes,
            (Bytes{0xFF, 0x00, 0xFF}));
}

TEST(HuffmanStageDecode, EmptyStreamIsInvalid) { EXPECT_EQ(Decode({}).status, -13); }

TEST(HuffmanStageDecode, EndSymbolAloneGivesAnEmptyResult) {
  const kqtest::HuffmanModelResult result = Decode({0x00, 0x01, 0x00});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
}

TEST(HuffmanStageDecode, ZeroLengthIsInvalidForAnySymbol) {
  for (std::size_t zero = 0; zero < 4; ++zero) {
    std::vector<unsigned> lengths{2, 2, 2, 2};
    EXPECT_EQ(Decode(MakeStream({1, 2, 3}, lengths, {0xC0, 0})).status, 0);
    lengths[zero] = 0;
    EXPECT_EQ(Decode(MakeStream({1, 2, 3}, lengths, {0xC0, 0})).status, -13) << zero;
  }
}

TEST(HuffmanStageDecode, OneByteMustStandBehindTheLengths) {
  // Codes: 1 = 0, end = 1.
  EXPECT_EQ(Decode(MakeStream({1}, {1, 1}, {0x80})).status, 0);
  EXPECT_EQ(Decode(MakeStream({1}, {1, 1}, {})).status, -13);
}

TEST(HuffmanStageDecode, TablesCutAnywhereAreInvalid) {
  Bytes input(256);
  for (std::size_t i = 0; i < 256; ++i) input[i] = static_cast<std::uint8_t>(i);
  const Bytes whole = kqtest::HuffmanModelEncode(input, 0);
  const std::size_t tables = 1 + 32 + (5 * 257 + 7) / 8;
  for (std::size_t length = 0; length <= tables; ++length) {
    EXPECT_EQ(Decode(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))).status, -13);
  }
}

TEST(HuffmanStageDecode, StreamWithoutItsEndSymbolIsInvalid) {
  Bytes input(1000);
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<std::uint8_t>(i % 11 * 23);
  const Bytes whole = kqtest::HuffmanModelEncode(input, 0);
  for (std::size_t length = 100; length + 2 < whole.size(); ++length) {
    EXPECT_EQ(Decode(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))).status, -13);
  }
}

TEST(HuffmanStageDecode, BitsBehindTheStreamsEndAreNoCode) {
  // 1 = 0, 2 = 10, end = 11. Fifteen bits of codes and one bit more, which begins a code of two:
  // the zero that would complete it is not in the stream.
  EXPECT_EQ(Decode(MakeStream({1, 2}, {1, 2, 2}, {0x00, 0x01})).status, -13);
  EXPECT_EQ(Decode(MakeStream({1, 2}, {1, 2, 2}, {0x00, 0x03})).bytes, Bytes(14, 1));
}

TEST(HuffmanStageDecode, BytesBehindTheEndSymbolAreIgnored) {
  EXPECT_EQ(Decode(MakeStream({1}, {1, 1}, {0x20, 0xFF, 0x12, 0x34, 0, 0, 0, 0, 0, 0})).bytes,
            Bytes(2, 1));
}

TEST(HuffmanStageDecode, BitsThatAreNoCodeOfAnIncompleteSetAreInvalid) {
  // 1 = 00, end = 01; 10 and 11 are no codes.
  EXPECT_EQ(Decode(MakeStream({1}, {2, 2}, {0x10, 0x00})).bytes, Bytes(1, 1));
  EXPECT_EQ(Decode(MakeStream({1}, {2, 2}, {0x20, 0x00})).status, -13);
  EXPECT_EQ(Decode(MakeStream({1}, {2, 2}, Bytes(40, 0xFF))).status, -13);
}

TEST(HuffmanStageDecode, ShorterCodesWinInAnOverfullSet) {
  // Three codes of one bit: 0, 1 and 2, of which the last can't be met, nor can the end's 6.
  EXPECT_EQ(Decode(MakeStream({1, 2, 3}, {1, 1, 1, 2}, Bytes(64, 0x5A))).status, -13);
  // The end in the middle: 1 = 0, end = 1; the two codes of 3 bits can't be met.
  EXPECT_EQ(Decode(MakeStream({1, 2, 3}, {1, 3, 3, 1}, {0x08})).bytes, Bytes(4, 1));
}

TEST(HuffmanStageDecode, CodesOfThirtyOneBitsAreFound) {
  // 1 = 0, 2 and the end take the last two values of 31 bits from 1000...0 on.
  Bytes code(16);
  code[0] = 0x80;
  code[3] = 0x00;  // 31 bits: 1 and thirty 0: symbol 2; then a 0: symbol 1
  code[4] = 0x80;  // again 1 and twenty-nine 0 and a 1: the end
  code[7] = 0x02;
  const kqtest::HuffmanModelResult result = Decode(MakeStream({1, 2}, {1, 31, 31}, code));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.bytes, (Bytes{2, 1}));
}

TEST(HuffmanStageDecode, FillsTheWorkAreaToItsEndAndNoFurther) {
  const std::size_t room = kHuffmanWorkAreaBytes - DecodedOffset();
  ASSERT_GE(room, kHuffmanInputLimit);
  // 7 = 0, end = 1: as many zero bits as there is room, then a 1 that ends them.
  Bytes code(room / 8 + 2);
  code[room / 8] = static_cast<std::uint8_t>(0x80 >> (room % 8));
  const kqtest::HuffmanModelResult full = Decode(MakeStream({7}, {1, 1}, code));
  EXPECT_EQ(full.status, 0);
  EXPECT_TRUE(full.bytes == Bytes(room, 7));

  code[room / 8] = static_cast<std::uint8_t>(code[room / 8] >> 1);
  EXPECT_EQ(Decode(MakeStream({7}, {1, 1}, code)).status, -8);
  EXPECT_EQ(Decode(MakeStream({7}, {1, 1}, Bytes(room))).status, -8);
}

TEST(HuffmanStageDecode, EveryStreamOfTheEncoderDecodes) {
  constexpr unsigned kSeed = 31337;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (const std::size_t length : {1U, 2U, 8U, 100U, 5000U, 70000U, 0x1C0000U}) {
    for (const unsigned spread : {1U, 4U, 60U, 256U}) {
      Bytes input(length);
      for (std::uint8_t& byte : input) {
        byte = static_cast<std::uint8_t>(std::min(random() % spread, random() % spread));
      }
      std::memcpy(WorkArea().data() + kHuffmanInputOffset, input.data(), length);
      Bytes stream(length + 400);
      std::uint64_t streamLength = 0;
      ASSERT_TRUE(HuffmanStageEncode(WorkArea().data(), length, stream.data(), stream.size(),
                                     &streamLength));
      stream.resize(streamLength);
      const kqtest::HuffmanModelResult result = Decode(stream);
      ASSERT_EQ(result.status, 0);
      ASSERT_TRUE(result.bytes == input) << length << " " << spread;
    }
  }
}

TEST(HuffmanStageDecode, CorruptedStreamsDecodeAsTheModelDoes) {
  constexpr unsigned kSeed = 1234;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (unsigned round = 0; round < 1500; ++round) {
    Bytes input(random() % 600);
    const unsigned spread = 1 + random() % 256;
    for (std::uint8_t& byte : input) {
      byte = static_cast<std::uint8_t>(std::min(random() % spread, random() % spread));
    }
    Bytes stream = kqtest::HuffmanModelEncode(input, 0);
    for (unsigned change = random() % 4; change > 0; --change) {
      stream[random() % std::min<std::size_t>(stream.size(), round % 2 == 0 ? 200 : 100000)] ^=
          static_cast<std::uint8_t>(1U << random() % 8);
    }
    if (random() % 4 == 0) stream.resize(random() % (stream.size() + 1));
    ExpectAsModel(stream);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

TEST(HuffmanStageDecode, AnyCodeLengthsDecodeAsTheModelDoes) {
  constexpr unsigned kSeed = 5678;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (unsigned round = 0; round < 3000; ++round) {
    std::vector<unsigned> values;
    const unsigned percent = 1 + random() % 100;
    for (unsigned value = 0; value < 256; ++value) {
      if (random() % 100 < percent) values.push_back(value);
    }
    if (round % 2 == 0) values.resize(std::min<std::size_t>(values.size(), random() % 12));
    std::vector<unsigned> lengths(values.size() + 1);
    const unsigned low = 1 + random() % 12;
    const unsigned high = std::min(31U, low + random() % 20);
    for (unsigned& length : lengths) length = low + random() % (high - low + 1);
    Bytes code(1 + random() % 300);
    const unsigned density = random() % 3;  // of ones: few ones meet the codes that exist
    for (std::uint8_t& byte : code) {
      byte = static_cast<std::uint8_t>(random() & (density > 0 ? random() : ~0U) &
                                       (density > 1 ? random() : ~0U));
    }
    ExpectAsModel(MakeStream(values, lengths, code));
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

TEST(HuffmanStageDecode, RandomBytesDecodeAsTheModelDoes) {
  constexpr unsigned kSeed = 91011;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (unsigned round = 0; round < 3000; ++round) {
    Bytes stream(random() % 400);
    for (std::uint8_t& byte : stream) byte = static_cast<std::uint8_t>(random());
    if (!stream.empty() && round % 2 == 0)
      stream[0] = static_cast<std::uint8_t>(1U << random() % 8);
    ExpectAsModel(stream);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

// The streams below are long enough to be decoded at several places at once.

TEST(HuffmanStageDecode, PlacesOfALongStreamThatNeverFallIntoStepDecode) {
  // 255 values of 8 bits leave one value of 9 bits and the end. One of those first shifts all codes
  // by a bit against the bytes, where a decoder that starts at a byte never finds them.
  std::vector<unsigned> values(256);
  for (unsigned value = 0; value < 256; ++value) values[value] = value;
  std::vector<unsigned> lengths(257, 8);
  lengths[255] = 9;
  lengths[256] = 9;
  std::vector<bool> bits(9, true);
  bits[8] = false;  // 1 1111 1110: value 255
  for (unsigned i = 0; i < 60000; ++i) {
    for (unsigned bit = 0; bit < 8; ++bit) bits.push_back(((i * 7 % 255) << bit & 128) != 0);
  }
  bits.insert(bits.end(), 9, true);
  Bytes code(bits.size() / 8 + 1);
  for (std::size_t i = 0; i < bits.size(); ++i) {
    code[i / 8] = static_cast<std::uint8_t>(code[i / 8] | (bits[i] ? 128 : 0) >> (i % 8));
  }
  const kqtest::HuffmanModelResult result = Decode(MakeStream(values, lengths, code));
  ASSERT_EQ(result.status, 0);
  ASSERT_EQ(result.bytes.size(), 60001U);
  EXPECT_EQ(result.bytes[0], 255);
  for (unsigned i = 0; i < 60000; ++i) ASSERT_EQ(result.bytes[i + 1], i * 7 % 255);
}

TEST(HuffmanStageDecode, LongStreamMayBeDenserInOnePlaceThanInAnother) {
  // One bit a byte at first and many later, so that the first part is most of the output.
  kqtest::RandomNumbers random(14);
  Bytes input(700000, 'a');
  for (unsigned i = 0; i < 220000; ++i) input.push_back(static_cast<std::uint8_t>(random()));
  ExpectAsModel(kqtest::HuffmanModelEncode(input, 0));
  std::reverse(input.begin(), input.end());
  ExpectAsModel(kqtest::HuffmanModelEncode(input, 0));
}

TEST(HuffmanStageDecode, EndSymbolInTheMiddleOfALongStreamEndsIt) {
  kqtest::RandomNumbers random(15);
  for (const std::size_t length : {1U, 3000U, 9000U, 17000U, 30000U}) {
    Bytes input(length);
    for (std::uint8_t& byte : input) {
      byte = static_cast<std::uint8_t>(std::min(random() % 100, random() % 100));
    }
    Bytes stream = kqtest::HuffmanModelEncode(input, 0);
    for (unsigned i = 0; i < 30000; ++i) stream.push_back(static_cast<std::uint8_t>(random()));
    const kqtest::HuffmanModelResult result = Decode(stream);
    ASSERT_EQ(result.status, 0);
    ASSERT_TRUE(result.bytes == input) << length;
  }
}

TEST(HuffmanStageDecode, LongStreamsOfAnyCodeDecodeAsTheModelDoes) {
  constexpr unsigned kSeed = 161718;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (unsigned round = 0; round < 60; ++round) {
    const unsigned spread = 2 + random() % 255;
    Bytes input(20000 + random() % 60000);
    for (std::uint8_t& byte : input) {
      const unsigned picked = random() % spread;
      byte = static_cast<std::uint8_t>(round % 3 == 0 ? picked : std::min(picked, random() % 300));
    }
    Bytes stream = kqtest::HuffmanModelEncode(input, 0);
    switch (round % 4) {
      case 0:
        stream.resize(stream.size() - random() % 20);
        break;
      case 1:  // in the code bits
        for (unsigned change = 0; change < 3; ++change) {
          stream[stream.size() - 1 - random() % (stream.size() - 250)] ^= 0x10;
        }
        break;
      case 2:  // in the tables too
        stream[random() % 150] ^= static_cast<std::uint8_t>(1U << random() % 8);
        break;
      default:
        break;
    }
    ExpectAsModel(stream);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

TEST(HuffmanStageDecode, LongStreamsOfIncompleteAndOverfullCodesDecodeAsTheModelDoes) {
  constexpr unsigned kSeed = 192021;
  SCOPED_TRACE(kSeed);
  kqtest::RandomNumbers random(kSeed);
  for (unsigned round = 0; round < 60; ++round) {
    std::vector<unsigned> values(2 + random() % 200);
    for (unsigned i = 0; i < values.size(); ++i) values[i] = i;
    std::vector<unsigned> lengths(values.size() + 1, 20);
    const unsigned low = 1 + random() % 8;
    for (std::size_t i = 0; i < values.size(); ++i) lengths[i] = low + random() % 9;
    Bytes code(17000 + random() % 20000);
    // Mostly codes that exist: those begin with few ones.
    for (std::uint8_t& byte : code) {
      byte =
          static_cast<std::uint8_t>(random() % 2000 == 0 ? random() : random() & random() & 0x77);
    }
    ExpectAsModel(MakeStream(values, lengths, code));
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

}  // namespace
}  // namespace kq
