// The constant tables of the AES software path, computed from the cipher's definition (FIPS 197).
#ifndef KQ_CRYPTO_AES_TABLES_H
#define KQ_CRYPTO_AES_TABLES_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace kq::aes {

using ByteTable = std::array<std::uint8_t, 256>;
using WordTable = std::array<std::uint32_t, 256>;

// Multiplication by x in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
constexpr std::uint8_t TimesX(std::uint8_t a) {
  return static_cast<std::uint8_t>((a << 1) ^ ((a & 0x80) != 0 ? 0x1B : 0));
}

constexpr std::uint8_t FieldMultiply(std::uint8_t a, std::uint8_t b) {
  std::uint8_t product = 0;
  for (; b != 0; b = static_cast<std::uint8_t>(b >> 1), a = TimesX(a)) {
    if ((b & 1) != 0) product = static_cast<std::uint8_t>(product ^ a);
  }
  return product;
}

// The multiplicative inverse (0 for 0), put through the affine transformation.
constexpr ByteTable MakeSBox() {
  // 3 generates the field's multiplicative group, so the inverse of 3^n is 3^(255 - n).
  std::array<std::uint8_t, 256> power{};
  std::array<std::uint8_t, 256> exponent{};
  std::uint8_t value = 1;
  for (std::size_t n = 0; n < 255; ++n) {
    power[n] = value;
    exponent[value] = static_cast<std::uint8_t>(n);
    value = FieldMultiply(value, 3);
  }
  power[255] = 1;

  ByteTable sBox{};
  for (std::size_t i = 0; i < 256; ++i) {
    const std::uint8_t inverse = i == 0 ? std::uint8_t{0} : power[255U - exponent[i]];
    sBox[i] = static_cast<std::uint8_t>(inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
                                        std::rotl(inverse, 3) ^ std::rotl(inverse, 4) ^ 0x63);
  }
  return sBox;
}

constexpr ByteTable Invert(const ByteTable& box) {
  ByteTable inverse{};
  for (std::size_t i = 0; i < 256; ++i) inverse[box[i]] = static_cast<std::uint8_t>(i);
  return inverse;
}

inline constexpr ByteTable kSBox = MakeSBox();
inline constexpr ByteTable kInverseSBox = Invert(kSBox);

// Entry i holds box[i] times each factor, the first factor's product most significant: one lookup
// is the substitution and the column's share of the mixing in one.
constexpr WordTable MakeColumnTable(const ByteTable& box, std::uint8_t f0, std::uint8_t f1,
                                    std::uint8_t f2, std::uint8_t f3) {
  WordTable table{};
  for (std::size_t i = 0; i < 256; ++i) {
    table[i] = static_cast<std::uint32_t>(FieldMultiply(box[i], f0)) << 24 |
               static_cast<std::uint32_t>(FieldMultiply(box[i], f1)) << 16 |
               static_cast<std::uint32_t>(FieldMultiply(box[i], f2)) << 8 |
               static_cast<std::uint32_t>(FieldMultiply(box[i], f3));
  }
  return table;
}

constexpr WordTable RotateRight(WordTable table, int bits) {
  for (std::uint32_t& word : table) word = std::rotr(word, bits);
  return table;
}

constexpr std::array<WordTable, 4> Rotations(const WordTable& first) {
  return {first, RotateRight(first, 8), RotateRight(first, 16), RotateRight(first, 24)};
}

inline constexpr std::array<WordTable, 4> kEncrypt = Rotations(MakeColumnTable(kSBox, 2, 1, 1, 3));
inline constexpr std::array<WordTable, 4> kDecrypt =
    Rotations(MakeColumnTable(kInverseSBox, 14, 9, 13, 11));

// The box's byte in all four places, for the last round and the key expansion.
inline constexpr WordTable kEncryptLast = MakeColumnTable(kSBox, 1, 1, 1, 1);
inline constexpr WordTable kDecryptLast = MakeColumnTable(kInverseSBox, 1, 1, 1, 1);

inline constexpr std::array<std::uint32_t, 10> kRoundConstants = {
    0x01000000, 0x02000000, 0x04000000, 0x08000000, 0x10000000,
    0x20000000, 0x40000000, 0x80000000, 0x1B000000, 0x36000000};

}  // namespace kq::aes

#endif
