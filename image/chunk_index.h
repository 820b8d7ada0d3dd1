// A file's chunk index in memory, and the search that it and a chunk's run table share.
#ifndef KQ_IMAGE_CHUNK_INDEX_H
#define KQ_IMAGE_CHUNK_INDEX_H

#include <cstdint>

#include "image/open_image_file.h"

namespace kq {

// Reads and decodes the ChunkIndex at IndexOffset into IndexEntries and ChunkCount. A list that
// claims to be longer than the file ends where the file ends. -8; or errno mapped.
KQStatus ReadChunkIndex(OpenImageFile* file);

// The largest position whose VolumeOffset is at or below offset, or 0 if all lie above it. count is
// not 0; the array rises in VolumeOffset.
template <class Entry>
std::uint32_t SearchVolumeOffset(const Entry* entries, std::uint32_t count, std::uint64_t offset) {
  std::uint32_t low = 0;
  std::uint32_t high = count;
  while (high - low > 1) {
    const std::uint32_t middle = low + (high - low) / 2;
    (entries[middle].VolumeOffset <= offset ? low : high) = middle;
  }
  return low;
}

}  // namespace kq

#endif
