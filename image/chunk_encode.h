// The body of a chunk on its way to the file: which of the three forms it takes.
#ifndef KQ_IMAGE_CHUNK_ENCODE_H
#define KQ_IMAGE_CHUNK_ENCODE_H

#include <cstdint>

#include "image/new_image_file.h"

namespace kq {

// Where a chunk's bytes stand and how many sectors of them go to the file, ChunkHead included.
struct EncodedChunk {
  std::uint8_t* source = nullptr;  // ChunkBuffer or ChunkScratch
  std::uint32_t storedSectors = 0;
};

// Tests the data behind the ChunkHead in ChunkBuffer for zero and compresses it, as the image's
// Compressor asks. storedSectors 1: all zero, no body. storedSectors equal to expandedSectors: raw,
// since compressing failed or would not save a sector. Otherwise the source holds a copy of the
// ChunkHead sector, the stream's length, the stream, and zeros to the end of the last stored
// sector. ChunkBuffer is left as it is.
//
// -13 fewer than 4 bytes of data in an image that compresses; -8.
KQStatus EncodeChunk(NewImageFile* image, std::uint32_t expandedSectors, EncodedChunk* encoded);

}  // namespace kq

#endif
