// Test data for the stream codecs: from a seed, as compressible as wanted.
#ifndef KQ_CODEC_STREAM_CODEC_DATA_H
#define KQ_CODEC_STREAM_CODEC_DATA_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/random_numbers.h"

namespace kqtest {

// Bytes below alphabet, with earlier stretches repeated now and then: one in repeatEvery items.
inline std::vector<std::uint8_t> RepetitiveBytes(RandomNumbers* random, std::size_t size,
                                                 unsigned alphabet, unsigned repeatEvery) {
  std::vector<std::uint8_t> data;
  while (data.size() < size) {
    if (data.size() > 4 && (*random)() % repeatEvery == 0) {
      const std::size_t distance = 1 + (*random)() % data.size();
      for (std::size_t length = 2 + (*random)() % 40; length > 0 && data.size() < size; --length) {
        data.push_back(data[data.size() - distance]);
      }
    } else {
      data.push_back(static_cast<std::uint8_t>((*random)() % alphabet));
    }
  }
  return data;
}

}  // namespace kqtest

#endif
