// What the fuzz targets of the two stream codecs share. Each decoder gets its input and room in
// pieces of any size; what it makes of a stream must not depend on them, and what it made encodes
// to a stream that decodes to the same.
#ifndef KQ_FUZZ_STREAM_CODEC_FUZZ_H
#define KQ_FUZZ_STREAM_CODEC_FUZZ_H

#include "codec/stream_codec_drive.h"
#include "fuzz/fuzz_input.h"

namespace kqfuzz {

inline constexpr std::size_t kStreamRoom = 1 << 16;
// A stream can grow so much that an input would take seconds.
inline constexpr std::size_t kLargestStream = 1 << 13;

template <class Encoder, class Decoder>
void FuzzStreamCodec(Encoder* encoder, Decoder* decoder, FuzzInput input) {
  const std::size_t inputPiece = 1 + std::size_t{input.U8()};
  const std::size_t outputPiece = 16 + std::size_t{input.U16()};
  const Bytes stream = input.Take(kLargestStream);
  const auto inPieces = [&](auto* codec, const Bytes& bytes) {
    return kqtest::DriveStream(
        codec, bytes, [=] { return inputPiece; }, [=] { return outputPiece; },
        [] { return false; });
  };

  const kqtest::StreamRun whole = kqtest::DriveWhole(decoder, stream, kStreamRoom);
  const kqtest::StreamRun pieces = inPieces(decoder, stream);
  FUZZ_CHECK(whole.error == pieces.error);
  FUZZ_CHECK(whole.error != 0 || whole.output == pieces.output);

  for (const Bytes* plain : {&stream, &whole.output}) {
    const Bytes encoded = kqtest::DriveWhole(encoder, *plain, kStreamRoom).output;
    FUZZ_CHECK(inPieces(encoder, *plain).output == encoded);
    const kqtest::StreamRun again = kqtest::DriveWhole(decoder, encoded, kStreamRoom);
    FUZZ_CHECK(again.error == 0 && again.output == *plain);
  }
}

}  // namespace kqfuzz

#endif
