// The test for all-zero data that decides whether a chunk needs a body.
#ifndef KQ_CODEC_ALL_ZERO_H
#define KQ_CODEC_ALL_ZERO_H

#include <cstdint>

namespace kq {

// True if every byte is zero; true for length 0. Any alignment.
bool IsAllZero(const void* data, std::uint64_t length);

}  // namespace kq

#endif
