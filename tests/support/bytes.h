// Byte strings as the tests write them: little-endian integers at any place, and test data.
#ifndef KQ_TESTS_SUPPORT_BYTES_H
#define KQ_TESTS_SUPPORT_BYTES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kqtest {

using Bytes = std::vector<std::uint8_t>;

// Stores the lowest width bytes of value at offset, growing the string as needed.
inline void SetLe(Bytes* bytes, std::size_t offset, std::uint64_t value, std::size_t width) {
  if (bytes->size() < offset + width) bytes->resize(offset + width);
  for (std::size_t i = 0; i < width; ++i) {
    (*bytes)[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}
inline void Set16(Bytes* bytes, std::size_t offset, std::uint64_t value) {
  SetLe(bytes, offset, value, 2);
}
inline void Set32(Bytes* bytes, std::size_t offset, std::uint64_t value) {
  SetLe(bytes, offset, value, 4);
}
inline void Set64(Bytes* bytes, std::size_t offset, std::uint64_t value) {
  SetLe(bytes, offset, value, 8);
}

// Stores the bytes at offset, growing the string as needed.
inline void SetBytes(Bytes* bytes, std::size_t offset, std::span<const std::uint8_t> content) {
  if (bytes->size() < offset + content.size()) bytes->resize(offset + content.size());
  for (std::size_t i = 0; i < content.size(); ++i) (*bytes)[offset + i] = content[i];
}

inline void Append(Bytes* bytes, std::span<const std::uint8_t> content) {
  SetBytes(bytes, bytes->size(), content);
}

// What lies behind the end reads as zero.
inline std::uint64_t GetLe(std::span<const std::uint8_t> bytes, std::size_t offset,
                           std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width && offset + i < bytes.size(); ++i) {
    value |= static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i);
  }
  return value;
}
inline std::uint16_t Get16(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(GetLe(bytes, offset, 2));
}
inline std::uint32_t Get32(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(GetLe(bytes, offset, 4));
}
inline std::uint64_t Get64(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return GetLe(bytes, offset, 8);
}

// Bytes that look random, the same for the same seed; no byte is zero, so that data is never
// mistaken for a hole.
inline Bytes PatternBytes(std::uint64_t seed, std::size_t count) {
  Bytes bytes(count);
  std::uint64_t state = seed * 0x9E3779B97F4A7C15u + 0xD1B54A32D192ED03u;
  for (std::uint8_t& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<std::uint8_t>(state % 255 + 1);
  }
  return bytes;
}

}  // namespace kqtest

#endif
