// Names for new images.
//
// A family of images is named STEM-b001.twf, STEM-b001-i001.twi, STEM-b001-i002.twi, ... and its
// key file STEM-b001.twk. The library knows which name follows and which one the key file has.
#ifndef KQIMAGE_SYSTEM_NEXT_NAME_H
#define KQIMAGE_SYSTEM_NEXT_NAME_H

#include <optional>
#include <string>
#include <string_view>

namespace kqimage {

// The next free name in the series of the image, which must exist. It lies beside the image (behind
// a symbolic link, beside its target), or in the folder if that is not empty. Throws a UsageFailure
// if the image's own name ends in neither .twf nor .twi.
std::string NextIncrementPath(const std::string& image, const std::string& folder = {});

// The next free name for an increment that is made of the mounted image: STEM-mNNN.twi beside it.
std::string NextMountPath(const std::string& image);

// The first free name STEM-bNNN.twf in the folder for a full image of the source, whose name
// without its extension is the stem.
std::string NextBasePath(const std::string& source, const std::string& folder);

// The path of the key file of the image's family; nothing if the image's name has no "-b" tag.
std::optional<std::string> KeyFilePath(const std::string& image);

// Whether the path names a folder, at which a new image is to get a name of its own.
bool IsFolder(const std::string& path);

// Whether the name ends so, in any case.
bool HasExtension(const std::string& path, std::string_view extension);

}  // namespace kqimage

#endif
