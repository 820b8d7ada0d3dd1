// One chunk on its way to the file, in one write at the file's end, and its entry in the index.
#include <cstring>

#include "foundation/little_endian.h"
#include "foundation/log.h"
#include "image/new_image_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

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
KQStatus EnterChunkInIndex(NewImageFile* image, const EncodedChunk& chunk) {
  RunWriter* runs = &image->IndexRuns;
  if (runs->End - runs->Cursor <= kRunListReserve) KQ_RETURN_IF_FAILED(GrowIndex(image));
  if (image->PreviousStoredBytes == 0) LogAssertion("zero-length run");
  EnterRun(runs, {chunk.volumeOffset, static_cast<std::uint32_t>(image->PreviousStoredBytes)});
  image->PreviousStoredBytes = static_cast<std::int32_t>(chunk.storedSectors * image->SectorSize);
  return Success();
}

KQStatus WriteChunk(NewImageFile* image, std::uint64_t position, const EncodedChunk& chunk) {
  StoreU32(chunk.source + offsetof(ChunkHead, StoredSectors), chunk.storedSectors);
  StoreU32(chunk.source + offsetof(ChunkHead, ExpandedSectors), chunk.expandedSectors);
  KQ_RETURN_IF_FAILED(OSFileSeekWrite(image->File.get(), position, chunk.source,
                                      std::uint64_t{chunk.storedSectors} * image->SectorSize));
  image->ChunkCount += 1;
  return EnterChunkInIndex(image, chunk);
}

}  // namespace

KQStatus FlushChunk(NewImageFile* image) {
  NewChunk* chunk = &image->Chunk;
  if (!chunk->IsEmpty()) {
    EncodedChunk encoded;
    KQ_RETURN_IF_FAILED(EncodeChunk(chunk, &encoded));
    std::uint64_t position = 0;
    KQ_RETURN_IF_FAILED(OSFileGetSize(image->File.get(), &position));
    KQ_RETURN_IF_FAILED(EncipherChunk(image->Key.get(), *chunk, encoded));
    KQ_RETURN_IF_FAILED(WriteChunk(image, position, encoded));
  }
  ResetChunk(chunk);
  return Success();
}

KQStatus AppendChunk(NewImageFile* image, const EncodedChunk& chunk) {
  std::uint64_t position = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(image->File.get(), &position));
  return WriteChunk(image, position, chunk);
}

}  // namespace kq
