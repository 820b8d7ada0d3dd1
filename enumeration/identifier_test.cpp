#include "enumeration/identifier.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

TEST(IdentifierText, FirstThreeGroupsAreByteReversed) {
  Identifier identifier;
  for (std::size_t i = 0; i < identifier.size(); ++i) {
    identifier[i] = static_cast<std::uint8_t>(i * 0x11);
  }
  EXPECT_EQ(IdentifierText(identifier).view(), "{33221100-5544-7766-8899-AABBCCDDEEFF}");
}

TEST(IdentifierText, EachByteHasTwoUpperCaseDigits) {
  const Identifier identifier = {0x0a, 0x0b, 0x0c, 0x0d, 0xe0, 0xf0, 0x01, 0x10,
                                 0x00, 0x09, 0x90, 0xab, 0xba, 0x5f, 0xf5, 0x7e};
  EXPECT_EQ(IdentifierText(identifier).view(), "{0D0C0B0A-F0E0-1001-0009-90ABBA5FF57E}");
}

TEST(IdentifierText, OfTheAllZeroIdentifier) {
  EXPECT_EQ(IdentifierText(Identifier{}).view(), "{00000000-0000-0000-0000-000000000000}");
}

TEST(IdentifierText, IsOrderedAsText) {
  Identifier small{};
  Identifier big{};
  small[0] = 0xFF;  // the fourth byte of the text
  big[3] = 0x0A;    // the first
  EXPECT_TRUE(IdentifierText(small) < IdentifierText(big));
  EXPECT_FALSE(IdentifierText(big) < IdentifierText(small));
  EXPECT_FALSE(IdentifierText(big) < IdentifierText(big));
  big = small;
  big[15] = 1;
  EXPECT_TRUE(IdentifierText(small) < IdentifierText(big));
}

TEST(Identifier, IsZeroOnlyWithoutAnyBit) {
  Identifier identifier{};
  EXPECT_TRUE(IsZero(identifier));
  for (std::uint8_t& byte : identifier) {
    byte = 0x80;
    EXPECT_FALSE(IsZero(identifier));
    byte = 0;
  }
}

}  // namespace
}  // namespace kq
