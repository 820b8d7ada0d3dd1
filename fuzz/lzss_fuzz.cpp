// Any bytes as a stream of compression type 4, and as data for its encoder.
#include "codec/lzss_decoder.h"
#include "codec/lzss_encoder.h"
#include "fuzz/stream_codec_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kq::OwnedStreamCodec encoder = kq::LzssEncoder::Create();
  static const kq::Owned<kq::LzssDecoder> decoder = kq::MakeOwned<kq::LzssDecoder>();
  kqfuzz::FuzzStreamCodec(encoder.get(), decoder.get(), kqfuzz::FuzzInput(data, size));
  return 0;
}
