// Names for new increments.
//
// A family of images is named STEM.twf, STEM-i001.twi, STEM-i002.twi, ... The number is the one
// behind the leftmost "-i" that a hyphen or a point follows.
#ifndef KQIMAGE_NEXT_NAME_H
#define KQIMAGE_NEXT_NAME_H

#include <string>
#include <string_view>

namespace kqimage {

// The first name behind the image's, in its folder, that nothing has. Throws a UsageFailure if the
// image's own name ends in neither .twf nor .twi.
std::string NextIncrementPath(const std::string& image);

// Whether the name ends so, in any case.
bool HasExtension(const std::string& path, std::string_view extension);

}  // namespace kqimage

#endif
