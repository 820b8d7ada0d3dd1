#include "image/chunk_encode.h"

#include <cstring>

#include "codec/all_zero.h"
#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

constexpr std::uint32_t kLengthBytes = sizeof(std::uint32_t);  // in front of a stream

enum class Outcome { kAllZero, kCompressed, kRaw };

// Data to compress and the room for its stream.
struct CodecCall {
  const std::uint8_t* data;
  std::uint32_t dataBytes;
  std::uint8_t* stream;
  std::uint64_t streamBytes;  // room before, length after
};

Outcome CompressLzo(CodecCall* call, HeapBuffer* workArea) {
  if (IsAllZero(call->data, call->dataBytes)) return Outcome::kAllZero;
  const int result = LzoBlockCompress(call->data, call->dataBytes, call->stream, &call->streamBytes,
                                      workArea->data());
  return result == kLzoSuccess ? Outcome::kCompressed : Outcome::kRaw;
}

Outcome CompressLzoHuffman(CodecCall* call, HeapBuffer* workArea) {
  if (IsAllZero(call->data, call->dataBytes)) return Outcome::kAllZero;
  std::uint64_t lzoBytes = kHuffmanInputLimit;
  if (call->streamBytes == 0 ||
      LzoBlockCompress(call->data, call->dataBytes, workArea->data() + kHuffmanInputOffset,
                       &lzoBytes, workArea->data()) != kLzoSuccess) {
    return Outcome::kRaw;
  }
  return HuffmanStageEncode(workArea->data(), lzoBytes, call->stream, call->streamBytes,
                            &call->streamBytes)
             ? Outcome::kCompressed
             : Outcome::kRaw;
}

// The stream codecs notice zeros while they compress, and tell of them only for a stream that fits.
Outcome CompressStream(CodecCall* call, StreamCodec* codec) {
  std::uint32_t error = 0;
  codec->Reset();
  codec->SetInput(call->data, call->dataBytes);
  codec->SetOutput(call->stream, static_cast<std::uint32_t>(call->streamBytes));
  if (codec->Run(&error) || error != 0) return Outcome::kRaw;

  codec->SetInput(call->data + call->dataBytes, 0);
  // The first call may say that it is done by asking for one more.
  const bool again = codec->Run(&error);
  if (error != 0) return Outcome::kRaw;
  if (again && (codec->Run(&error) || error != 0)) return Outcome::kRaw;
  call->streamBytes = codec->OutputSize();
  return codec->SawOnlyZeros() ? Outcome::kAllZero : Outcome::kCompressed;
}

Outcome Compress(CodecCall* call, Compressor* compressor) {
  switch (compressor->type) {
    case kCompressionLzo:
      return CompressLzo(call, &compressor->workArea);
    case kCompressionLzoHuffman:
      return CompressLzoHuffman(call, &compressor->workArea);
    default:
      return CompressStream(call, compressor->stream.get());
  }
}

void EndRunList(const RunWriter& runs) {
  if (runs.Cursor >= runs.End) return;
  *runs.Cursor = kRunListEnd;
  std::memset(runs.Cursor + 1, 0, static_cast<std::size_t>(runs.End - runs.Cursor - 1));
}

}  // namespace

KQStatus EncodeChunk(NewChunk* chunk, EncodedChunk* encoded) {
  EndRunList(chunk->ChunkRuns);
  const std::uint32_t sectorSize = chunk->SectorSize;
  const std::uint32_t expandedSectors = (chunk->ChunkFill + sectorSize - 1) / sectorSize;
  std::uint8_t* const plain = chunk->ChunkBuffer.data();
  // A client may have filled the last sector in part.
  std::memset(plain + chunk->ChunkFill, 0,
              std::size_t{expandedSectors} * sectorSize - chunk->ChunkFill);
  *encoded = {plain, expandedSectors, expandedSectors, chunk->ChunkVolumeOffset};
  if (!chunk->Compressor) return Success();

  const std::uint32_t dataBytes = chunk->ChunkFill - sectorSize;
  if (dataBytes < kLengthBytes) return KQ_FAIL(kInvalidData);
  if (!chunk->ChunkScratch) {
    chunk->ChunkScratch = HeapBuffer::Allocate(chunk->ChunkBufferSize);
    if (!chunk->ChunkScratch) return KQ_FAIL(kNotEnoughMemory);
  }
  std::uint8_t* const scratch = chunk->ChunkScratch.data();
  CodecCall call = {plain + sectorSize, dataBytes, scratch + sectorSize + kLengthBytes,
                    dataBytes - kLengthBytes};
  switch (Compress(&call, chunk->Compressor.get())) {
    case Outcome::kAllZero:
      encoded->storedSectors = 1;
      return Success();
    case Outcome::kRaw:
      return Success();
    case Outcome::kCompressed:
      break;
  }

  const auto streamBytes = static_cast<std::uint32_t>(call.streamBytes);
  const std::uint32_t storedSectors = (streamBytes + kLengthBytes - 1) / sectorSize + 2;
  if (storedSectors == expandedSectors) return Success();
  std::memcpy(scratch, plain, sectorSize);
  StoreU32(scratch + sectorSize, streamBytes);
  std::uint8_t* const streamEnd = call.stream + streamBytes;
  std::memset(
      streamEnd, 0,
      static_cast<std::size_t>(scratch + std::size_t{storedSectors} * sectorSize - streamEnd));
  encoded->source = scratch;
  encoded->storedSectors = storedSectors;
  return Success();
}

KQStatus EncipherChunk(const CryptoContext* key, const NewChunk& chunk,
                       const EncodedChunk& encoded) {
  if (key == nullptr || encoded.storedSectors < 2) return Success();
  // The vector is the chunk's place in the volume, so that equal chunks do not look equal.
  std::uint8_t vector[16] = {};
  StoreU64(vector, encoded.volumeOffset);
  std::uint8_t* body = encoded.source + chunk.SectorSize;
  if (Failed(ImageEncipherRun(*key, body, body, (encoded.storedSectors - 1) * chunk.SectorSize,
                              vector))) {
    return KQ_FAIL(kEncryptionFailed);
  }
  return Success();
}

}  // namespace kq
