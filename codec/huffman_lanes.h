// The fast part of the Huffman decoder: several places of one stream decoded at the same time.
//
// One decoder waits most of its time for the lookup that tells where the next code begins. The
// places where codes begin are known only from the stream's start on, but a decoder that starts
// anywhere soon falls into step with them: from the first code boundary that two decoders share,
// both do the same. So the stream is cut into pieces, a lane decodes each from its first bit, right
// or wrong, and each lane's true begin is where the lane before it meets one of its boundaries.
// A lane that none meets has worked in vain, and the serial decoder does its piece again: the
// outcome never depends on it. Measured on LZO streams of text, records and machine code
// (bench/huffman_bench.cpp): 1.1 to 1.4 GB/s, against 0.47 to 0.62 GB/s of one decoder with the
// same tables.
#ifndef KQ_CODEC_HUFFMAN_LANES_H
#define KQ_CODEC_HUFFMAN_LANES_H

#include <cstdint>

#include "codec/huffman_decoder_tables.h"

namespace kq {

// A stream's code bits.
struct HuffmanCodeBits {
  const std::uint8_t* bytes;
  std::uint64_t length;  // in bytes

  // At least 57 bits from a position on, the first topmost; zeros behind the stream's end.
  std::uint64_t Peek(std::uint64_t bitPosition) const;
};

// How far a decoder has come.
struct HuffmanLane {
  std::uint64_t position;   // in bits
  std::uint64_t limit;      // where its piece ends, in bits
  std::uint8_t* output;     // next byte
  std::uint8_t* outputEnd;  // of its room
};

// Decodes from lane->position for as long as it goes fast, and leaves lane where a serial decoder
// would be at that position. Stops in front of the end symbol, of what is no code, of the limit, of
// the stream's end and of the end of its room, within a few symbols.
void RunHuffmanLane(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code,
                    HuffmanLane* lane);

// The same for a long stream from its start, in several lanes. All of the room between
// lane->output and lane->outputEnd may be written.
void RunHuffmanLanes(const HuffmanDecoderTables& tables, const HuffmanCodeBits& code,
                     HuffmanLane* lane);

// Streams with fewer bytes of code bits are not worth several lanes.
inline constexpr std::uint64_t kHuffmanLanesWorthwhile = 0x4000;

}  // namespace kq

#endif
