#include "crypto/text_conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace kq {
namespace {

using Units = std::vector<std::uint16_t>;

const std::uint8_t* AsBytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

std::uint32_t CountOf(const std::string& text) {
  // An exact copy, so that the sanitizer sees a look behind its end.
  const std::vector<std::uint8_t> copy(AsBytes(text), AsBytes(text) + text.size());
  return Utf8ToUtf16Count(copy.data(), static_cast<std::uint32_t>(copy.size()), nullptr, 0);
}

void ExpectRefusedWhenCounted(const std::string& text) {
  errno = 0;
  EXPECT_EQ(CountOf(text), 0u) << testing::PrintToString(text);
  EXPECT_EQ(errno, EILSEQ) << testing::PrintToString(text);
}

void ExpectRefusedWhenConverted(const std::string& text, std::uint32_t count) {
  EXPECT_EQ(CountOf(text), count) << testing::PrintToString(text);
  Units out(8);
  errno = 0;
  EXPECT_EQ(Utf8ToUtf16Count(AsBytes(text), static_cast<std::uint32_t>(text.size()), out.data(), 8),
            0u);
  EXPECT_EQ(errno, EILSEQ) << testing::PrintToString(text);
  EXPECT_FALSE(Utf8ToUtf16(text.data(), static_cast<std::uint32_t>(text.size())));
}

void ExpectUnits(const std::string& text, const Units& expected) {
  EXPECT_EQ(CountOf(text), expected.size()) << testing::PrintToString(text);
  Units out(expected.size());
  EXPECT_EQ(Utf8ToUtf16Count(AsBytes(text), static_cast<std::uint32_t>(text.size()), out.data(),
                             static_cast<std::uint32_t>(out.size())),
            expected.size())
      << testing::PrintToString(text);
  EXPECT_EQ(out, expected) << testing::PrintToString(text);
}

std::string ThreeBytes(std::uint32_t value) {
  return {static_cast<char>(0xE0 | value >> 12), static_cast<char>(0x80 | (value >> 6 & 0x3F)),
          static_cast<char>(0x80 | (value & 0x3F))};
}

std::string FourBytes(std::uint32_t value) {
  return {static_cast<char>(0xF0 | value >> 18), static_cast<char>(0x80 | (value >> 12 & 0x3F)),
          static_cast<char>(0x80 | (value >> 6 & 0x3F)), static_cast<char>(0x80 | (value & 0x3F))};
}

TEST(Utf8ToUtf16Count, EmptyTextIsZeroWithErrnoZero) {
  errno = EILSEQ;
  EXPECT_EQ(Utf8ToUtf16Count(AsBytes("x"), 0, nullptr, 0), 0u);
  EXPECT_EQ(errno, 0);

  std::uint16_t unit = 7;
  errno = EILSEQ;
  EXPECT_EQ(Utf8ToUtf16Count(nullptr, 0, &unit, 1), 0u);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(unit, 7);
}

TEST(Utf8ToUtf16Count, OneByteSequencesAreOneUnit) {
  ExpectUnits(std::string("\0", 1), {0});
  ExpectUnits("aZ~\x7F", {'a', 'Z', '~', 0x7F});
}

TEST(Utf8ToUtf16Count, TwoByteSequencesAreOneUnit) {
  ExpectUnits("\xC2\x80", {0x80});
  ExpectUnits("\xC3\xA9", {0xE9});
  ExpectUnits("\xDF\xBF", {0x7FF});
}

TEST(Utf8ToUtf16Count, ThreeByteSequencesAreOneUnit) {
  ExpectUnits("\xE0\xA0\x80", {0x800});
  ExpectUnits("\xE2\x82\xAC", {0x20AC});
  ExpectUnits("\xED\x9F\xBF", {0xD7FF});
  ExpectUnits("\xEE\x80\x80", {0xE000});
  ExpectUnits("\xEF\xBF\xBF", {0xFFFF});
}

TEST(Utf8ToUtf16Count, FourByteSequencesAreASurrogatePairHighFirst) {
  ExpectUnits("\xF0\x90\x80\x80", {0xD800, 0xDC00});
  ExpectUnits("\xF0\x9F\x94\x91", {0xD83D, 0xDD11});
  ExpectUnits("\xF0\xA0\x80\x80", {0xD840, 0xDC00});  // bit 5 alone suffices
  ExpectUnits("\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF});
}

TEST(Utf8ToUtf16Count, MixedTextKeepsItsOrder) {
  ExpectUnits("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\x91z", {'a', 0xE9, 0x20AC, 0xD83D, 0xDD11, 'z'});
}

TEST(Utf8ToUtf16Count, StrayContinuationAndLeadsFromF8AreRefused) {
  for (int lead = 0x80; lead <= 0xBF; ++lead) {
    ExpectRefusedWhenCounted(std::string(1, static_cast<char>(lead)) + "\x80\x80\x80");
  }
  for (int lead = 0xF8; lead <= 0xFF; ++lead) {
    ExpectRefusedWhenCounted(std::string(1, static_cast<char>(lead)) + "\x90\x80\x80\x80\x80");
  }
}

TEST(Utf8ToUtf16Count, OverlongSequencesAreRefused) {
  ExpectRefusedWhenCounted("\xC0\x80");
  ExpectRefusedWhenCounted("\xC1\xBF");
  ExpectRefusedWhenCounted("\xE0\x80\x80");
  ExpectRefusedWhenCounted("\xE0\x9F\xBF");
  ExpectRefusedWhenCounted("\xF0\x80\x80\x80");
  ExpectRefusedWhenCounted("\xF0\x8F\xBF\xBF");
}

TEST(Utf8ToUtf16Count, AShortageOfBytesIsRefused) {
  for (const std::string whole : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x94\x91"}) {
    for (std::size_t length = 1; length < whole.size(); ++length) {
      ExpectRefusedWhenCounted(whole.substr(0, length));
      ExpectRefusedWhenCounted("ok" + whole.substr(0, length));
    }
  }
}

TEST(Utf8ToUtf16Count, EachFollowingByteMustBeAContinuation) {
  for (const std::string whole :
       {"\xC3\xA9", "\xE0\xA0\x80", "\xE2\x82\xAC", "\xF0\x9F\x94\x91", "\xF1\x80\x80\x80"}) {
    for (std::size_t at = 1; at < whole.size(); ++at) {
      for (const char wrong : {'\x00', '\x20', '\x30', '\x7F', '\xC0', '\xE0', '\xFF'}) {
        std::string text = whole;
        text[at] = wrong;
        ExpectRefusedWhenCounted(text);
      }
    }
  }
}

TEST(Utf8ToUtf16Count, ExactlySevenSurrogateValuesAreRefusedAndOnlyByTheConversion) {
  const std::vector<std::uint32_t> refused = {0xD800, 0xDB7F, 0xDB80, 0xDBFF,
                                              0xDC00, 0xDF80, 0xDFFF};
  for (std::uint32_t value = 0xD7F0; value < 0xE010; ++value) {
    const std::string text = ThreeBytes(value);
    if (std::find(refused.begin(), refused.end(), value) != refused.end()) {
      ExpectRefusedWhenConverted(text, 1);
    } else {
      ExpectUnits(text, {static_cast<std::uint16_t>(value)});
    }
  }
}

TEST(Utf8ToUtf16Count, ValuesAbove10FFFFAreRefusedOnlyByTheConversion) {
  for (const std::uint32_t value : {0x110000u, 0x13FFFFu, 0x140000u, 0x1FFFFFu}) {
    ExpectRefusedWhenConverted(FourBytes(value), 2);
  }
  ExpectUnits(FourBytes(0x10FFFF), {0xDBFF, 0xDFFF});
}

TEST(Utf8ToUtf16Count, TooSmallACapacityIsE2BigAndWritesNothing) {
  const std::string text = "a\xF0\x9F\x94\x91";  // three units
  for (std::uint32_t capacity = 0; capacity < 3; ++capacity) {
    Units out(3, 0x5555);
    errno = 0;
    EXPECT_EQ(Utf8ToUtf16Count(AsBytes(text), 5, out.data(), capacity), 0u);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(out, Units(3, 0x5555));
  }
  Units out(3);
  EXPECT_EQ(Utf8ToUtf16Count(AsBytes(text), 5, out.data(), 3), 3u);
}

TEST(Utf8ToUtf16Count, ABadSequenceComesBeforeTheCapacity) {
  Units out(1);
  errno = 0;
  EXPECT_EQ(Utf8ToUtf16Count(AsBytes("abc\xFF"), 4, out.data(), 1), 0u);
  EXPECT_EQ(errno, EILSEQ);
}

TEST(Utf8ToUtf16Count, TheCapacityComesBeforeTheConversion) {
  const std::string text = ThreeBytes(0xD800) + "b";
  Units out(1);
  errno = 0;
  EXPECT_EQ(Utf8ToUtf16Count(AsBytes(text), 4, out.data(), 1), 0u);
  EXPECT_EQ(errno, E2BIG);
}

TEST(Utf8ToUtf16, ConvertsAndAddsANul) {
  const SecretBuffer converted = Utf8ToUtf16("\xE2\x82\xAC!", 4);
  ASSERT_TRUE(converted);
  const std::vector<std::uint8_t> expected = {0xAC, 0x20, '!', 0, 0, 0};
  EXPECT_EQ(std::vector<std::uint8_t>(converted.data(), converted.data() + converted.size()),
            expected);
}

TEST(Utf8ToUtf16, EmptyTextIsOneNul) {
  const SecretBuffer converted = Utf8ToUtf16("", 0);
  ASSERT_TRUE(converted);
  ASSERT_EQ(converted.size(), 2u);
  EXPECT_EQ(converted.data()[0], 0);
  EXPECT_EQ(converted.data()[1], 0);
}

TEST(Utf8ToUtf16, TakesTheLengthAndNotTheNul) {
  const SecretBuffer converted = Utf8ToUtf16("ab", 1);
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted.size(), 4u);
}

TEST(Utf8ToUtf16, IsEmptyForRefusedText) {
  EXPECT_FALSE(Utf8ToUtf16("\xC0\x80", 2));
  EXPECT_FALSE(Utf8ToUtf16("\xED\xA0\x80", 3));
}

}  // namespace
}  // namespace kq
