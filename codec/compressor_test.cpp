#include "codec/compressor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "codec/stream_codec_drive.h"

namespace kq {
namespace {

TEST(BuildCompressor, NoCompressionTakesNoState) {
  Compressor compressor;
  EXPECT_EQ(BuildCompressor(kCompressionNone, &compressor), StatusCode::kSuccess);
  EXPECT_EQ(compressor.type, 0U);
  EXPECT_FALSE(compressor.workArea);
  EXPECT_EQ(compressor.stream, nullptr);
}

TEST(BuildCompressor, TypesThreeAndFourOwnTheirEncoder) {
  // Of "aaaa": codes 97, 257, 97 of 9 bits; and four literals.
  const std::vector<std::uint8_t> data(4, 'a');
  Compressor compressor;
  ASSERT_EQ(BuildCompressor(3, &compressor), StatusCode::kSuccess);
  EXPECT_EQ(compressor.type, 3U);
  EXPECT_FALSE(compressor.workArea);
  ASSERT_NE(compressor.stream, nullptr);
  EXPECT_EQ(kqtest::DriveWhole(compressor.stream.get(), data, 100).output,
            (std::vector<std::uint8_t>{0x61, 0x02, 0x86, 0x01}));

  ASSERT_EQ(BuildCompressor(4, &compressor), StatusCode::kSuccess);
  EXPECT_EQ(compressor.type, 4U);
  ASSERT_NE(compressor.stream, nullptr);
  EXPECT_EQ(kqtest::DriveWhole(compressor.stream.get(), data, 100).output,
            (std::vector<std::uint8_t>{0x00, 'a', 'a', 'a', 'a'}));
}

TEST(BuildCompressor, TypeFiveHasAHashTableOfZeros) {
  Compressor compressor;
  ASSERT_EQ(BuildCompressor(5, &compressor), StatusCode::kSuccess);
  EXPECT_EQ(compressor.type, 5U);
  EXPECT_EQ(compressor.stream, nullptr);
  ASSERT_EQ(compressor.workArea.size(), 0x40000U);
  for (const std::uint8_t byte : compressor.workArea.bytes()) ASSERT_EQ(byte, 0);
}

TEST(BuildCompressor, TypeSixHasAWorkAreaOnAPageBoundary) {
  Compressor compressor;
  ASSERT_EQ(BuildCompressor(6, &compressor), StatusCode::kSuccess);
  EXPECT_EQ(compressor.type, 6U);
  EXPECT_EQ(compressor.stream, nullptr);
  ASSERT_EQ(compressor.workArea.size(), 0x200000U);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(compressor.workArea.data()) % 4096, 0U);
}

TEST(BuildCompressor, UnknownTypesAreToldAsExhaustedMemory) {
  for (const std::uint32_t type : {1U, 2U, 7U, 255U, 0xFFFFFFFFU}) {
    Compressor compressor;
    ASSERT_EQ(BuildCompressor(5, &compressor), StatusCode::kSuccess);
    EXPECT_EQ(BuildCompressor(type, &compressor), StatusCode::kNotEnoughMemory);
    EXPECT_EQ(compressor.type, 0U);
    EXPECT_FALSE(compressor.workArea);
    EXPECT_EQ(compressor.stream, nullptr);
  }
}

}  // namespace
}  // namespace kq
