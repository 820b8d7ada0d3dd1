// Any bytes as a stream of type 6's second stage. What decodes, and the input itself, encode to a
// stream that decodes to the same.
#include <algorithm>
#include <cstring>

#include "codec/huffman_stage.h"
#include "fuzz/fuzz_input.h"

namespace {

struct WorkArea {
  alignas(kq::kHuffmanWorkAreaAlignment) std::uint8_t bytes[kq::kHuffmanWorkAreaBytes];
};

void GoRound(std::span<const std::uint8_t> plain) {
  static WorkArea area;
  if (plain.empty()) return;
  std::copy(plain.begin(), plain.end(), area.bytes + kq::kHuffmanInputOffset);
  kqfuzz::Bytes stream(plain.size() * 4 + 4096);
  std::uint64_t length = 0;
  FUZZ_CHECK(
      kq::HuffmanStageEncode(area.bytes, plain.size(), stream.data(), stream.size(), &length));
  FUZZ_CHECK(length <= stream.size());
  stream.resize(length);
  const std::uint8_t* decoded = nullptr;
  std::uint64_t decodedLength = 0;
  FUZZ_CHECK(kq::HuffmanStageDecode(stream.data(), stream.size(), area.bytes, &decoded,
                                    &decodedLength) == kq::StatusCode::kSuccess);
  FUZZ_CHECK(std::ranges::equal(std::span(decoded, decodedLength), plain));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static WorkArea area;
  const kqfuzz::Bytes stream(data, data + size);
  const std::uint8_t* decoded = nullptr;
  std::uint64_t decodedLength = 0;
  if (kq::HuffmanStageDecode(stream.data(), stream.size(), area.bytes, &decoded, &decodedLength) ==
      kq::StatusCode::kSuccess) {
    FUZZ_CHECK(decoded >= area.bytes &&
               decodedLength <=
                   static_cast<std::uint64_t>(area.bytes + sizeof area.bytes - decoded));
    if (decodedLength <= kq::kHuffmanInputLimit) {
      const kqfuzz::Bytes plain(decoded, decoded + decodedLength);
      GoRound(plain);
    }
  }
  GoRound(stream);
  return 0;
}
