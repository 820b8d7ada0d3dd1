#include "image/shared_compressor.h"

#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "foundation/memory.h"

namespace kq {

constinit Mutex compressorMutex;
constinit Compressor* SharedCompressor = nullptr;
constinit std::uint32_t compressorUsers = 0;

namespace {

constexpr char kModule[] = "utimagefile";

}  // namespace

KQStatus SharedCompressorAcquire() {
  const MutexLock lock(compressorMutex);
  if (compressorUsers == 0) {
    Owned<Compressor> made = MakeOwned<Compressor>();
    if (!made) return KQ_FAIL(kNotEnoughMemory);
    made->type = kCompressionLzoHuffman;
    made->workArea = HeapBuffer::AllocateAligned(kHuffmanWorkAreaAlignment, kHuffmanWorkAreaBytes);
    if (!made->workArea) return KQ_FAIL(kNotEnoughMemory);
    SharedCompressor = made.release();
  }
  ++compressorUsers;
  return Success();
}

void SharedCompressorRelease() {
  const MutexLock lock(compressorMutex);
  if (--compressorUsers != 0) return;
  Owned<Compressor>(SharedCompressor).reset();
  SharedCompressor = nullptr;
}

bool SharedCompressorDecode(const std::uint8_t* stream, std::uint64_t streamLength,
                            std::uint8_t* output, std::uint64_t* outputLength) {
  const MutexLock lock(compressorMutex);
  const std::uint8_t* lzo = nullptr;
  std::uint64_t lzoLength = 0;
  if (HuffmanStageDecode(stream, streamLength, SharedCompressor->workArea.data(), &lzo,
                         &lzoLength) != StatusCode::kSuccess) {
    return false;
  }
  std::uint64_t consumed = 0;
  return LzoBlockDecompress(lzo, lzoLength, output, outputLength, &consumed) == kLzoSuccess &&
         consumed == lzoLength;
}

}  // namespace kq
