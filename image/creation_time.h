// The time stamp of a new image: local time in 100 ns ticks since 1601-01-01, with the bias that
// leads back to UTC beside it.
#ifndef KQ_IMAGE_CREATION_TIME_H
#define KQ_IMAGE_CREATION_TIME_H

#include <cstdint>

#include "kqimageformat.h"

namespace kq {

// UTC ticks of a time since 1970. Seconds count modulo 2^32.
std::uint64_t TicksSince1601(std::uint64_t seconds, std::uint32_t nanoseconds);

// Sets CreationTime, TimeZoneBias and DaylightBias to now, in the process's time zone. Where local
// time can't be had, the biases are 0 and the stamp is UTC.
void StampCreationTime(ImageHeader* header);

}  // namespace kq

#endif
