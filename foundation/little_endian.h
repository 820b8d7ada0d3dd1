// Integers at any byte position, little-endian.
#ifndef KQ_FOUNDATION_LITTLE_ENDIAN_H
#define KQ_FOUNDATION_LITTLE_ENDIAN_H

#include <bit>
#include <cstdint>
#include <cstring>

namespace kq {

static_assert(std::endian::native == std::endian::little,
              "the loads and stores below copy bytes in the processor's order");

template <class Integer>
Integer LoadLittleEndian(const void* from) {
  Integer value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <class Integer>
void StoreLittleEndian(void* to, Integer value) {
  std::memcpy(to, &value, sizeof value);
}

inline std::uint16_t LoadU16(const void* from) { return LoadLittleEndian<std::uint16_t>(from); }
inline std::uint32_t LoadU32(const void* from) { return LoadLittleEndian<std::uint32_t>(from); }
inline std::uint64_t LoadU64(const void* from) { return LoadLittleEndian<std::uint64_t>(from); }
inline void StoreU16(void* to, std::uint16_t value) { StoreLittleEndian(to, value); }
inline void StoreU32(void* to, std::uint32_t value) { StoreLittleEndian(to, value); }
inline void StoreU64(void* to, std::uint64_t value) { StoreLittleEndian(to, value); }

}  // namespace kq

#endif
