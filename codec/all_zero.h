// The test for all-zero data that decides whether a chunk needs a body.
#ifndef KQ_CODEC_ALL_ZERO_H
#define KQ_CODEC_ALL_ZERO_H

#include <cstdint>

namespace kq {

// True if every byte is zero; true for length 0. Any alignment, nothing read outside the data.
bool IsAllZero(const void* data, std::uint64_t length);

// The two ways it is done, for tests and measurements. The second needs a processor with AVX2.
bool IsAllZeroSse2(const void* data, std::uint64_t length);
bool IsAllZeroAvx2(const void* data, std::uint64_t length);

}  // namespace kq

#endif
