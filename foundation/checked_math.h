// Arithmetic on sizes and offsets that come from a file or a caller. Each helper returns false, and
// leaves the result alone, when the true result does not fit into 64 bits.
#ifndef KQ_FOUNDATION_CHECKED_MATH_H
#define KQ_FOUNDATION_CHECKED_MATH_H

#include <cstdint>

namespace kq {

[[nodiscard]] inline bool CheckedAdd(std::uint64_t a, std::uint64_t b, std::uint64_t* sum) {
  std::uint64_t result = 0;
  if (__builtin_add_overflow(a, b, &result)) return false;
  *sum = result;
  return true;
}

[[nodiscard]] inline bool CheckedMultiply(std::uint64_t a, std::uint64_t b,
                                          std::uint64_t* product) {
  std::uint64_t result = 0;
  if (__builtin_mul_overflow(a, b, &result)) return false;
  *product = result;
  return true;
}

// The smallest multiple of unit that is not below value; unit is not 0.
[[nodiscard]] inline bool CheckedRoundUp(std::uint64_t value, std::uint64_t unit,
                                         std::uint64_t* rounded) {
  const std::uint64_t rest = value % unit;
  return CheckedAdd(value, rest == 0 ? 0 : unit - rest, rounded);
}

}  // namespace kq

#endif
