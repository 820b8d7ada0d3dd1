// A read in two passes: from the newest file to the oldest, find which runs deliver the range; then
// copy them in volume order through the chunk cache. An overlay is laid over the result.
#include <algorithm>
#include <cstring>

#include "image/chunk_cache.h"
#include "image/chunk_decode.h"
#include "image/chunk_header_cache.h"
#include "image/chunk_index.h"
#include "image/image_chain.h"
#include "image/read_pieces.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

// Both ends count. last may lie below first, for a range that runs beyond the largest offset; the
// arithmetic below is modulo 2^64 all the way, and such a range finds nothing but zeros in a file
// that is not made for it.
struct VolumeRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
};

KQStatus AddPiecesOfChunk(OpenImageFile* file, const ChunkHeaderEntry& head,
                          const VolumeRange& range, PieceList* pieces) {
  if (head.RunCount == 0) return Success();
  const ChunkPlace* chunk = nullptr;
  const std::uint32_t start = SearchVolumeOffset(head.Runs.get(), head.RunCount, range.first);
  for (std::uint32_t i = start; i < head.RunCount; ++i) {
    const ChunkRun& run = head.Runs[i];
    const std::uint64_t runLast =
        run.VolumeOffset + std::uint64_t{run.Sectors} * file->WorkSectorSize - 1;
    if (runLast < range.first) continue;
    if (run.VolumeOffset > range.last) break;
    if (chunk == nullptr) {
      chunk = pieces->AddChunk(
          {file, head.FileOffset, head.VolumeOffset, head.ExpandedSectors, head.StoredSectors});
      if (chunk == nullptr) return KQ_FAIL(kNotEnoughMemory);
    }
    ReadPiece piece;
    piece.Chunk = chunk;
    piece.RunVolumeOffset = run.VolumeOffset;
    piece.FirstSector = run.FirstSector;
    piece.Sectors = run.Sectors;
    piece.Start = std::max(range.first, run.VolumeOffset);
    piece.End = std::min(runLast, range.last);
    if (!pieces->Merge(piece)) return KQ_FAIL(kNotEnoughMemory);
  }
  return Success();
}

KQStatus AddPiecesOfFile(OpenImageFile* file, const VolumeRange& range, PieceList* pieces) {
  if (file->ChunkCount == 0) return Success();
  const ChunkIndexEntry* index = file->IndexEntries.get();
  const std::uint32_t start = SearchVolumeOffset(index, file->ChunkCount, range.first);
  for (std::uint32_t i = start; i < file->ChunkCount && index[i].VolumeOffset <= range.last; ++i) {
    // An index that points into the header is bad data, but clients know it by this status.
    if (index[i].FileOffset < file->HeaderBytes()) return KQ_FAIL(kInvalidParameter);
    ChunkHeaderEntry* head = nullptr;
    KQ_RETURN_IF_FAILED(ChunkHeaderGet(file, index[i], i + 1, &head));
    const KQStatus status = AddPiecesOfChunk(file, *head, range, pieces);
    ChunkHeaderPut(head);
    KQ_RETURN_IF_FAILED(status);
  }
  return Success();
}

KQStatus FindPieces(const ImageChain& chain, const VolumeRange& range, PieceList* pieces) {
  for (const ChainMember* member = chain.Members.last(); member != nullptr;
       member = chain.Members.Previous(member)) {
    if (member->File == nullptr) continue;
    KQ_RETURN_IF_FAILED(AddPiecesOfFile(member->File, range, pieces));
    // Older files are not even looked at once the range is covered.
    if (pieces->Cover(range.first, range.last)) break;
  }
  return Success();
}

// The chunk that pieces are being copied from, in use as long as they come from the same one.
class CurrentChunk {
 public:
  CurrentChunk() = default;
  CurrentChunk(const CurrentChunk&) = delete;
  CurrentChunk& operator=(const CurrentChunk&) = delete;
  ~CurrentChunk() { Put(); }

  const ExpandedChunk& chunk() const { return entry_->Chunk; }

  KQStatus Use(const ChunkPlace& place, DecodeOutcome* outcome) {
    *outcome = DecodeOutcome::kExpanded;
    if (entry_ != nullptr && entry_->File == place.File && entry_->FileOffset == place.FileOffset) {
      return Success();
    }
    Put();
    entry_ = ChunkFind(place.File, place.FileOffset);
    if (entry_ != nullptr) return Success();
    ExpandedChunk decoded;
    KQ_RETURN_IF_FAILED(ChunkDecode(place, &decoded, outcome));
    if (*outcome != DecodeOutcome::kExpanded) return Success();
    return ChunkInsert(place.File, place.FileOffset, std::move(decoded), &entry_);
  }

 private:
  void Put() {
    if (entry_ != nullptr) ChunkPut(entry_);
    entry_ = nullptr;
  }

  ChunkCacheEntry* entry_ = nullptr;
};

// The caller's buffer, of which the first filled bytes are final. Holes are zeroed as the pieces
// behind them arrive, so that no byte is written twice.
class TargetBuffer {
 public:
  TargetBuffer(std::uint8_t* buffer, std::uint64_t length) : buffer_(buffer), length_(length) {}

  // Sets count bytes at position to those at source in the chunk. A range that lies outside the
  // buffer or the chunk is left out in silence, and stays zero.
  void Copy(std::uint64_t position, std::uint64_t count, const ExpandedChunk& chunk,
            std::uint64_t source) {
    if (position > length_ || count > length_ - position) return;
    if (source > chunk.Size || count > chunk.Size - source) return;
    ZeroUpTo(position);
    const std::uint64_t present =
        source < chunk.PresentBytes ? std::min(count, chunk.PresentBytes - source) : 0;
    std::uint8_t* target = buffer_ + position;
    if (present != 0) std::memcpy(target, chunk.Data.data() + source, present);
    if (present != count) std::memset(target + present, 0, count - present);
    filled_ = std::max(filled_, position + count);
  }

  void ZeroRest() { ZeroUpTo(length_); }

 private:
  void ZeroUpTo(std::uint64_t position) {
    if (position <= filled_) return;
    std::memset(buffer_ + filled_, 0, position - filled_);
    filled_ = position;
  }

  std::uint8_t* buffer_;
  std::uint64_t length_;
  std::uint64_t filled_ = 0;
};

KQStatus CopyPiece(const ReadPiece& piece, const VolumeRange& range, const ExpandedChunk& chunk,
                   TargetBuffer* target) {
  const std::uint64_t runStart =
      std::uint64_t{piece.Chunk->File->WorkSectorSize} * piece.FirstSector;
  // Sectors counts as bytes here, so this finds only runs that begin behind the chunk's end. A run
  // that merely reaches beyond it reads as zero, below. Damaged images keep that much readable.
  if (runStart + piece.Sectors > chunk.Size) return KQ_FAIL(kFileCorrupt);
  target->Copy(piece.Start - range.first, piece.End - piece.Start + 1, chunk,
               runStart + (piece.Start - piece.RunVolumeOffset));
  return Success();
}

KQStatus CopyPieces(const PieceList& pieces, const VolumeRange& range, TargetBuffer* target) {
  CurrentChunk current;
  KQStatus status = Success();
  pieces.ForEach([&](const ReadPiece& piece) {
    const ChunkPlace& place = *piece.Chunk;
    DecodeOutcome outcome = DecodeOutcome::kExpanded;
    status = current.Use(place, &outcome);
    if (Failed(status)) return false;
    // A bad stream ends the pass as though all pieces were done.
    if (outcome == DecodeOutcome::kBadStream) return false;
    status = CopyPiece(piece, range, current.chunk(), target);
    return !Failed(status);
  });
  return status;
}

}  // namespace

KQStatus ChainRead(const ImageChain& chain, std::uint64_t offset, std::uint8_t* buffer,
                   std::uint32_t length) {
  const VolumeRange range = {offset, offset + length - 1};
  TargetBuffer target(buffer, length);
  PieceList pieces;
  KQ_RETURN_IF_FAILED(FindPieces(chain, range, &pieces));
  KQ_RETURN_IF_FAILED(CopyPieces(pieces, range, &target));
  target.ZeroRest();
  return chain.Sparse ? chain.Sparse->ReadInto(offset, buffer, length) : Success();
}

}  // namespace kq
