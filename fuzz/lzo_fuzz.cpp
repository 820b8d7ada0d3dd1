// Any bytes as a compressed data area of type 5. What decodes, and the input itself, compress to
// frames that decode to the same.
#include <cstdint>

#include "codec/lzo_block.h"
#include "fuzz/fuzz_input.h"

namespace {

constexpr std::size_t kRoom = 1 << 16;

void GoRound(const kqfuzz::Bytes& plain) {
  static std::uint64_t table[kq::kLzoHashTableBytes / sizeof(std::uint64_t)];
  kqfuzz::Bytes compressed(plain.size() + plain.size() / 8 + 128);
  std::uint64_t length = compressed.size();
  FUZZ_CHECK(kq::LzoBlockCompress(plain.data(), plain.size(), compressed.data(), &length, table) ==
             kq::kLzoSuccess);
  compressed.resize(length);
  kqfuzz::Bytes expanded(plain.size());
  std::uint64_t expandedLength = expanded.size();
  std::uint64_t consumed = 0;
  FUZZ_CHECK(kq::LzoBlockDecompress(compressed.data(), compressed.size(), expanded.data(),
                                    &expandedLength, &consumed) == kq::kLzoSuccess);
  FUZZ_CHECK(consumed == compressed.size() && expandedLength == plain.size());
  FUZZ_CHECK(expanded == plain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kqfuzz::FuzzInput input(data, size);
  const std::uint32_t room = input.U16() % 4 == 0 ? input.U16() : kRoom;
  const kqfuzz::Bytes stream = input.Rest();
  kqfuzz::Bytes output(room, 0xAA);
  std::uint64_t length = room;
  std::uint64_t consumed = 0;
  const int result =
      kq::LzoBlockDecompress(stream.data(), stream.size(), output.data(), &length, &consumed);
  if (result == kq::kLzoSuccess) {
    FUZZ_CHECK(length <= room && consumed <= stream.size());
    output.resize(length);
    GoRound(output);
  }
  GoRound(stream);
  return 0;
}
