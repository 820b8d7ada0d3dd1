// What a fuzz target reads its decisions from: the fuzzer's bytes from the front, zeros behind
// their end, so that each input means something and a longer one only adds to it.
#ifndef KQ_FUZZ_FUZZ_INPUT_H
#define KQ_FUZZ_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "tests/support/bytes.h"

// A property that must hold; the fuzzer keeps the input of a run that ends here.
#define FUZZ_CHECK(condition)       \
  do {                              \
    if (!(condition)) std::abort(); \
  } while (false)

namespace kqfuzz {

using kqtest::Bytes;

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

  bool empty() const { return rest_.empty(); }

  std::uint64_t Number(std::size_t width) {
    const std::uint64_t value = kqtest::GetLe(rest_, 0, width);
    rest_ = rest_.subspan(std::min(width, rest_.size()));
    return value;
  }
  std::uint8_t U8() { return static_cast<std::uint8_t>(Number(1)); }
  std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
  std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
  std::uint64_t U64() { return Number(8); }
  // From first to last, both possible.
  std::uint32_t Between(std::uint32_t first, std::uint32_t last) {
    return first + U16() % (last - first + 1);
  }

  Bytes Take(std::size_t count) {
    count = std::min(count, rest_.size());
    const Bytes taken(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(count));
    rest_ = rest_.subspan(count);
    return taken;
  }
  Bytes Rest() { return Take(rest_.size()); }

 private:
  std::span<const std::uint8_t> rest_;
};

}  // namespace kqfuzz

#endif
