// Finds the files of a chain.
//
// An image names its parent by identifier alone, so the files behind a given image are found by
// asking every image file in its folder who it is. Only the files that the chain needs are
// returned: newer increments and other volumes' images in the folder don't disturb.
#ifndef KQIMAGE_CHAIN_FINDER_H
#define KQIMAGE_CHAIN_FINDER_H

#include <span>
#include <string>
#include <vector>

#include "kqimage/image_file.h"

namespace kqimage {

// The chain that ends at the image in the given file, its other files taken from the same folder.
// Throws a Failure that names what is missing, or what there is twice.
Chain FindChain(const std::string& newest);

// The chain that the given files form, in any order; all of them must belong to it.
Chain OrderChain(const std::vector<std::string>& paths);

// The rule behind both: walks from newest to its base through the candidates. The file newest
// itself may be among them. Where says in messages what was searched.
Chain AssembleChain(const ImageFile& newest, std::span<const ImageFile> candidates,
                    const std::string& where);

}  // namespace kqimage

#endif
