// The decoder of the Huffman stage. It runs fast as far as that goes and does the rest, and
// whatever ends a stream, one symbol at a time.

#include <new>

#include "codec/huffman_decoder_tables.h"
#include "codec/huffman_lanes.h"
#include "codec/huffman_stage.h"

namespace kq {
namespace {

// Where the decoded bytes stand: behind the tables, up to the work area's end.
constexpr std::uint64_t kDecodedOffset = 0x10000;
static_assert(sizeof(HuffmanDecoderTables) <= kDecodedOffset);
static_assert(alignof(HuffmanDecoderTables) <= kHuffmanWorkAreaAlignment);
static_assert(kHuffmanWorkAreaBytes - kDecodedOffset >= kHuffmanInputLimit,
              "every stream that the encoder makes must decode");

}  // namespace

StatusCode HuffmanStageDecode(const std::uint8_t* stream, std::uint64_t streamLength,
                              std::uint8_t* workArea, const std::uint8_t** decoded,
                              std::uint64_t* decodedLength) {
  auto* const tables = ::new (static_cast<void*>(workArea)) HuffmanDecoderTables;
  const std::uint64_t tableLength = ReadHuffmanTables(stream, streamLength, tables);
  if (tableLength == 0) return StatusCode::kInvalidData;

  const HuffmanCodeBits code = {.bytes = stream + tableLength,
                                .length = streamLength - tableLength};
  const std::uint64_t bitCount = 8 * code.length;
  std::uint8_t* const start = workArea + kDecodedOffset;
  HuffmanLane lane = {.position = 0,
                      .limit = bitCount,
                      .output = start,
                      .outputEnd = workArea + kHuffmanWorkAreaBytes};
  if (code.length >= kHuffmanLanesWorthwhile) RunHuffmanLanes(*tables, code, &lane);
  for (;;) {
    lane.limit = bitCount;
    RunHuffmanLane(*tables, code, &lane);

    const std::uint64_t bits = code.Peek(lane.position);
    const std::uint32_t length = FindHuffmanCode(*tables, bits);
    if (length == 0 || length > bitCount - lane.position) return StatusCode::kInvalidData;
    const std::uint64_t value = bits >> (64 - length);
    if (value == tables->endCode) break;
    if (lane.output == lane.outputEnd) return StatusCode::kNotEnoughMemory;
    *lane.output++ = HuffmanByteOf(*tables, length, value);
    lane.position += length;
  }
  *decoded = start;
  *decodedLength = static_cast<std::uint64_t>(lane.output - start);
  return StatusCode::kSuccess;
}

}  // namespace kq
