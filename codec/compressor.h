// A codec in use: a compression type and the state it works in.
#ifndef KQ_CODEC_COMPRESSOR_H
#define KQ_CODEC_COMPRESSOR_H

#include <cstdint>

#include "foundation/memory.h"

namespace kq {

class StreamCodec;

inline constexpr std::uint32_t kCompressionNone = 0;
inline constexpr std::uint32_t kCompressionLzw = 3;
inline constexpr std::uint32_t kCompressionLzss = 4;
inline constexpr std::uint32_t kCompressionLzo = 5;
inline constexpr std::uint32_t kCompressionLzoHuffman = 6;

struct Compressor {
  std::uint32_t type = kCompressionNone;
  HeapBuffer workArea;  // types 5 and 6
};

}  // namespace kq

#endif
