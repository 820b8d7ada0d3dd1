#include "image/creation_time.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <optional>
#include <string>

namespace {

thread_local bool localTimeIsHad = true;

}  // namespace

// The linker sends the room's calls here (CMakeLists.txt).
extern "C" {
tm* __real_localtime_r(const time_t* time, tm* local);
tm* __wrap_localtime_r(const time_t* time, tm* local);
tm* __wrap_localtime_r(const time_t* time, tm* local) {
  return localTimeIsHad ? __real_localtime_r(time, local) : nullptr;
}
}

namespace {

constexpr std::uint64_t kTicksAt1970 = 116444736000000000;
constexpr std::int64_t kTicksPerMinute = 600000000;

// Sets the time zone, and puts the old one back.
class Zone {
 public:
  explicit Zone(const char* zone) {
    if (const char* old = getenv("TZ"); old != nullptr) old_ = old;
    setenv("TZ", zone, 1);
  }
  ~Zone() {
    if (old_) {
      setenv("TZ", old_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::optional<std::string> old_;
};

std::uint64_t UtcTicksNow() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return kTicksAt1970 + static_cast<std::uint64_t>(now.tv_sec) * 10000000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 100;
}

// Stamps a header; CreationTime plus the biases must be the UTC of the moment.
ImageHeader StampedIn(const char* zone) {
  const Zone set(zone);
  ImageHeader header{};
  const std::uint64_t before = UtcTicksNow();
  kq::StampCreationTime(&header);
  const std::uint64_t after = UtcTicksNow();
  const auto bias = std::int64_t{header.TimeZoneBias} + header.DaylightBias;
  const std::uint64_t utc =
      header.CreationTime + static_cast<std::uint64_t>(bias * kTicksPerMinute);
  EXPECT_LE(before, utc);
  EXPECT_LE(utc, after);
  return header;
}

// A zone west of UTC by 210 minutes whose daylight saving time is one hour of a day half a year
// from now.
std::string ZoneWithDaylightFarAway() {
  const time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  const int day = (utc.tm_yday + 180) % 360 + 1;
  return "STD3:30DST,J" + std::to_string(day) + "/1,J" + std::to_string(day) + "/2";
}

TEST(TicksSince1601, CountsFrom1601InTicksOf100Nanoseconds) {
  EXPECT_EQ(kq::TicksSince1601(0, 0), kTicksAt1970);
  EXPECT_EQ(kq::TicksSince1601(1, 0), kTicksAt1970 + 10000000);
  EXPECT_EQ(kq::TicksSince1601(0, 199), kTicksAt1970 + 1);
  // 2020-01-01, from the calendar: 153,036 days after 1601-01-01.
  EXPECT_EQ(kq::TicksSince1601(1577836800, 999999999), 153036ull * 864000000000 + 9999999);
}

TEST(TicksSince1601, SecondsCountModulo32Bits) {
  EXPECT_EQ(kq::TicksSince1601(0xFFFFFFFF, 0), kTicksAt1970 + 0xFFFFFFFFull * 10000000);
  EXPECT_EQ(kq::TicksSince1601(0x100000005, 0), kq::TicksSince1601(5, 0));
}

TEST(StampCreationTime, WithoutDaylightSavingTheBiasIsMinutesWestOfUtc) {
  const ImageHeader west = StampedIn("WST5");
  EXPECT_EQ(west.TimeZoneBias, 300);
  EXPECT_EQ(west.DaylightBias, 0);
  const ImageHeader east = StampedIn("EST-5:45");
  EXPECT_EQ(east.TimeZoneBias, -345);
  EXPECT_EQ(east.DaylightBias, 0);
  EXPECT_EQ(StampedIn("UTC0").TimeZoneBias, 0);
}

TEST(StampCreationTime, DaylightBiasIsMinusSixtyWhileDaylightSavingIsInForce) {
  const ImageHeader summer = StampedIn("STD-1DST,0/0,J365/25");
  EXPECT_EQ(summer.TimeZoneBias, -60);
  EXPECT_EQ(summer.DaylightBias, -60);
}

TEST(StampCreationTime, DaylightBiasIsZeroWhileItIsNotInForce) {
  const ImageHeader winter = StampedIn(ZoneWithDaylightFarAway().c_str());
  EXPECT_EQ(winter.TimeZoneBias, 210);
  EXPECT_EQ(winter.DaylightBias, 0);
}

TEST(StampCreationTime, EachStampLooksAtTheZoneAnew) {
  EXPECT_EQ(StampedIn("AAA1").TimeZoneBias, 60);
  EXPECT_EQ(StampedIn("BBB2").TimeZoneBias, 120);
}

TEST(StampCreationTime, WithoutLocalTimeItIsUtcWithoutBiases) {
  localTimeIsHad = false;
  const ImageHeader stamped = StampedIn("STD-1DST,0/0,J365/25");
  localTimeIsHad = true;
  EXPECT_EQ(stamped.TimeZoneBias, 0);
  EXPECT_EQ(stamped.DaylightBias, 0);
}

}  // namespace
