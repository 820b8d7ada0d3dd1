// One chunk on its way to the file, in one write at the file's end, and its entry in the index.
#include <algorithm>
#include <cstring>

#include "foundation/checked_math.h"
#include "foundation/little_endian.h"
#include "foundation/log.h"
#include "image/chunk_encode.h"
#include "image/new_image_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

void EndRunList(const RunWriter& runs) {
  if (runs.Cursor >= runs.End) return;
  *runs.Cursor = kRunListEnd;
  std::memset(runs.Cursor + 1, 0, static_cast<std::size_t>(runs.End - runs.Cursor - 1));
}

// Enciphers the body, in place. The vector is the chunk's place in the volume, so that equal chunks
// do not look equal.
KQStatus EncipherBody(const NewImageFile& image, const EncodedChunk& chunk) {
  if (!image.Key || chunk.storedSectors < 2) return Success();
  std::uint8_t vector[16] = {};
  StoreU64(vector, image.ChunkVolumeOffset);
  std::uint8_t* body = chunk.source + image.SectorSize;
  if (Failed(ImageEncipherRun(*image.Key, body, body, (chunk.storedSectors - 1) * image.SectorSize,
                              vector))) {
    return KQ_FAIL(kEncryptionFailed);
  }
  return Success();
}

// Makes the index one sector longer. Memory is taken in larger steps, since an index that is copied
// for each sector costs the square of its length.
KQStatus GrowIndex(NewImageFile* image) {
  const std::uint64_t capacity = std::uint64_t{image->IndexCapacity} + image->SectorSize;
  if (capacity > UINT32_MAX) return KQ_FAIL(kNotEnoughMemory);
  RunWriter* runs = &image->IndexRuns;
  if (capacity > image->IndexBuffer.size()) {
    HeapBuffer larger = HeapBuffer::AllocateZeroed(capacity + capacity / 2);
    if (!larger) return KQ_FAIL(kNotEnoughMemory);
    std::memcpy(larger.data(), image->IndexBuffer.data(), image->IndexCapacity);
    runs->Cursor = larger.data() + (runs->Cursor - image->IndexBuffer.data());
    image->IndexBuffer = std::move(larger);
  }
  image->IndexCapacity = static_cast<std::uint32_t>(capacity);
  runs->End = image->IndexBuffer.data() + capacity;
  return Success();
}

// Each entry's length is what precedes its chunk in the file since the last chunk's start, so that
// the sum of the lengths up to a chunk is its place.
KQStatus EnterChunkInIndex(NewImageFile* image, std::uint32_t storedSectors) {
  RunWriter* runs = &image->IndexRuns;
  if (runs->End - runs->Cursor <= kRunListReserve) KQ_RETURN_IF_FAILED(GrowIndex(image));
  if (image->PreviousStoredBytes == 0) LogAssertion("zero-length run");
  EnterRun(runs,
           {image->ChunkVolumeOffset, static_cast<std::uint32_t>(image->PreviousStoredBytes)});
  image->PreviousStoredBytes = static_cast<std::int32_t>(storedSectors * image->SectorSize);
  return Success();
}

}  // namespace

void ResetChunk(NewImageFile* image) {
  std::uint8_t* head = image->ChunkBuffer.data();
  image->ChunkFill = image->SectorSize;
  StoreU32(head + offsetof(ChunkHead, StoredSectors), 1);
  StoreU32(head + offsetof(ChunkHead, ExpandedSectors), 1);
  image->ChunkRuns = {};
  image->ChunkRuns.Cursor = head + sizeof(ChunkHead);
  image->ChunkRuns.End = head + image->SectorSize;
  image->ChunkRuns.MergeUnit = image->SectorSize;
}

KQStatus FlushChunk(NewImageFile* image) {
  if (image->ChunkFill <= image->SectorSize) {
    ResetChunk(image);
    return Success();
  }
  EndRunList(image->ChunkRuns);
  const std::uint32_t expandedSectors =
      (image->ChunkFill + image->SectorSize - 1) / image->SectorSize;
  // A client may have filled the last sector in part.
  std::memset(image->ChunkBuffer.data() + image->ChunkFill, 0,
              std::size_t{expandedSectors} * image->SectorSize - image->ChunkFill);

  EncodedChunk chunk;
  KQ_RETURN_IF_FAILED(EncodeChunk(image, expandedSectors, &chunk));
  std::uint64_t position = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(image->File.get(), &position));
  KQ_RETURN_IF_FAILED(EncipherBody(*image, chunk));
  StoreU32(chunk.source + offsetof(ChunkHead, StoredSectors), chunk.storedSectors);
  StoreU32(chunk.source + offsetof(ChunkHead, ExpandedSectors), expandedSectors);
  KQ_RETURN_IF_FAILED(OSFileSeekWrite(image->File.get(), position, chunk.source,
                                      std::uint64_t{chunk.storedSectors} * image->SectorSize));
  image->ChunkCount += 1;
  KQ_RETURN_IF_FAILED(EnterChunkInIndex(image, chunk.storedSectors));
  ResetChunk(image);
  return Success();
}

}  // namespace kq
