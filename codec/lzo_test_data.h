// Data for the tests of the block codec, and calls of it that watch the edges of their buffers.
#ifndef KQ_CODEC_LZO_TEST_DATA_H
#define KQ_CODEC_LZO_TEST_DATA_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "codec/lzo_block.h"
#include "codec/lzo_model.h"

namespace kqtest {

// Bytes behind each buffer that must stay as they are. With a sanitizer there are none, so that it
// sees an access too many itself.
#ifdef KQ_SANITIZED
inline constexpr std::size_t kGuardBytes = 0;
#else
inline constexpr std::size_t kGuardBytes = 64;
#endif
inline constexpr std::uint8_t kGuardByte = 0xA5;

class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::size_t size) : size_(size), bytes_(size + kGuardBytes, kGuardByte) {}
  explicit GuardedBuffer(std::span<const std::uint8_t> content) : GuardedBuffer(content.size()) {
    std::copy(content.begin(), content.end(), bytes_.begin());
  }
  std::uint8_t* data() { return bytes_.data(); }
  std::size_t size() const { return size_; }
  bool Intact() const {
    return std::all_of(bytes_.end() - kGuardBytes, bytes_.end(),
                       [](std::uint8_t byte) { return byte == kGuardByte; });
  }

 private:
  std::size_t size_;
  std::vector<std::uint8_t> bytes_;
};

inline std::vector<std::uint64_t> LzoTable(std::uint64_t fill = 0) {
  return std::vector<std::uint64_t>(kq::kLzoHashTableBytes / sizeof(std::uint64_t), fill);
}

// Nothing if the room doesn't suffice. The function is called as LzoBlockCompress.
template <class Function>
std::optional<Bytes> CompressBy(const Function& function, std::span<const std::uint8_t> input,
                                std::size_t room, std::vector<std::uint64_t>* table) {
  GuardedBuffer in(input);
  GuardedBuffer out(room);
  std::uint64_t length = room;
  const int result = function(in.data(), in.size(), out.data(), &length, table->data());
  EXPECT_TRUE(out.Intact());
  if (result == kq::kLzoOutputFull) return std::nullopt;
  EXPECT_EQ(result, kq::kLzoSuccess);
  EXPECT_LE(length, room);
  return Bytes(out.data(), out.data() + length);
}

inline std::optional<Bytes> Compress(std::span<const std::uint8_t> input, std::size_t room,
                                     std::vector<std::uint64_t>* table) {
  return CompressBy(kq::LzoBlockCompress, input, room, table);
}

inline std::optional<Bytes> Compress(std::span<const std::uint8_t> input, std::size_t room) {
  std::vector<std::uint64_t> table = LzoTable();
  return Compress(input, room, &table);
}

inline LzoModelDecoded Decompress(std::span<const std::uint8_t> input, std::size_t room) {
  GuardedBuffer in(input);
  GuardedBuffer out(room);
  std::uint64_t length = room;
  std::uint64_t consumed = 0;
  LzoModelDecoded decoded;
  decoded.result = kq::LzoBlockDecompress(in.data(), in.size(), out.data(), &length, &consumed);
  EXPECT_TRUE(out.Intact());
  EXPECT_LE(length, room);
  decoded.output.assign(out.data(), out.data() + length);
  decoded.consumed = consumed;
  return decoded;
}

// Output room that keeps input of this size in one frame.
inline std::size_t OneFrameRoom(std::size_t size) { return 3 + size + size / 16 + 68; }

// ---- Data of several kinds ----

using Random = std::mt19937_64;

inline Bytes RandomBytes(Random* random, std::size_t size, unsigned symbols = 256) {
  Bytes bytes(size);
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>((*random)() % symbols);
  return bytes;
}

// Words of a small vocabulary, as text has them.
inline Bytes TextBytes(Random* random, std::size_t size) {
  std::vector<Bytes> words;
  for (int i = 0; i < 300; ++i) {
    Bytes word = RandomBytes(random, 1 + (*random)() % 9, 26);
    for (std::uint8_t& byte : word) byte = static_cast<std::uint8_t>(byte + 'a');
    word.push_back(' ');
    words.push_back(word);
  }
  Bytes text;
  while (text.size() < size) {
    const Bytes& word = words[std::min((*random)() % words.size(), (*random)() % words.size())];
    text.insert(text.end(), word.begin(), word.end());
  }
  text.resize(size);
  return text;
}

// Noise that copies earlier stretches of itself, with lengths and distances around the bounds of
// the match forms.
inline Bytes CopyingBytes(Random* random, std::size_t size) {
  constexpr std::size_t kDistances[] = {1,      2,      3,      4,      5,      7,      8,
                                        9,      15,     16,     17,     31,     33,     0x7FF,
                                        0x800,  0x801,  0x3FFF, 0x4000, 0x4001, 0x7FFF, 0x8000,
                                        0x8001, 0xBFFE, 0xBFFF, 0xC000, 0xC001};
  constexpr std::size_t kLengths[] = {3,  4,  5,  7,   8,   9,   10,  11,  16,  17, 32,
                                      33, 34, 35, 263, 264, 265, 287, 288, 289, 600};
  constexpr std::size_t kRuns[] = {0, 1, 2, 3, 4, 5, 8, 15, 16, 17, 18, 19, 20, 238, 272, 273, 274};
  Bytes bytes = RandomBytes(random, 5);
  while (bytes.size() < size) {
    for (std::size_t i = kRuns[(*random)() % std::size(kRuns)]; i > 0; --i) {
      bytes.push_back(static_cast<std::uint8_t>((*random)()));
    }
    std::size_t distance = kDistances[(*random)() % std::size(kDistances)];
    if ((*random)() % 2 == 0) distance = 1 + (*random)() % 0xC100;
    if (distance > bytes.size()) continue;
    for (std::size_t i = kLengths[(*random)() % std::size(kLengths)]; i > 0; --i) {
      const std::uint8_t byte = bytes[bytes.size() - distance];
      bytes.push_back(byte);
    }
  }
  bytes.resize(size);
  return bytes;
}

// A stretch of this very program.
inline Bytes ProgramBytes(Random* random, std::size_t size) {
  std::ifstream file("/proc/self/exe", std::ios::binary | std::ios::ate);
  const auto held = static_cast<std::size_t>(file.tellg());
  size = std::min(size, held);
  file.seekg(static_cast<std::streamoff>((*random)() % (held - size + 1)));
  Bytes bytes(size);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
  return bytes;
}

inline constexpr unsigned kKindsOfData = 7;
inline Bytes DataOfKind(unsigned kind, Random* random, std::size_t size) {
  switch (kind) {
    case 0:
      return RandomBytes(random, size);
    case 1:
      return RandomBytes(random, size, 2);
    case 2:
      return RandomBytes(random, size, 12);
    case 3:
      return TextBytes(random, size);
    case 4:
      return CopyingBytes(random, size);
    case 5:
      return ProgramBytes(random, size);
    default:
      return Bytes(size, static_cast<std::uint8_t>((*random)()));
  }
}

}  // namespace kqtest

#endif
