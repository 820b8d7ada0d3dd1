#include "enumeration/file_name_tag.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

struct Case {
  const char* name;
  const char* tag;
  int start;  // -1: no tag
  std::uint32_t length;
  std::uint32_t number;
};

TEST(FindNumberedTag, FindsTheLeftmostTagBeforeAHyphenOrAPoint) {
  const Case cases[] = {
      {"a-i001.twi", "-i", 1, 5, 1},
      {"a-i001-m2.twi", "-i", 1, 5, 1},
      {"a-i001-m2.twi", "-m", 6, 3, 2},
      {"-i7.", "-i", 0, 3, 7},
      {"a-i1-i2.twi", "-i", 1, 3, 1},
      {"a-I7.twi", "-i", 1, 3, 7},
      {"a-i7.twi", "-I", 1, 3, 7},
      {"a-i0.twi", "-i", 1, 3, 0},
      {"a-i12x.twi", "-i", -1, 0, 0},
      {"a-i12x-i3.twi", "-i", 6, 3, 3},
      {"a-i.twi", "-i", -1, 0, 0},
      {"a-i-i4-.twi", "-i", 3, 3, 4},
      {"a-i5", "-i", -1, 0, 0},
      {"a--i5.", "-i", 2, 3, 5},
      {"a-i 5.", "-i", -1, 0, 0},
      {"a-i+5.", "-i", -1, 0, 0},
      {"a-i5_.", "-i", -1, 0, 0},
      {"a-i\xB2.", "-i", -1, 0, 0},
      {"a-", "-i", -1, 0, 0},
      {"-", "-i", -1, 0, 0},
      {"", "-i", -1, 0, 0},
      {"a-build-b001.twf", "-b", 7, 5, 1},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(std::string(one.name) + " " + one.tag);
    NumberedTag found{"x", 77, 77};
    const KQStatus status = FindNumberedTag(one.name, one.tag, &found);
    EXPECT_EQ(status.status, one.start < 0 ? -2 : 0);
    EXPECT_EQ(found.start, one.start < 0 ? nullptr : one.name + one.start);
    EXPECT_EQ(found.length, one.length);
    EXPECT_EQ(found.number, one.number);
  }
}

TEST(FindNumberedTag, KeepsTheLow32BitsOfTheNumber) {
  const auto numberOf = [](const char* name) {
    NumberedTag found;
    EXPECT_EQ(FindNumberedTag(name, "-i", &found).status, 0);
    return found.number;
  };
  EXPECT_EQ(numberOf("-i999999999."), 999999999u);
  EXPECT_EQ(numberOf("-i4294967295."), 0xFFFFFFFFu);
  EXPECT_EQ(numberOf("-i4294967301."), 5u);
  EXPECT_EQ(numberOf("-i00000000000000000000042."), 42u);
  EXPECT_EQ(numberOf("-i99999999999999999999999."), 0xFFFFFFFFu);  // the largest long
}

TEST(FindNumberedTag, ANullNameIsRefused) {
  NumberedTag found{"x", 77, 77};
  const KQStatus status = FindNumberedTag(nullptr, "-i", &found);
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(found.start, nullptr);
  EXPECT_EQ(found.length, 0u);
  EXPECT_EQ(found.number, 0u);
}

}  // namespace
}  // namespace kq
