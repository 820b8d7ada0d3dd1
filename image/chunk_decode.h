// Fetches a chunk from its file and turns it into its expanded form: the ChunkHead sector, then the
// data sectors in the order of the inner run list.
#ifndef KQ_IMAGE_CHUNK_DECODE_H
#define KQ_IMAGE_CHUNK_DECODE_H

#include <cstdint>

#include "foundation/status.h"
#include "image/chunk_cache.h"
#include "image/open_image_file.h"

namespace kq {

// Where a chunk is and what its ChunkHead says, as far as decoding it goes.
struct ChunkPlace {
  OpenImageFile* File = nullptr;
  std::uint64_t FileOffset = 0;
  std::uint64_t ChunkVolumeOffset = 0;  // its key for deciphering
  std::uint32_t ExpandedSectors = 0;
  std::uint32_t StoredSectors = 0;
};

enum class DecodeOutcome : std::uint8_t {
  kExpanded,
  // The compressed stream is bad. No status tells it: the read that needs the chunk ends here with
  // success, and the rest of its range stays zero. Mounts of damaged images rely on it.
  kBadStream,
};

// -1392 impossible counts; -13 the body's length does not fit into the body; -6001 can't be
// deciphered; -8; or as the read tells. The chunk and the outcome mean something on success only.
KQStatus ChunkDecode(const ChunkPlace& place, ExpandedChunk* chunk, DecodeOutcome* outcome);

}  // namespace kq

#endif
