#include "image/new_chunk.h"

#include <cstddef>

#include "foundation/checked_math.h"
#include "foundation/little_endian.h"
#include "kqimageformat.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

}  // namespace

KQStatus PrepareChunk(NewChunk* chunk, std::uint32_t sectorSize, std::uint32_t chunkBufferSize) {
  chunk->SectorSize = sectorSize;
  chunk->ChunkBufferSize = chunkBufferSize;
  std::uint64_t allocated = 0;
  if (!CheckedRoundUp(std::max(chunkBufferSize, sectorSize), sectorSize, &allocated)) {
    return KQ_FAIL(kNotEnoughMemory);
  }
  chunk->ChunkBuffer = HeapBuffer::Allocate(allocated);
  if (!chunk->ChunkBuffer) return KQ_FAIL(kNotEnoughMemory);
  ResetChunk(chunk);
  return Success();
}

KQStatus MakeCompressor(NewChunk* chunk, std::uint32_t compressionType) {
  if (compressionType == kCompressionNone) return Success();
  chunk->Compressor = MakeOwned<Compressor>();
  if (!chunk->Compressor) return KQ_FAIL(kNotEnoughMemory);
  if (BuildCompressor(compressionType, chunk->Compressor.get()) != StatusCode::kSuccess) {
    return KQ_FAIL(kNotEnoughMemory);
  }
  return Success();
}

void ResetChunk(NewChunk* chunk) {
  std::uint8_t* head = chunk->ChunkBuffer.data();
  chunk->ChunkFill = chunk->SectorSize;
  StoreU32(head + offsetof(ChunkHead, StoredSectors), 1);
  StoreU32(head + offsetof(ChunkHead, ExpandedSectors), 1);
  chunk->ChunkRuns = {};
  chunk->ChunkRuns.Cursor = head + sizeof(ChunkHead);
  chunk->ChunkRuns.End = head + chunk->SectorSize;
  chunk->ChunkRuns.MergeUnit = chunk->SectorSize;
}

}  // namespace kq
