#include "kqimage/pieces/block_compare.h"

#include <algorithm>
#include <cstring>

namespace kqimage {
namespace {

template <typename IsStored>
std::vector<Stretch> CollectStretches(std::size_t size, IsStored isStored) {
  std::vector<Stretch> stretches;
  for (std::size_t offset = 0; offset < size; offset += kBlockBytes) {
    const std::size_t length = std::min(kBlockBytes, size - offset);
    if (!isStored(offset, length)) continue;
    if (!stretches.empty() && stretches.back().offset + stretches.back().length == offset) {
      stretches.back().length += length;
    } else {
      stretches.push_back({offset, length});
    }
  }
  return stretches;
}

}  // namespace

bool IsZero(std::span<const std::byte> bytes) {
  // The first byte is zero and each byte equals the one before it: memcmp does this at the speed of
  // memory, and most data end it in the first few bytes.
  return bytes.empty() || (bytes[0] == std::byte{0} &&
                           std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

std::vector<Stretch> NonZeroStretches(std::span<const std::byte> bytes) {
  return CollectStretches(bytes.size(), [&](std::size_t offset, std::size_t length) {
    return !IsZero(bytes.subspan(offset, length));
  });
}

std::vector<Stretch> DifferentStretches(std::span<const std::byte> a,
                                        std::span<const std::byte> b) {
  if (std::memcmp(a.data(), b.data(), a.size()) == 0) return {};
  return CollectStretches(a.size(), [&](std::size_t offset, std::size_t length) {
    return std::memcmp(a.data() + offset, b.data() + offset, length) != 0;
  });
}

}  // namespace kqimage
