// Sectors on their way into the chunk under construction.
#include <cstring>

#include "image/new_image_file.h"

namespace kq {

KQStatus AppendSectors(NewImageFile* image, const std::uint8_t* data, std::uint32_t size,
                       std::uint64_t offset) {
  const auto copy = [&](std::uint32_t position, std::uint8_t* target, std::uint32_t count) {
    std::memcpy(target, data + position, count);
    return Success();
  };
  return AppendPieces(
      &image->Chunk, copy, [&] { return FlushChunk(image); }, size, offset);
}

KQStatus AppendFetchedSectors(NewImageFile* image, SectorFetch fetch, void* context,
                              std::uint32_t size, std::uint64_t offset) {
  const auto call = [&](std::uint32_t position, std::uint8_t* target, std::uint32_t count) {
    return fetch(context, position, target, count);
  };
  return AppendPieces(
      &image->Chunk, call, [&] { return FlushChunk(image); }, size, offset);
}

}  // namespace kq
