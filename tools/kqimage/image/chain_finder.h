// Finds the files of a chain.
//
// An image names its parent by identifier alone, so the files behind a given image are found in the
// library's catalogue of the image files in its folder and in others that are to be searched. Only
// the files that the chain needs are returned: newer increments and other volumes' images don't
// disturb. Of copies of an image, one from an earlier folder is taken.
#ifndef KQIMAGE_IMAGE_CHAIN_FINDER_H
#define KQIMAGE_IMAGE_CHAIN_FINDER_H

#include <span>
#include <string>
#include <vector>

#include "kqimage/image/image_file.h"

namespace kqimage {

// The chain that ends at the image in the given file. Its other files come from the file's folder,
// which is that of its target if the file is a symbolic link, and from the given folders. Throws a
// Failure that names what is missing.
Chain FindChain(const std::string& newest, const std::vector<std::string>& folders);

// The chain that the given files form, in any order; all of them must belong to it.
Chain OrderChain(const std::vector<std::string>& paths);

// The rule behind both: walks from newest to its base through the candidates. The file newest
// itself may be among them. Where says in messages what was searched.
Chain AssembleChain(const ImageFile& newest, std::span<const ImageFile> candidates,
                    const std::string& where);

}  // namespace kqimage

#endif
