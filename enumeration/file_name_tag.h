// The numbered tags in the names of image files, as in host-b001-i002-m001.twi: "-b" for the base,
// "-i" for an increment, "-m" for an increment made of a mounted image.
#ifndef KQ_ENUMERATION_FILE_NAME_TAG_H
#define KQ_ENUMERATION_FILE_NAME_TAG_H

#include <cstdint>

#include "foundation/status.h"

namespace kq {

struct NumberedTag {
  const char* start = nullptr;  // in the name
  std::uint32_t length = 0;     // of the tag with its digits
  std::uint32_t number = 0;     // the low 32 bits of what the digits say
};

// Finds the leftmost place where the two characters of tag, in any case, are followed by digits and
// these by a hyphen or a point: -i12x holds no tag. *found is empty on a failure.
//
// -87 null name; -2 no tag.
KQStatus FindNumberedTag(const char* name, const char* tag, NumberedTag* found);

}  // namespace kq

#endif
