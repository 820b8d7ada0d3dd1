// The header templates from which the library makes new images.
#ifndef KQIMAGE_IMAGE_HEADER_TEMPLATE_H
#define KQIMAGE_IMAGE_HEADER_TEMPLATE_H

#include <kqimageformat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "kqimage/image/image_file.h"

namespace kqimage {

struct HeaderTemplate {
  std::vector<std::byte> bytes;
  std::uint32_t sectorSize = 0;

  ImageHeader Fields() const;
};

// For the base image of a new set, with an identifier of its own for the set.
// It has one sector; AddHeaderSectors adds more.
HeaderTemplate MakeBaseTemplate(std::uint32_t sectorSize, std::uint32_t compressionType,
                                std::uint32_t encryptionType);

// For an increment on the parent: its header with all it says of the imaged disk. Of an enciphered
// parent it has the further sectors as they lie in the file, and the KeyBlob with which the library
// deciphers them; the new image gets a key of its own.
HeaderTemplate MakeIncrementTemplate(const ImageFile& parent, std::uint32_t compressionType);

// Adds sectors behind the first, which is as MakeBaseTemplate has made it. Of an enciphered image
// they become enciphered under the password.
void AddHeaderSectors(HeaderTemplate& header, std::span<const std::byte> sectors,
                      const char* password);

// Throws a UsageFailure if the comment does not fit in the new image's first sector, which it
// shares with the key and the checksums.
void CheckCommentFits(const HeaderTemplate& header, const std::string& comment);

}  // namespace kqimage

#endif
