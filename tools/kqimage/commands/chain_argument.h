// The FILE arguments of the commands that read a chain.
#ifndef KQIMAGE_COMMANDS_CHAIN_ARGUMENT_H
#define KQIMAGE_COMMANDS_CHAIN_ARGUMENT_H

#include <string>
#include <vector>

#include "kqimage/image/image_file.h"

namespace kqimage {

// One file alone is the image to go back to, and those it builds on are found in its folder and the
// given ones. Several files are taken as they are and must be the whole chain, in any order. Throws
// a UsageFailure if there are folders although nothing is to be searched.
Chain ResolveChain(const std::vector<std::string>& files, const std::vector<std::string>& folders);

// The first part of the chain's newest image: the file by which people know the image.
const ImageFile& NewestImage(const Chain& chain);

}  // namespace kqimage

#endif
