// The counts of a ChunkHead are 32 bits wide and may claim terabytes, so memory follows what the
// file really holds:
//
// - A chunk's size is a u32. Sizes beyond it give -8, as memory that can't be had.
// - What a raw chunk claims beyond its file's end, and all data of a chunk without a body, is zero
//   and takes no memory (ExpandedChunk).
// - A compressed or enciphered body that claims more than its file holds is filled up with zeros,
//   but with no more than kLongestTail. That decides nothing for a compressed stream: no stream
//   that goes on for longer in zeros decodes (see there). An enciphered one gives -8.
// - A stream can't expand without bounds, whatever ExpandedSectors says (LargestExpansion).
#include "image/chunk_decode.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "codec/compressor.h"
#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "foundation/checked_math.h"
#include "foundation/little_endian.h"
#include "image/shared_compressor.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

constexpr std::uint64_t kLargestSize = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kLengthBytes = 4;  // the stream's length in front of it

// Zeros that a body may have behind its file's end and still decode: an LZO frame of at most
// 0xFFFFFF bytes can end in bytes that nobody looks at, and no frame starts in zeros. A Huffman
// stream of zeros fills the work area with far less.
constexpr std::uint64_t kLongestTail = 0x1010000;

// The stored form of a chunk: its sectors as far as the file holds them, zero behind.
class StoredChunk {
 public:
  StoredChunk() = default;
  StoredChunk(const StoredChunk&) = delete;
  StoredChunk& operator=(const StoredChunk&) = delete;
  ~StoredChunk() {
    if (memory_) GiveBackStoredMemory(std::move(memory_));
  }

  // Not initialised. What is expanded already stays where it is read.
  bool Allocate(std::uint64_t size, bool isExpanded) {
    size_ = size;
    if (isExpanded) {
      expanded_ = AllocateChunk(size);
      return static_cast<bool>(expanded_);
    }
    memory_ = TakeStoredMemory(size);
    return memory_ != nullptr;
  }

  std::uint8_t* data() { return memory_ ? memory_->Bytes.data() : expanded_.data(); }
  const std::uint8_t* data() const { return memory_ ? memory_->Bytes.data() : expanded_.data(); }
  std::uint64_t size() const { return size_; }
  // Of what is expanded already.
  HeapBuffer Release() { return std::move(expanded_); }

  std::uint64_t heldBytes = 0;  // that came from the file

 private:
  Owned<StoredMemory> memory_;
  HeapBuffer expanded_;
  std::uint64_t size_ = 0;
};

KQStatus ReadStored(const ChunkPlace& place, std::uint64_t storedBytes, bool isExpanded,
                    bool needsTail, StoredChunk* stored) {
  const std::uint64_t readable = ReadableLength(*place.File, place.FileOffset, storedBytes);
  const std::uint64_t size = needsTail ? std::min(storedBytes, readable + kLongestTail) : readable;
  if (!stored->Allocate(size, isExpanded)) return KQ_FAIL(kNotEnoughMemory);
  std::uint32_t held = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(place.File->File, place.FileOffset, stored->data(),
                                        static_cast<std::uint32_t>(readable), &held));
  stored->heldBytes = held;
  std::memset(stored->data() + held, 0, size - held);
  return Success();
}

KQStatus Decipher(const ChunkPlace& place, StoredChunk* stored) {
  const std::uint64_t head = place.File->WorkSectorSize;
  const std::uint64_t storedBytes = head * place.StoredSectors;
  if (stored->size() < storedBytes) return KQ_FAIL(kNotEnoughMemory);
  alignas(16) std::uint8_t vector[16] = {};
  StoreU64(vector, place.ChunkVolumeOffset);
  std::uint8_t* body = stored->data() + head;
  if (Failed(ImageDecipherRun(*place.File->Crypto, body, body,
                              static_cast<std::uint32_t>(storedBytes - head), vector))) {
    return KQ_FAIL(kDecryptionFailed);
  }
  stored->heldBytes = storedBytes;
  return Success();
}

// No stream of that length, of which so much came from the file, expands to more: every byte of an
// LZO stream adds 255 bytes at most, and type 6 keeps the LZO stream in its work area.
std::uint64_t LargestExpansion(std::uint32_t compressionType, std::uint64_t streamLength,
                               std::uint64_t heldLength) {
  const std::uint64_t lzoLength = compressionType == kCompressionLzoHuffman
                                      ? std::min(streamLength * 8, kHuffmanWorkAreaBytes)
                                      : heldLength;
  return lzoLength * 256;
}

KQStatus Expand(const ChunkPlace& place, const StoredChunk& stored, std::uint64_t size,
                ExpandedChunk* chunk, DecodeOutcome* outcome) {
  const std::uint64_t head = place.File->WorkSectorSize;
  // A work sector is 512 bytes or more, so the body holds the length at least.
  const std::uint64_t bodyBytes = head * place.StoredSectors - head;
  const std::uint32_t streamLength = LoadU32(stored.data() + head);
  if (streamLength + kLengthBytes > bodyBytes) return KQ_FAIL(kInvalidData);

  const std::uint8_t* stream = stored.data() + head + kLengthBytes;
  const std::uint64_t present =
      std::min<std::uint64_t>(streamLength, stored.size() - head - kLengthBytes);
  // Zeros behind the file's end add nothing to a stream that decodes, but for what a last byte of
  // the file begins.
  const std::uint64_t held = stored.heldBytes > head ? stored.heldBytes - head + 1 : 1;
  const std::uint32_t type = place.File->CompressionType;
  std::uint64_t outputLength =
      std::min(size - head, LargestExpansion(type, present, std::min(present, held)));
  HeapBuffer expanded = AllocateChunk(head + outputLength);
  if (!expanded) return KQ_FAIL(kNotEnoughMemory);
  std::memcpy(expanded.data(), stored.data(), head);

  bool good = false;
  if (type == kCompressionLzoHuffman) {
    good = SharedCompressorDecode(stream, present, expanded.data() + head, &outputLength);
  } else {
    std::uint64_t consumed = 0;
    good = LzoBlockDecompress(stream, present, expanded.data() + head, &outputLength, &consumed) ==
               kLzoSuccess &&
           consumed == streamLength;
  }
  if (!good) {
    *outcome = DecodeOutcome::kBadStream;
    return Success();
  }
  // A stream may yield less than the chunk claims; the rest is zero.
  chunk->Data = std::move(expanded);
  chunk->PresentBytes = static_cast<std::uint32_t>(head + outputLength);
  return Success();
}

}  // namespace

KQStatus ChunkDecode(const ChunkPlace& place, ExpandedChunk* chunk, DecodeOutcome* outcome) {
  const OpenImageFile& file = *place.File;
  const std::uint32_t storedSectors = place.StoredSectors;
  *outcome = DecodeOutcome::kExpanded;
  if (storedSectors == 0 || place.ExpandedSectors < 2 || storedSectors > place.ExpandedSectors) {
    return KQ_FAIL(kFileCorrupt);
  }
  const bool isRaw = storedSectors == place.ExpandedSectors;
  if (file.CompressionType == kCompressionNone && !isRaw) return KQ_FAIL(kFileCorrupt);

  const std::uint64_t storedBytes = std::uint64_t{storedSectors} * file.WorkSectorSize;
  if (storedBytes > kLargestSize) return KQ_FAIL(kNotEnoughMemory);
  const bool isCiphered = storedSectors != 1 && file.EncryptionType != 0;
  // Raw, or the ChunkHead alone, behind which everything is zero.
  const bool isExpanded = isRaw || storedSectors == 1;
  StoredChunk stored;
  KQ_RETURN_IF_FAILED(ReadStored(place, storedBytes, isExpanded, isCiphered || !isRaw, &stored));
  if (isCiphered) KQ_RETURN_IF_FAILED(Decipher(place, &stored));

  const std::uint64_t size = std::uint64_t{place.ExpandedSectors} * file.WorkSectorSize;
  if (size > kLargestSize) return KQ_FAIL(kNotEnoughMemory);
  chunk->Size = static_cast<std::uint32_t>(size);
  if (!isExpanded) return Expand(place, stored, size, chunk, outcome);

  chunk->PresentBytes = static_cast<std::uint32_t>(stored.heldBytes);
  chunk->Data = stored.Release();
  return Success();
}

}  // namespace kq
