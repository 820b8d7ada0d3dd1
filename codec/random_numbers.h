// Random numbers for tests: a generator whose numbers are 32 bits wide by their type as well.
#ifndef KQ_CODEC_RANDOM_NUMBERS_H
#define KQ_CODEC_RANDOM_NUMBERS_H

#include <cstdint>
#include <random>

namespace kqtest {

class RandomNumbers {
 public:
  using result_type = std::uint32_t;
  explicit RandomNumbers(std::uint32_t seed) : engine_(seed) {}
  static constexpr result_type min() { return 0; }
  static constexpr result_type max() { return 0xFFFFFFFF; }
  result_type operator()() { return static_cast<result_type>(engine_()); }

 private:
  std::mt19937 engine_;
};

}  // namespace kqtest

#endif
