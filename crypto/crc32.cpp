// MSB-first: eight bytes a step through eight tables, about five times as fast as one table, since
// the eight lookups of a step don't wait for each other. Reflected: one table; it serves a few
// kilobytes of partition tables.
#include "crypto/crc32.h"

#include <array>
#include <cstddef>

#include "foundation/little_endian.h"

namespace kq {
namespace {

using CrcTable = std::array<std::uint32_t, 256>;

constexpr CrcTable MakeMsbFirstTable() {
  CrcTable table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i << 24;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value << 1) ^ ((value & 0x80000000) != 0 ? 0x04C11DB7U : 0U);
    }
    table[i] = value;
  }
  return table;
}

// tables[k][b] is the effect of byte b with k further bytes behind it.
constexpr std::array<CrcTable, 8> MakeMsbFirstTables() {
  std::array<CrcTable, 8> tables{};
  tables[0] = MakeMsbFirstTable();
  for (std::size_t k = 1; k < 8; ++k) {
    for (std::size_t i = 0; i < 256; ++i) {
      const std::uint32_t shorter = tables[k - 1][i];
      tables[k][i] = (shorter << 8) ^ tables[0][shorter >> 24];
    }
  }
  return tables;
}

constexpr CrcTable MakeReflectedTable() {
  CrcTable table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0U);
    }
    table[i] = value;
  }
  return table;
}

constexpr std::array<CrcTable, 8> kMsbFirst = MakeMsbFirstTables();
constexpr CrcTable kReflected = MakeReflectedTable();

std::uint32_t LoadBigEndian(const std::uint8_t* from) { return __builtin_bswap32(LoadU32(from)); }

}  // namespace

void CrcMsbFirst(const std::uint8_t* first, const std::uint8_t* end, std::uint32_t* accumulator) {
  *accumulator = CrcMsbFirstContinue(kCrcStart, {first, static_cast<std::size_t>(end - first)});
}

std::uint32_t CrcMsbFirstContinue(std::uint32_t accumulator, std::span<const std::uint8_t> bytes) {
  const std::uint8_t* at = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= 8; left -= 8, at += 8) {
    const std::uint32_t high = LoadBigEndian(at) ^ accumulator;
    const std::uint32_t low = LoadBigEndian(at + 4);
    accumulator = kMsbFirst[7][high >> 24] ^ kMsbFirst[6][high >> 16 & 0xFF] ^
                  kMsbFirst[5][high >> 8 & 0xFF] ^ kMsbFirst[4][high & 0xFF] ^
                  kMsbFirst[3][low >> 24] ^ kMsbFirst[2][low >> 16 & 0xFF] ^
                  kMsbFirst[1][low >> 8 & 0xFF] ^ kMsbFirst[0][low & 0xFF];
  }
  for (; left != 0; --left, ++at) {
    accumulator = (accumulator << 8) ^ kMsbFirst[0][(accumulator >> 24) ^ *at];
  }
  return accumulator;
}

std::uint32_t CrcReflectedContinue(std::uint32_t accumulator, std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) {
    accumulator = (accumulator >> 8) ^ kReflected[(accumulator & 0xFF) ^ byte];
  }
  return accumulator;
}

}  // namespace kq
