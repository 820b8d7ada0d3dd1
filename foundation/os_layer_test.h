// What the tests of the operating-system layer share.
#ifndef KQ_FOUNDATION_OS_LAYER_TEST_H
#define KQ_FOUNDATION_OS_LAYER_TEST_H

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "foundation/status.h"

namespace kqtest {

using Bytes = std::vector<std::uint8_t>;

// Bytes that differ at neighbouring positions and between blocks.
inline Bytes Pattern(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  return bytes;
}

// A failure that the operating system reported.
inline void ExpectSystemFailure(const KQStatus& status, int code, int error) {
  EXPECT_EQ(status.status, code);
  EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(error));
  EXPECT_EQ(status.detail2, 2U);
  EXPECT_STREQ(status.file, "kqos_linux");
  EXPECT_NE(status.line, 0);
}

// A failure that a module of the library noticed by itself.
inline void ExpectOwnFailure(const KQStatus& status, int code, const char* module) {
  EXPECT_EQ(status.status, code);
  EXPECT_EQ(status.detail1, 0U);
  EXPECT_EQ(status.detail2, 0U);
  EXPECT_STREQ(status.file, module);
  EXPECT_NE(status.line, 0);
}

}  // namespace kqtest

#endif
