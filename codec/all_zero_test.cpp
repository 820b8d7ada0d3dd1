#include "codec/all_zero.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/test_seed.h"

namespace kq {
namespace {

using ZeroTest = bool (*)(const void*, std::uint64_t);

struct Way {
  const char* name;
  ZeroTest test;
};

std::vector<Way> Ways() {
  std::vector<Way> ways = {{"chosen", IsAllZero}, {"SSE2", IsAllZeroSse2}};
  if (__builtin_cpu_supports("avx2")) ways.push_back({"AVX2", IsAllZeroAvx2});
  return ways;
}

bool PlainIsAllZero(const std::vector<std::uint8_t>& bytes) {
  for (const std::uint8_t byte : bytes) {
    if (byte != 0) return false;
  }
  return true;
}

TEST(IsAllZero, NothingIsAllZero) {
  for (const Way& way : Ways()) {
    EXPECT_TRUE(way.test(nullptr, 0)) << way.name;
    const std::uint8_t one = 1;
    EXPECT_TRUE(way.test(&one, 0)) << way.name;
  }
}

TEST(IsAllZero, FindsEachBitOfEachByteInEachLength) {
  for (const Way& way : Ways()) {
    for (std::size_t length = 0; length <= 300; ++length) {
      // Exactly as long, so that a sanitizer sees a byte read too many.
      const auto bytes = std::make_unique<std::uint8_t[]>(length);
      ASSERT_TRUE(way.test(bytes.get(), length)) << way.name << " " << length;
      for (std::size_t at = 0; at < length; ++at) {
        for (unsigned bit = 0; bit < 8; ++bit) {
          bytes[at] = static_cast<std::uint8_t>(1u << bit);
          ASSERT_FALSE(way.test(bytes.get(), length)) << way.name << " " << length << " " << at;
        }
        bytes[at] = 0;
      }
    }
  }
}

TEST(IsAllZero, FindsAByteInEachPlaceOfLongData) {
  constexpr std::size_t kLength = 4096 + 300;
  for (const Way& way : Ways()) {
    std::vector<std::uint8_t> bytes(kLength);
    ASSERT_TRUE(way.test(bytes.data(), kLength)) << way.name;
    for (std::size_t at = 0; at < kLength; ++at) {
      bytes[at] = 0x80;
      ASSERT_FALSE(way.test(bytes.data(), kLength)) << way.name << " " << at;
      bytes[at] = 0;
    }
  }
}

TEST(IsAllZero, WhatLiesAroundTheDataDoesNotCount) {
  for (const Way& way : Ways()) {
    for (std::size_t shift = 1; shift <= 64; ++shift) {
      for (const std::size_t length : {1u, 7u, 15u, 16u, 33u, 127u, 128u, 129u, 256u, 257u, 700u}) {
        std::vector<std::uint8_t> bytes(shift + length + 300, 0xFF);
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(shift), length, std::uint8_t{0});
        ASSERT_TRUE(way.test(bytes.data() + shift, length)) << way.name << " " << length;
        ASSERT_FALSE(way.test(bytes.data() + shift - 1, length + 1)) << way.name << " " << length;
        ASSERT_FALSE(way.test(bytes.data() + shift, length + 1)) << way.name << " " << length;
      }
    }
  }
}

TEST(IsAllZero, FindsAByteInEachPlaceWhereverTheDataBegins) {
  constexpr std::size_t kLine = 64;
  for (const Way& way : Ways()) {
    std::vector<std::uint8_t> bytes(1024 + kLine);
    for (std::size_t shift = 0; shift < kLine; ++shift) {
      for (const std::size_t length : {256u, 257u, 319u, 320u, 511u, 512u, 513u, 800u, 1024u}) {
        for (std::size_t at = shift; at < shift + length; ++at) {
          bytes[at] = 1;
          ASSERT_FALSE(way.test(bytes.data() + shift, length))
              << way.name << " " << shift << " " << length << " " << at;
          bytes[at] = 0;
        }
        ASSERT_TRUE(way.test(bytes.data() + shift, length)) << way.name;
      }
    }
  }
}

TEST(IsAllZero, AnswersAsThePlainTestOnSparseData) {
  const std::uint32_t seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (const Way& way : Ways()) {
    for (int round = 0; round < 2000; ++round) {
      std::vector<std::uint8_t> bytes(random() % 3000);
      for (auto i = random() % 3; i > 0 && !bytes.empty(); --i) {
        bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random() % 2);
      }
      ASSERT_EQ(way.test(bytes.data(), bytes.size()), PlainIsAllZero(bytes)) << way.name;
    }
  }
}

}  // namespace
}  // namespace kq
