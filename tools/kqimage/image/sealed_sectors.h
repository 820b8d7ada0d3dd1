// Header sectors as an enciphered image has them.
//
// The library makes a new image from a header whose sectors are enciphered already, as those of a
// parent are. For a base image there is no parent. So the library is asked to write the sectors as
// the data of a small image in memory: it enciphers data at a volume's start exactly as it does
// header sectors, and keeps the key under the password beside them.
#ifndef KQIMAGE_IMAGE_SEALED_SECTORS_H
#define KQIMAGE_IMAGE_SEALED_SECTORS_H

#include <cstddef>
#include <span>
#include <vector>

#include "kqimage/image/header_template.h"

namespace kqimage {

struct SealedSectors {
  std::vector<std::byte> keyBlob;
  std::vector<std::byte> sectors;
};

// Header is the one that the sectors are for. They are a whole number of its sectors and at most
// 512 KiB.
SealedSectors SealSectors(const ImageHeader& header, std::span<const std::byte> sectors,
                          const char* password);

}  // namespace kqimage

#endif
