#include "image/creation_time.h"

#include <time.h>

#include "foundation/mutex.h"

namespace kq {
namespace {

constexpr std::uint64_t kTicksBefore1970 = 0x19DB1DED53E8000;
constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kTicksPerMinute = 600'000'000;
constexpr std::int32_t kDaylightMinutes = -60;

// The C library's `timezone` and `daylight` are the whole process's, and each look at the zone sets
// them: a stamp must not read them while another is being made.
constinit Mutex timeZoneMutex;

}  // namespace

std::uint64_t TicksSince1601(std::uint64_t seconds, std::uint32_t nanoseconds) {
  return kTicksBefore1970 + nanoseconds / 100 +
         std::uint64_t{static_cast<std::uint32_t>(seconds)} * kTicksPerSecond;
}

void StampCreationTime(ImageHeader* header) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  std::uint64_t ticks = TicksSince1601(static_cast<std::uint64_t>(now.tv_sec),
                                       static_cast<std::uint32_t>(now.tv_nsec));
  std::int32_t timeZoneBias = 0;
  std::int32_t daylightBias = 0;

  const MutexLock lock(timeZoneMutex);
  // localtime_r keeps other threads' results alone, but only localtime itself must look at TZ anew
  // on each call; tzset does it here.
  tzset();
  const time_t seconds = time(nullptr);
  tm local = {};
  if (localtime_r(&seconds, &local) != nullptr) {
    if (daylight != 0 && local.tm_isdst > 0) daylightBias = daylight * kDaylightMinutes;
    timeZoneBias = static_cast<std::int32_t>(timezone / 60);
    ticks -=
        static_cast<std::uint64_t>((std::int64_t{timeZoneBias} + daylightBias) * kTicksPerMinute);
  }
  header->CreationTime = ticks;
  header->TimeZoneBias = timeZoneBias;
  header->DaylightBias = daylightBias;
}

}  // namespace kq
