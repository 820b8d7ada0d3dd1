// Plain decoders of all compressed streams that an image can hold, for tests of writers. They take
// one step at a time and share nothing with the library's codecs; LZO1X itself is liblzo2's.
#ifndef KQ_TESTS_SUPPORT_EXPAND_STREAM_H
#define KQ_TESTS_SUPPORT_EXPAND_STREAM_H

#include <cstdint>
#include <optional>

#include "tests/support/bytes.h"

namespace kqtest {

// The LZO stream inside a stream of type 6; empty if the stream is damaged or holds more than its
// end symbol and padding need.
std::optional<Bytes> ExpandHuffman(const Bytes& stream);

std::optional<Bytes> ExpandLzw(const Bytes& stream);
std::optional<Bytes> ExpandLzss(const Bytes& stream);

// For ParseOptions::expand, any compression type.
std::optional<Bytes> ExpandStream(std::uint32_t compressionType, const Bytes& stream,
                                  std::uint64_t expandedBytes);

}  // namespace kqtest

#endif
