// Any bytes as a stream of compression type 3, and as data for its encoder.
#include "codec/lzw_decoder.h"
#include "codec/lzw_encoder.h"
#include "fuzz/stream_codec_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kq::OwnedStreamCodec encoder = kq::LzwEncoder::Create();
  static const kq::Owned<kq::LzwDecoder> decoder = kq::MakeOwned<kq::LzwDecoder>();
  kqfuzz::FuzzStreamCodec(encoder.get(), decoder.get(), kqfuzz::FuzzInput(data, size));
  return 0;
}
