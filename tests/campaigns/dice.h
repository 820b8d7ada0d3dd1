// The random numbers of a campaign.
#ifndef KQ_TESTS_CAMPAIGNS_DICE_H
#define KQ_TESTS_CAMPAIGNS_DICE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>

namespace kqtest {

// Random numbers, and data of all kinds that volumes hold.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : random_(seed) {}

  std::uint32_t Below(std::uint64_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  void Fill(std::uint8_t* data, std::size_t size) {
    switch (Below(4)) {
      case 0:
        std::memset(data, 0, size);
        break;
      case 1:
        for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i % 23 + size);
        break;
      default:
        for (std::size_t i = 0; i < size; i += 8) {
          const std::uint64_t word = random_();
          std::memcpy(data + i, &word, std::min<std::size_t>(8, size - i));
        }
    }
  }

 private:
  std::mt19937_64 random_;
};

}  // namespace kqtest

#endif
