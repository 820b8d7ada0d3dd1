#include "crypto/crc32.h"

#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

using kqtest::Bytes;

// Bit by bit, from the polynomial.
std::uint32_t MsbFirstModel(std::uint32_t accumulator, std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool feedback = (accumulator >> 31 & 1) != (byte >> bit & 1U);
      accumulator = accumulator << 1 ^ (feedback ? 0x04C11DB7U : 0U);
    }
  }
  return accumulator;
}

std::uint32_t ReflectedModel(std::uint32_t accumulator, std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) {
      const bool feedback = (accumulator & 1) != (byte >> bit & 1U);
      accumulator = accumulator >> 1 ^ (feedback ? 0xEDB88320U : 0U);
    }
  }
  return accumulator;
}

std::uint32_t MsbFirst(std::span<const std::uint8_t> bytes) {
  std::uint32_t accumulator = 0x12345678;
  CrcMsbFirst(bytes.data(), bytes.data() + bytes.size(), &accumulator);
  return accumulator;
}

TEST(CrcMsbFirst, ComplementIsTheBzip2CatalogueValue) {
  EXPECT_EQ(~MsbFirst(kqtest::FromText("123456789")), 0xFC891918u);
}

TEST(CrcMsbFirst, EmptyRangeGivesTheStartValue) {
  const std::uint8_t byte = 0;
  std::uint32_t accumulator = 0;
  CrcMsbFirst(&byte, &byte, &accumulator);
  EXPECT_EQ(accumulator, 0xFFFFFFFFu);
}

TEST(CrcMsbFirst, StartsAfreshWhateverTheOutValueHeld) {
  const Bytes bytes = kqtest::FromText("123456789");
  for (const std::uint32_t held : {0u, 1u, 0xFFFFFFFFu, 0xFC891918u}) {
    std::uint32_t accumulator = held;
    CrcMsbFirst(bytes.data(), bytes.data() + bytes.size(), &accumulator);
    EXPECT_EQ(~accumulator, 0xFC891918u);
  }
}

TEST(CrcMsbFirst, EveryLengthAndAlignmentMatchesTheModel) {
  kqtest::Random random;
  const Bytes bytes = random.MakeBytes(300);
  for (std::size_t start = 0; start < 16; ++start) {
    for (std::size_t length = 0; length < 100; ++length) {
      const std::span<const std::uint8_t> range(bytes.data() + start, length);
      ASSERT_EQ(MsbFirst(range), MsbFirstModel(0xFFFFFFFF, range)) << start << " " << length;
    }
  }
}

TEST(CrcMsbFirst, LargestHeaderMatchesTheModel) {
  kqtest::Random random;
  const Bytes bytes = random.MakeBytes(1 << 20);
  EXPECT_EQ(MsbFirst(bytes), MsbFirstModel(0xFFFFFFFF, bytes));
}

TEST(CrcMsbFirstContinue, PiecesGiveTheCrcOfTheWhole) {
  kqtest::Random random;
  const Bytes bytes = random.MakeBytes(1000);
  for (std::size_t cut = 0; cut <= bytes.size(); cut += 7) {
    const std::span whole(bytes);
    const std::uint32_t first = CrcMsbFirstContinue(kCrcStart, whole.first(cut));
    ASSERT_EQ(CrcMsbFirstContinue(first, whole.subspan(cut)), MsbFirst(bytes)) << cut;
  }
}

TEST(CrcReflectedContinue, ComplementIsTheIeeeCatalogueValue) {
  EXPECT_EQ(~CrcReflectedContinue(kCrcStart, kqtest::FromText("123456789")), 0xCBF43926u);
}

TEST(CrcReflectedContinue, EmptyRangeLeavesTheAccumulator) {
  EXPECT_EQ(CrcReflectedContinue(0x87654321, {}), 0x87654321u);
}

TEST(CrcReflectedContinue, PiecesMatchTheModelOfTheWhole) {
  kqtest::Random random;
  const Bytes bytes = random.MakeBytes(500);
  const std::uint32_t expected = ReflectedModel(0xFFFFFFFF, bytes);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    const std::span whole(bytes);
    const std::uint32_t first = CrcReflectedContinue(kCrcStart, whole.first(cut));
    ASSERT_EQ(CrcReflectedContinue(first, whole.subspan(cut)), expected) << cut;
  }
}

}  // namespace
}  // namespace kq
