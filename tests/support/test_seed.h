// The seed of a random test.
#ifndef KQ_TESTS_SUPPORT_TEST_SEED_H
#define KQ_TESTS_SUPPORT_TEST_SEED_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace kqtest {

// A new seed for each call, or the one that the environment variable KQ_TEST_SEED gives. Printed,
// so that a failing run can be repeated.
inline std::uint32_t TestSeed() {
  const char* given = std::getenv("KQ_TEST_SEED");
  const auto seed = given != nullptr ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 0))
                                     : static_cast<std::uint32_t>(std::random_device{}());
  std::printf("seed %u\n", seed);
  return seed;
}

}  // namespace kqtest

#endif
