// Test helper: runs a stream codec, encoder or decoder, with its input and output cut anywhere.
#ifndef KQ_CODEC_STREAM_CODEC_DRIVE_H
#define KQ_CODEC_STREAM_CODEC_DRIVE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace kqtest {

struct StreamRun {
  std::vector<std::uint8_t> output;
  std::uint32_t error = 0;
  bool onlyZeros = false;
};

// nextInput and nextOutput give the size of the next piece of input and of output. Every piece is
// a buffer of its own of just that size, so that the sanitizers see each byte too far. If
// newOutput says so, a piece of output is replaced before it is full.
template <class Codec>
StreamRun DriveStream(Codec* codec, const std::vector<std::uint8_t>& input,
                      const std::function<std::size_t()>& nextInput,
                      const std::function<std::size_t()>& nextOutput,
                      const std::function<bool()>& newOutput) {
  StreamRun result;
  std::unique_ptr<std::uint8_t[]> room;
  const auto collect = [&] {
    result.output.insert(result.output.end(), room.get(), room.get() + codec->OutputSize());
  };
  const auto giveRoom = [&] {
    const std::size_t size = nextOutput();
    room = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    codec->SetOutput(room.get(), static_cast<std::uint32_t>(size));
  };
  const auto replaceRoom = [&] {
    collect();
    giveRoom();
  };

  codec->Reset();
  giveRoom();
  std::size_t position = 0;
  while (position < input.size() && result.error == 0) {
    const std::size_t size = std::clamp<std::size_t>(nextInput(), 1, input.size() - position);
    const auto piece = std::make_unique<std::uint8_t[]>(size);
    std::copy_n(input.data() + position, size, piece.get());
    position += size;
    codec->SetInput(piece.get(), static_cast<std::uint32_t>(size));
    while (codec->Run(&result.error)) replaceRoom();
    if (newOutput()) replaceRoom();
  }
  if (result.error == 0) {
    const std::uint8_t end = 0;
    codec->SetInput(&end, 0);
    while (codec->Run(&result.error)) replaceRoom();
  }
  collect();
  result.onlyZeros = codec->SawOnlyZeros();
  return result;
}

// All input at once, and room that is never full.
template <class Codec>
StreamRun DriveWhole(Codec* codec, const std::vector<std::uint8_t>& input, std::size_t room) {
  return DriveStream(
      codec, input, [&] { return input.size(); }, [=] { return room; }, [] { return false; });
}

}  // namespace kqtest

#endif
