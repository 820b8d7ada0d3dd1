#include "kqimage/terminal/text.h"

#include <gtest/gtest.h>

#include <array>

namespace kqimage {
namespace {

TEST(SizeText, ChangesUnitWhereTheNumberWouldReach1024) {
  EXPECT_EQ(SizeText(0), "0 bytes");
  EXPECT_EQ(SizeText(1023), "1023 bytes");
  EXPECT_EQ(SizeText(1024), "1.0 KiB");
  EXPECT_EQ(SizeText((1 << 20) - 1), "1.0 MiB");
  EXPECT_EQ(SizeText(std::uint64_t{3} << 40), "3.0 TiB");
  EXPECT_EQ(SizeText(UINT64_MAX), "16.0 EiB");
}

TEST(ExactSizeText, AddsTheNumberOfBytesOnce) {
  EXPECT_EQ(ExactSizeText(512), "512 bytes");
  EXPECT_EQ(ExactSizeText(4096), "4.0 KiB (4096 bytes)");
}

TEST(DurationText, ShowsHoursOnlyWhenThereAreAny) {
  EXPECT_EQ(DurationText(0), "0:00");
  EXPECT_EQ(DurationText(3599), "59:59");
  EXPECT_EQ(DurationText(3661), "1:01:01");
}

TEST(GuidText, ReversesTheFirstThreeGroups) {
  // RFC 4122's own example, 6ba7b810-9dad-11d1-80b4-00c04fd430c8, as a GUID in memory.
  const std::uint8_t id[16] = {0x10, 0xb8, 0xa7, 0x6b, 0xad, 0x9d, 0xd1, 0x11,
                               0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8};
  EXPECT_EQ(GuidText(id), "6ba7b810-9dad-11d1-80b4-00c04fd430c8");
}

TEST(HexText, WritesTwoDigitsForEachByte) {
  EXPECT_EQ(HexText(std::array<std::uint8_t, 3>{0x00, 0x0a, 0xff}), "000aff");
}

ImageFileInfo InfoWithTime(std::uint64_t ticks, std::int32_t zone, std::int32_t daylight) {
  ImageFileInfo info = {};
  info.creationTime = ticks;
  info.timeZoneBias = zone;
  info.daylightBias = daylight;
  return info;
}

constexpr std::uint64_t kUnixEpoch = 116444736000000000;  // 1970-01-01 in ticks

TEST(TimeText, ShowsLocalTimeWithTheZoneEastOfUtc) {
  // date -u -d @1709211845: 2024-02-29 13:04:05 UTC, as local time of Berlin in summer and winter.
  const std::uint64_t utc = kUnixEpoch + 1709211845ull * 10'000'000 + 1234567;
  const std::uint64_t hour = 3600ull * 10'000'000;
  EXPECT_EQ(TimeText(InfoWithTime(utc, 0, 0), TimeDetail::kFull),
            "2024-02-29T13:04:05.1234567+00:00");
  EXPECT_EQ(TimeText(InfoWithTime(utc + hour, -60, 0), TimeDetail::kSeconds),
            "2024-02-29T14:04:05+01:00");
  EXPECT_EQ(TimeText(InfoWithTime(utc + 2 * hour, -60, -60), TimeDetail::kSeconds),
            "2024-02-29T15:04:05+02:00");
  EXPECT_EQ(TimeText(InfoWithTime(utc, 210, 0), TimeDetail::kSeconds), "2024-02-29T13:04:05-03:30");
}

TEST(TimeText, KnowsTheCalendarAtItsEdges) {
  EXPECT_EQ(TimeText(InfoWithTime(0, 0, 0), TimeDetail::kSeconds), "1601-01-01T00:00:00+00:00");
  const auto day = [](std::uint64_t unixSeconds) {
    return TimeText(InfoWithTime(kUnixEpoch + unixSeconds * 10'000'000, 0, 0),
                    TimeDetail::kSeconds);
  };
  EXPECT_EQ(day(951782400), "2000-02-29T00:00:00+00:00");
  EXPECT_EQ(day(978307199), "2000-12-31T23:59:59+00:00");
  EXPECT_EQ(day(978307200), "2001-01-01T00:00:00+00:00");
  EXPECT_EQ(day(4107542400), "2100-03-01T00:00:00+00:00");
}

TEST(TimeText, TakesAnyValueOfAFile) {
  EXPECT_EQ(TimeText(InfoWithTime(UINT64_MAX, INT32_MIN, INT32_MIN), TimeDetail::kFull),
            "60056-05-28T05:36:10.9551615+71582788:16");
}

TEST(Utf8FromUtf16, EndsAtTheFirstZeroAndReplacesLoneSurrogates) {
  const std::array<std::uint16_t, 8> units = {0x41, 0xE4, 0x20AC, 0xD83D, 0xDE00, 0xDC00, 0, 0x42};
  EXPECT_EQ(Utf8FromUtf16(units), "A\u00e4\u20ac\U0001F600\uFFFD");
  const std::array<std::uint16_t, 1> cut = {0xD83D};
  EXPECT_EQ(Utf8FromUtf16(cut), "\uFFFD");
}

TEST(Utf16Units, CountsAPairForTheUpperPlanesAndRefusesBadUtf8) {
  EXPECT_EQ(Utf16Units("A\u00e4\u20ac\U0001F600"), 5u);
  EXPECT_EQ(Utf16Units(""), 0u);
  for (const char* bad : {"\x80", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_EQ(Utf16Units(bad), std::nullopt) << Printable(bad);
  }
}

TEST(Printable, KeepsTextAndDisarmsControlCharacters) {
  EXPECT_EQ(Printable("gr\u00fcn 1.twf"), "gr\u00fcn 1.twf");
  EXPECT_EQ(Printable("a\x1b[2Jb\n\x7f"), "a\\x1b[2Jb\\x0a\\x7f");
  EXPECT_EQ(Printable("\xff\xc2\x9b"), "\\xff\\xc2\\x9b");
}

}  // namespace
}  // namespace kqimage
