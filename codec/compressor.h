// A codec in use: a compression type and the state it works in.
//
// A Compressor owns its state; what makes one empty destroys it. It has no lock: the writer's
// belongs to its image, and the reader's shared one is guarded by whoever shares it.
#ifndef KQ_CODEC_COMPRESSOR_H
#define KQ_CODEC_COMPRESSOR_H

#include <cstdint>

#include "codec/stream_codec.h"
#include "foundation/memory.h"
#include "foundation/status.h"

namespace kq {

inline constexpr std::uint32_t kCompressionNone = 0;
inline constexpr std::uint32_t kCompressionLzw = 3;
inline constexpr std::uint32_t kCompressionLzss = 4;
inline constexpr std::uint32_t kCompressionLzo = 5;
inline constexpr std::uint32_t kCompressionLzoHuffman = 6;

struct Compressor {
  std::uint32_t type = kCompressionNone;
  HeapBuffer workArea;      // types 5 and 6
  OwnedStreamCodec stream;  // types 3 and 4: an encoder
};

// Builds the state that compressing with the type takes; kCompressionNone takes none. Returns
// kNotEnoughMemory, leaving an empty Compressor, if memory could not be had and for any type that
// is not listed above: clients know an unknown type as exhausted memory.
StatusCode BuildCompressor(std::uint32_t type, Compressor* compressor);

}  // namespace kq

#endif
