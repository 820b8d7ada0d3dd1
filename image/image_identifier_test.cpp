#include "image/image_identifier.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>

namespace {

using Identifier = std::array<std::uint8_t, kq::kIdentifierBytes>;

TEST(SwapIdentifierOrder, ReversesTheFirstThreeGroupsAlone) {
  Identifier id = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  kq::SwapIdentifierOrder(id.data());
  EXPECT_EQ(id, (Identifier{3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15}));
}

// A UUID's version stands in the high digit of its byte 6, which the mixed order moves to byte 7;
// the variant stays in byte 8.
TEST(GenerateIdentifier, IsAUuidInTheMixedOrder) {
  std::set<std::uint8_t> lowerBytes;
  for (int i = 0; i < 64; ++i) {
    Identifier id{};
    kq::GenerateIdentifier(id.data());
    ASSERT_EQ(id[7] >> 4, 4);
    ASSERT_EQ(id[8] >> 6, 2);
    lowerBytes.insert(id[6]);
  }
  EXPECT_GT(lowerBytes.size(), 1u);
}

TEST(GenerateIdentifier, NeverGivesTheSameTwice) {
  std::set<Identifier> seen;
  for (int i = 0; i < 1000; ++i) {
    Identifier id{};
    kq::GenerateIdentifier(id.data());
    EXPECT_TRUE(seen.insert(id).second);
  }
}

}  // namespace
