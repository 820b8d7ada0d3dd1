// Whether the volume of an increment is the one that its parent is an image of.
//
// Nothing in the format guards it: an increment of another volume is a good image, but for most
// readers a mistake. Where both tell a partition in the tables of a disk, the two can be compared.
#ifndef KQIMAGE_REPORT_ORIGIN_DOUBT_H
#define KQIMAGE_REPORT_ORIGIN_DOUBT_H

#include <optional>
#include <string>

#include "kqimage/volume/volume_origin.h"

namespace kqimage {

// What to tell if the image's header names another partition than the origin; nothing if it names
// the same, or if either names none. A GPT's partitions are told apart by their identifiers, those
// of an MBR by the disk's signature and their place.
std::optional<std::string> OriginDoubt(const std::string& image, const char* password,
                                       const VolumeOrigin& origin);

}  // namespace kqimage

#endif
