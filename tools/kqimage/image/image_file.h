// One image file as its header describes it, and chains of them.
#ifndef KQIMAGE_IMAGE_IMAGE_FILE_H
#define KQIMAGE_IMAGE_IMAGE_FILE_H

#include <kqimageapi.h>

#include <optional>
#include <string>
#include <vector>

namespace kqimage {

struct ImageFile {
  std::string path;
  ImageFileInfo info = {};
};

// The files of one chain, the base image first, the parts of an image in their order.
using Chain = std::vector<ImageFile>;

// Throws a Failure if the file is no finished image.
ImageFile ReadImageFile(const std::string& path);

// The same without a throw: nothing on a failure, and why holds the reason.
std::optional<ImageFile> TryReadImageFile(const std::string& path, std::string& why);

bool IsBase(const ImageFileInfo& info);

}  // namespace kqimage

#endif
