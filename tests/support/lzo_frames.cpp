#include <gtest/gtest.h>
#include <lzo/lzo1x.h>

#include <algorithm>

#include "tests/support/image_builder.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

Bytes WithLength(const Bytes& stream) {
  Bytes frame;
  SetLe(&frame, 0, stream.size(), 3);
  Append(&frame, stream);
  return frame;
}

}  // namespace

Bytes LzoFrame(std::span<const std::uint8_t> data) {
  if (lzo_init() != LZO_E_OK) ADD_FAILURE() << "liblzo2 does not start";
  Bytes stream(data.size() + data.size() / 16 + 64 + 3);
  Bytes work(LZO1X_1_15_MEM_COMPRESS);
  lzo_uint length = stream.size();
  if (lzo1x_1_15_compress(data.data(), data.size(), stream.data(), &length, work.data()) !=
      LZO_E_OK) {
    ADD_FAILURE() << "liblzo2 does not compress";
  }
  stream.resize(length);
  return WithLength(stream);
}

Bytes LzoFrames(std::span<const std::uint8_t> data, std::size_t frameInput) {
  Bytes frames;
  for (std::size_t done = 0; done < data.size(); done += frameInput) {
    Append(&frames, LzoFrame(data.subspan(done, std::min(frameInput, data.size() - done))));
  }
  return frames;
}

Bytes LiteralLzoFrame(std::span<const std::uint8_t> data) {
  Bytes stream;
  if (data.size() > 238) {
    stream.push_back(0);
    std::size_t rest = data.size() - 18;
    for (; rest > 255; rest -= 255) stream.push_back(0);
    stream.push_back(static_cast<std::uint8_t>(rest));
  } else if (!data.empty()) {
    stream.push_back(static_cast<std::uint8_t>(17 + data.size()));
  }
  Append(&stream, data);
  const Bytes end = {0x11, 0, 0};
  Append(&stream, end);
  return WithLength(stream);
}

std::optional<Bytes> ExpandLzoFrames(const Bytes& stream, std::uint64_t expandedBytes) {
  const std::span<const std::uint8_t> all(stream);
  Bytes expanded(expandedBytes);
  std::size_t done = 0;
  std::size_t place = 0;
  while (place < all.size()) {
    const std::size_t frameBytes = GetLe(all, place, 3);
    if (place + 3 + frameBytes > all.size()) return std::nullopt;
    lzo_uint length = expanded.size() - done;
    if (lzo1x_decompress_safe(all.data() + place + 3, frameBytes, expanded.data() + done, &length,
                              nullptr) != LZO_E_OK) {
      return std::nullopt;
    }
    done += length;
    place += 3 + frameBytes;
  }
  expanded.resize(done);
  return expanded;
}

}  // namespace kqtest
