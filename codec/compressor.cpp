#include "codec/compressor.h"

#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "codec/lzss_encoder.h"
#include "codec/lzw_encoder.h"

namespace kq {

StatusCode BuildCompressor(std::uint32_t type, Compressor* compressor) {
  *compressor = Compressor();
  switch (type) {
    case kCompressionNone:
      return StatusCode::kSuccess;
    case kCompressionLzw:
      compressor->stream = LzwEncoder::Create();
      break;
    case kCompressionLzss:
      compressor->stream = LzssEncoder::Create();
      break;
    // Both work areas begin with the LZO hash table, whose old entries may change the stream:
    // zeroed, the same data always gives the same file.
    case kCompressionLzo:
      compressor->workArea = HeapBuffer::AllocateZeroed(kLzoHashTableBytes);
      break;
    case kCompressionLzoHuffman:
      compressor->workArea =
          HeapBuffer::AllocateAlignedZeroed(kHuffmanWorkAreaAlignment, kHuffmanWorkAreaBytes);
      break;
    default:
      break;
  }
  if (!compressor->workArea && !compressor->stream) return StatusCode::kNotEnoughMemory;
  compressor->type = type;
  return StatusCode::kSuccess;
}

}  // namespace kq
