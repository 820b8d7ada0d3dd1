// Checks that the end of a new image can be read back.
//
// Each write into the file has told its own status; whether the index, the last chunks and what
// points to them are what a reader needs shows only a reader.
#ifndef KQIMAGE_IMAGE_TAIL_CHECK_H
#define KQIMAGE_IMAGE_TAIL_CHECK_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "kqimage/image/chain_reader.h"

namespace kqimage {

// A stretch of the volume that has been stored.
struct WrittenPiece {
  std::uint64_t offset = 0;
  std::span<const std::byte> bytes;
};

// Throws a Failure that names the image if the volume reads otherwise.
void CheckTail(const ChainReader& volume, std::span<const WrittenPiece> pieces,
               const std::string& image);

}  // namespace kqimage

#endif
