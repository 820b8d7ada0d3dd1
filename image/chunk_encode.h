// A chunk on its way to the file: which of the three forms its body takes, and the cipher.
//
// Neither function touches the file or anything but the chunk and its codec, so chunks may be
// encoded at the same time; the key is only read.
#ifndef KQ_IMAGE_CHUNK_ENCODE_H
#define KQ_IMAGE_CHUNK_ENCODE_H

#include <cstdint>

#include "crypto/image_key.h"
#include "foundation/status.h"
#include "image/new_chunk.h"

namespace kq {

// Where a chunk's bytes stand and how many sectors of them go to the file, ChunkHead included.
struct EncodedChunk {
  std::uint8_t* source = nullptr;  // ChunkBuffer or ChunkScratch
  std::uint32_t storedSectors = 0;
  std::uint32_t expandedSectors = 0;
  std::uint64_t volumeOffset = 0;
};

// Ends the run list, fills up the last sector with zeros, tests the data behind the ChunkHead for
// zero and compresses it, as the Compressor asks. storedSectors 1: all zero, no body. storedSectors
// equal to expandedSectors: raw, since compressing failed or would not save a sector. Otherwise the
// source holds a copy of the ChunkHead sector, the stream's length, the stream, and zeros to the
// end of the last stored sector. What ChunkBuffer holds is left as it is, so that a failure may be
// followed by another try.
//
// -13 fewer than 4 bytes of data in an image that compresses; -8.
KQStatus EncodeChunk(NewChunk* chunk, EncodedChunk* encoded);

// Enciphers the body in place; a null key does nothing. -6000.
KQStatus EncipherChunk(const CryptoContext* key, const NewChunk& chunk,
                       const EncodedChunk& encoded);

}  // namespace kq

#endif
