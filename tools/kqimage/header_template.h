// The header templates from which the library makes new images.
#ifndef KQIMAGE_HEADER_TEMPLATE_H
#define KQIMAGE_HEADER_TEMPLATE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kqimage/image_file.h"

namespace kqimage {

struct HeaderTemplate {
  std::vector<std::byte> bytes;
  std::uint32_t sectorSize = 0;
};

// For the base image of a new set, with an identifier of its own for the set.
HeaderTemplate MakeBaseTemplate(std::uint32_t sectorSize, std::uint32_t compressionType);

// For an increment on the parent: its header with all it says of the imaged disk.
HeaderTemplate MakeIncrementTemplate(const ImageFile& parent, std::uint32_t compressionType);

}  // namespace kqimage

#endif
