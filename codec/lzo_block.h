// The block codec of compression type 5: frames of a 3-byte length and an LZO1X stream, made by the
// algorithm known as LZO1X-1 in its variant with a 15-bit dictionary. The bytes are fixed: readers
// elsewhere and the second stage of type 6 depend on them.
#ifndef KQ_CODEC_LZO_BLOCK_H
#define KQ_CODEC_LZO_BLOCK_H

#include <cstdint>

namespace kq {

// Bytes of the hash table that LzoBlockCompress works with. It is the caller's, who need not clear
// it: what it held makes no difference to the output.
inline constexpr std::uint64_t kLzoHashTableBytes = 0x40000;

inline constexpr int kLzoSuccess = 0;
inline constexpr int kLzoOutputFull = -1;
inline constexpr int kLzoBadStream = -2;

// Compresses input into output. *outputLength holds the room there on entry and the bytes written
// on success. Returns kLzoSuccess, or kLzoOutputFull if the room does not suffice. hashTable holds
// kLzoHashTableBytes, aligned to 8.
int LzoBlockCompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                     std::uint64_t* outputLength, void* hashTable);

// Expands input into output, never writing beyond the room in *outputLength, which receives the
// bytes of the whole frames done. *consumed receives the input they took. Returns kLzoSuccess,
// which is also the answer when the room ends or the input is cut between frames, so a caller must
// compare *consumed with inputLength; or kLzoBadStream. What the room holds behind the whole frames
// is undefined afterwards.
int LzoBlockDecompress(const std::uint8_t* input, std::uint64_t inputLength, std::uint8_t* output,
                       std::uint64_t* outputLength, std::uint64_t* consumed);

}  // namespace kq

#endif
