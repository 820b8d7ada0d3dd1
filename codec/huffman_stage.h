// The entropy stage of compression type 6: a canonical Huffman code over the bytes of an LZO stream
// and an end symbol, with its code table in front of each chunk's stream.
#ifndef KQ_CODEC_HUFFMAN_STAGE_H
#define KQ_CODEC_HUFFMAN_STAGE_H

#include <cstdint>

#include "foundation/status.h"

namespace kq {

// The work area that both directions share with the LZO codec, aligned to 4096.
inline constexpr std::uint64_t kHuffmanWorkAreaBytes = 0x200000;
inline constexpr std::uint64_t kHuffmanWorkAreaAlignment = 4096;
// Where the writer's LZO stream stands in the work area, and the room there. The bytes below are
// the LZO hash table first and the encoder's tables afterwards.
inline constexpr std::uint64_t kHuffmanInputOffset = 0x40000;
inline constexpr std::uint64_t kHuffmanInputLimit = 0x1C0000;

// Encodes inputLength bytes that stand at workArea + kHuffmanInputOffset into output. Returns false
// if capacity does not suffice; otherwise *outputLength is the stream's length. The byte behind the
// input, if it lies in the work area, takes part in the choice of the code (see the source).
bool HuffmanStageEncode(std::uint8_t* workArea, std::uint64_t inputLength, std::uint8_t* output,
                        std::uint64_t capacity, std::uint64_t* outputLength);

// Decodes a stream into the work area. On success *decoded points into the work area and
// *decodedLength tells its bytes, an LZO stream. kInvalidData: a bad stream; kNotEnoughMemory: the
// work area is full; both stay inside the chunk decoder.
StatusCode HuffmanStageDecode(const std::uint8_t* stream, std::uint64_t streamLength,
                              std::uint8_t* workArea, const std::uint8_t** decoded,
                              std::uint64_t* decodedLength);

}  // namespace kq

#endif
