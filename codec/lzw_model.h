// A plain model of the streams of compression type 3 for tests: codes as numbers, strings as
// strings.
#ifndef KQ_CODEC_LZW_MODEL_H
#define KQ_CODEC_LZW_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kqtest {

struct LzwModelStream {
  std::vector<std::uint8_t> bytes;
  std::size_t clears = 0;
  unsigned widest = 0;
  std::size_t fullAt = 0;  // bytes of input taken when the last number was first given
};

inline LzwModelStream LzwModelEncode(const std::vector<std::uint8_t>& input) {
  LzwModelStream stream;
  std::vector<bool> bits;
  std::map<std::pair<unsigned, unsigned>, unsigned> codeOf;  // (prefix, byte)
  unsigned width = 9;
  unsigned next = 257;
  std::uint64_t best = 256;
  std::uint64_t left = 0;  // bytes that have left a buffer of 32 bits

  const auto put = [&](unsigned code) {
    while (32 - (bits.size() - 8 * left) < width) ++left;
    for (unsigned bit = 0; bit < width; ++bit) bits.push_back((code >> bit & 1) != 0);
    stream.widest = std::max(stream.widest, width);
  };

  bool clear = false;
  unsigned prefix = 0;
  for (std::size_t i = 0; i < input.size(); ++i) {
    if (clear) {
      put(256);
      ++stream.clears;
      codeOf.clear();
      width = 9;
      next = 257;
      clear = false;
    }
    if (i == 0) {
      prefix = input[i];
      continue;
    }
    const auto known = codeOf.find({prefix, input[i]});
    if (known != codeOf.end()) {
      prefix = known->second;
      continue;
    }
    put(prefix);
    if (next == 65536) {  // all numbers of 16 bits, the widest, are given
      const std::uint64_t ratio = left * 256 / (i + 1);
      clear = ratio > best;
      if (!clear) best = ratio;
    } else {
      if (next == 1U << width) ++width;
      codeOf[{prefix, input[i]}] = next++;
      if (next == 65536 && stream.fullAt == 0) stream.fullAt = i + 1;
    }
    prefix = input[i];
  }
  if (!input.empty()) put(prefix);

  while (bits.size() % 8 != 0) bits.push_back(false);
  for (std::size_t i = 0; i < bits.size(); i += 8) {
    unsigned byte = 0;
    for (unsigned bit = 0; bit < 8; ++bit) byte += (bits[i + bit] ? 1U : 0U) << bit;
    stream.bytes.push_back(static_cast<std::uint8_t>(byte));
  }
  return stream;
}

// The data of a good stream.
inline std::string LzwModelDecode(const std::vector<std::uint8_t>& stream) {
  std::string data;
  std::vector<std::string> strings;  // from code 257 on
  std::string previous;
  unsigned width = 9;
  std::size_t position = 0;
  while (position + width <= 8 * stream.size()) {
    unsigned code = 0;
    for (unsigned bit = 0; bit < width; ++bit, ++position) {
      code += static_cast<unsigned>(stream[position / 8] >> (position % 8) & 1) << bit;
    }
    if (code == 256) {
      strings.clear();
      previous.clear();
      width = 9;
      continue;
    }
    std::string string;
    if (code < 256) {
      string.assign(1, static_cast<char>(code));
    } else if (code - 257 < strings.size()) {
      string = strings[code - 257];
    } else {
      string = previous + previous.front();
    }
    if (!previous.empty() && strings.size() < 65536 - 257) {
      strings.push_back(previous + string.front());
    }
    if (strings.size() + 257 == 1U << width && width < 16) ++width;
    data += string;
    previous = string;
  }
  return data;
}

}  // namespace kqtest

#endif
