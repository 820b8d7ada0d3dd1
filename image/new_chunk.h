// The chunk under construction: from a stream of sectors to the bytes that go to the file.
//
// Sectors are collected by AppendPieces, EncodeChunk gives the chunk the form it takes in the file
// (chunk_encode.h), EncipherChunk enciphers it, and whoever owns the file appends it. Nothing here
// knows the file: a writer has one chunk and does this step by step, or several, which threads
// encode at the same time.
//
// A NewChunk owns its buffers and codec. It has no lock: one thread at a time may use it.
#ifndef KQ_IMAGE_NEW_CHUNK_H
#define KQ_IMAGE_NEW_CHUNK_H

#include <algorithm>
#include <cstdint>

#include "codec/compressor.h"
#include "codec/run_list.h"
#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/status.h"

namespace kq {

// A run list must have more bytes left than this before another run is entered, which leaves room
// for the longest entry. Chunks and the index keep the same reserve; where a chunk ends and when
// the index grows follow from it.
inline constexpr std::uint32_t kRunListReserve = 18;

struct NewChunk {
  std::uint32_t SectorSize = 0;
  // Its ChunkHead sector, then the data. The allocation reaches up to a whole sector and holds at
  // least one, whatever ChunkBufferSize is.
  HeapBuffer ChunkBuffer;
  std::uint32_t ChunkBufferSize = 0;
  std::uint32_t ChunkFill = 0;  // bytes in use, at least SectorSize
  RunWriter ChunkRuns;
  std::uint64_t ChunkVolumeOffset = 0;  // of the chunk's first run
  HeapBuffer ChunkScratch;              // a compressed chunk; allocated by the first that needs it
  Owned<::kq::Compressor> Compressor;   // null if CompressionType is 0

  bool IsEmpty() const { return ChunkFill <= SectorSize; }
};

// Allocates the buffer for chunks of at most chunkBufferSize bytes, ChunkHead included, and begins
// the first. -8.
KQStatus PrepareChunk(NewChunk* chunk, std::uint32_t sectorSize, std::uint32_t chunkBufferSize);

// Builds the codec; for type 0 there is none. -8, also for an unknown type.
KQStatus MakeCompressor(NewChunk* chunk, std::uint32_t compressionType);

// Begins a new, empty chunk.
void ResetChunk(NewChunk* chunk);

// Collects size bytes for the volume's byte offset, cut into pieces that the chunk has room for.
// fetch(position, target, count) copies count bytes, which stand position bytes behind the first;
// flush() takes what the chunk holds and leaves an empty one in its place. What one of them fails
// with ends the call.
//
// -13 the header left no room for a ChunkHead and one sector of data.
template <class Fetch, class Flush>
KQStatus AppendPieces(NewChunk* chunk, Fetch fetch, Flush flush, std::uint32_t size,
                      std::uint64_t offset) {
  constexpr char kModule[] = "utimagefile";
  if (size == 0) return Success();
  if (chunk->ChunkBufferSize / 2 < chunk->SectorSize) return KQ_FAIL(kInvalidData);

  std::uint32_t done = 0;
  while (done < size) {
    const bool hasRoomForRun = chunk->ChunkRuns.End - chunk->ChunkRuns.Cursor > kRunListReserve;
    if (!hasRoomForRun) KQ_RETURN_IF_FAILED(flush());

    // No bytes if the flush of a full chunk has failed before. That leaves a run of no sectors in
    // the list, which readers pass over, and the flush below is tried once more.
    const std::uint32_t piece = std::min(size - done, chunk->ChunkBufferSize - chunk->ChunkFill);
    const std::uint64_t pieceOffset = offset + done;
    KQ_RETURN_IF_FAILED(fetch(done, chunk->ChunkBuffer.data() + chunk->ChunkFill, piece));
    chunk->ChunkFill += piece;

    if (chunk->ChunkRuns.Cursor < chunk->ChunkRuns.End) {
      if (piece < chunk->SectorSize) LogAssertion("zero-length run");
      EnterRun(&chunk->ChunkRuns, {pieceOffset, piece / chunk->SectorSize});
    }
    if (chunk->ChunkFill == chunk->SectorSize + piece) chunk->ChunkVolumeOffset = pieceOffset;
    if (chunk->ChunkFill == chunk->ChunkBufferSize) KQ_RETURN_IF_FAILED(flush());
    done += piece;
  }
  return Success();
}

}  // namespace kq

#endif
