#include "image/image_room.h"

#include "image/chunk_cache.h"
#include "image/chunk_header_cache.h"

namespace kq {

void ImageRoomStart(const Configuration& configuration) {
  ResetChunkCache();
  ResetChunkHeaderCache();
  ChunkCacheMaxBytes = configuration.chunkCacheMaxBytes;
  ChunkHeaderCacheMaxBytes = configuration.chunkHeaderCacheMaxBytes;
}

void ImageRoomFinish() {
  ResetChunkCache();
  ResetChunkHeaderCache();
}

}  // namespace kq
