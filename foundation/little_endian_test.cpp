#include "foundation/little_endian.h"

#include <gtest/gtest.h>

#include <array>

namespace {

TEST(LittleEndian, LoadsFromAnyAddress) {
  const std::array<std::uint8_t, 9> bytes = {0xAA, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xF8};
  EXPECT_EQ(kq::LoadU16(bytes.data() + 1), 0x0201);
  EXPECT_EQ(kq::LoadU32(bytes.data() + 1), 0x04030201U);
  EXPECT_EQ(kq::LoadU64(bytes.data() + 1), 0xF807060504030201U);
  EXPECT_EQ(kq::LoadLittleEndian<std::int16_t>(bytes.data() + 7), -2041);
}

TEST(LittleEndian, StoresAtAnyAddressAndNothingBeside) {
  std::array<std::uint8_t, 10> bytes{};
  kq::StoreU16(bytes.data() + 1, 0xFF01);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 10>{0, 0x01, 0xFF}));
  kq::StoreU32(bytes.data() + 1, 0x04030201);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 10>{0, 1, 2, 3, 4}));
  kq::StoreU64(bytes.data() + 1, 0x0807060504030201);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 10>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

}  // namespace
