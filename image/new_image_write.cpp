// Sectors on their way into the chunk under construction.
#include <algorithm>
#include <cstring>

#include "foundation/log.h"
#include "image/new_image_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

bool HasRoomForRun(const RunWriter& runs) { return runs.End - runs.Cursor > kRunListReserve; }

// Cuts size bytes into pieces that chunks have room for; fetch is as for AppendFetchedSectors.
template <class Fetch>
KQStatus AppendPieces(NewImageFile* image, Fetch fetch, std::uint32_t size, std::uint64_t offset) {
  if (size == 0) return Success();
  // The header left no room for a ChunkHead and one sector of data.
  if (image->ChunkBufferSize / 2 < image->SectorSize) return KQ_FAIL(kInvalidData);

  std::uint32_t done = 0;
  while (done < size) {
    if (!HasRoomForRun(image->ChunkRuns)) KQ_RETURN_IF_FAILED(FlushChunk(image));

    // A full chunk is still here only if its flush failed before.
    if (image->ChunkFill == image->ChunkBufferSize) KQ_RETURN_IF_FAILED(FlushChunk(image));
    const std::uint32_t piece = std::min(size - done, image->ChunkBufferSize - image->ChunkFill);
    const std::uint64_t pieceOffset = offset + done;
    KQ_RETURN_IF_FAILED(fetch(done, image->ChunkBuffer.data() + image->ChunkFill, piece));
    image->ChunkFill += piece;

    if (image->ChunkRuns.Cursor < image->ChunkRuns.End) {
      if (piece < image->SectorSize) LogAssertion("zero-length run");
      EnterRun(&image->ChunkRuns, {pieceOffset, piece / image->SectorSize});
    }
    if (image->ChunkFill == image->SectorSize + piece) image->ChunkVolumeOffset = pieceOffset;
    if (image->ChunkFill == image->ChunkBufferSize) KQ_RETURN_IF_FAILED(FlushChunk(image));
    done += piece;
  }
  return Success();
}

}  // namespace

KQStatus AppendSectors(NewImageFile* image, const std::uint8_t* data, std::uint32_t size,
                       std::uint64_t offset) {
  const auto copy = [&](std::uint32_t position, std::uint8_t* target, std::uint32_t count) {
    std::memcpy(target, data + position, count);
    return Success();
  };
  return AppendPieces(image, copy, size, offset);
}

KQStatus AppendFetchedSectors(NewImageFile* image, SectorFetch fetch, void* context,
                              std::uint32_t size, std::uint64_t offset) {
  const auto call = [&](std::uint32_t position, std::uint8_t* target, std::uint32_t count) {
    return fetch(context, position, target, count);
  };
  return AppendPieces(image, call, size, offset);
}

}  // namespace kq
