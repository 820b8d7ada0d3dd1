#include "crypto/aes_software.h"

#include <algorithm>
#include <cstring>

#include "crypto/aes_tables.h"
#include "foundation/little_endian.h"

namespace kq {
namespace {

std::uint32_t LoadBigEndian(const std::uint8_t* from) { return __builtin_bswap32(LoadU32(from)); }

void StoreBigEndian(std::uint8_t* to, std::uint32_t value) {
  StoreU32(to, __builtin_bswap32(value));
}

constexpr std::uint32_t ByteOf(std::uint32_t word, int shift) { return (word >> shift) & 0xFF; }

std::uint32_t SubstituteWord(std::uint32_t word) {
  using aes::kEncryptLast;
  return (kEncryptLast[ByteOf(word, 24)] & 0xFF000000) |
         (kEncryptLast[ByteOf(word, 16)] & 0xFF0000) | (kEncryptLast[ByteOf(word, 8)] & 0xFF00) |
         (kEncryptLast[ByteOf(word, 0)] & 0xFF);
}

// A substitution through the S-box, undone by the inverse one inside the decryption tables, leaves
// the mixing alone.
std::uint32_t InverseMixColumn(std::uint32_t word) {
  using aes::kDecrypt;
  using aes::kSBox;
  return kDecrypt[0][kSBox[ByteOf(word, 24)]] ^ kDecrypt[1][kSBox[ByteOf(word, 16)]] ^
         kDecrypt[2][kSBox[ByteOf(word, 8)]] ^ kDecrypt[3][kSBox[ByteOf(word, 0)]];
}

void Expand128(std::uint32_t* w) {
  for (const std::uint32_t constant : aes::kRoundConstants) {
    w[4] = w[0] ^ SubstituteWord(std::rotl(w[3], 8)) ^ constant;
    w[5] = w[1] ^ w[4];
    w[6] = w[2] ^ w[5];
    w[7] = w[3] ^ w[6];
    w += 4;
  }
}

void Expand256(std::uint32_t* w) {
  for (std::size_t i = 8; i < 60; ++i) {
    std::uint32_t last = w[i - 1];
    if (i % 8 == 0) {
      last = SubstituteWord(std::rotl(last, 8)) ^ aes::kRoundConstants[i / 8 - 1];
    } else if (i % 8 == 4) {
      last = SubstituteWord(last);
    }
    w[i] = w[i - 8] ^ last;
  }
}

struct State {
  std::uint32_t a, b, c, d;
};

State LoadState(const std::uint8_t* in, const std::uint32_t* roundKey) {
  return {LoadBigEndian(in) ^ roundKey[0], LoadBigEndian(in + 4) ^ roundKey[1],
          LoadBigEndian(in + 8) ^ roundKey[2], LoadBigEndian(in + 12) ^ roundKey[3]};
}

// One output word of a round: each byte comes from another column, as ShiftRows has it.
std::uint32_t MixedWord(const std::array<aes::WordTable, 4>& tables, std::uint32_t w0,
                        std::uint32_t w1, std::uint32_t w2, std::uint32_t w3,
                        std::uint32_t roundKey) {
  return tables[0][ByteOf(w0, 24)] ^ tables[1][ByteOf(w1, 16)] ^ tables[2][ByteOf(w2, 8)] ^
         tables[3][ByteOf(w3, 0)] ^ roundKey;
}

// The last round's. Its results are stored one by one: four gathered in a record can be left behind
// on the stack, and a deciphered block may be a key.
std::uint32_t LastWord(const aes::WordTable& table, std::uint32_t w0, std::uint32_t w1,
                       std::uint32_t w2, std::uint32_t w3, std::uint32_t roundKey) {
  return (table[ByteOf(w0, 24)] & 0xFF000000) ^ (table[ByteOf(w1, 16)] & 0xFF0000) ^
         (table[ByteOf(w2, 8)] & 0xFF00) ^ (table[ByteOf(w3, 0)] & 0xFF) ^ roundKey;
}

}  // namespace

void AesSoftwareSetEncryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key) {
  key->rounds = bits == 128 ? 10 : 14;
  std::fill(std::begin(key->roundKeys), std::end(key->roundKeys), 0);
  if (bits != 128 && bits != 256) return;

  for (std::size_t i = 0; i < bits / 32; ++i) {
    key->roundKeys[i] = LoadBigEndian(keyBytes + 4 * i);
  }
  if (bits == 128) {
    Expand128(key->roundKeys);
  } else {
    Expand256(key->roundKeys);
  }
}

void AesSoftwareSetDecryptKey(const std::uint8_t* keyBytes, std::uint32_t bits, AES_KEY* key) {
  AesSoftwareSetEncryptKey(keyBytes, bits, key);
  const std::size_t last = 4 * static_cast<std::size_t>(key->rounds);
  std::uint32_t* const w = key->roundKeys;
  for (std::size_t low = 0, high = last; low < high; low += 4, high -= 4) {
    std::swap_ranges(w + low, w + low + 4, w + high);
  }
  std::transform(w + 4, w + last, w + 4, InverseMixColumn);
}

void AesEncryptBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key) {
  using aes::kEncrypt;
  const std::uint32_t* k = key.roundKeys;
  State s = LoadState(in, k);
  for (std::int32_t round = 1; round < key.rounds; ++round) {
    k += 4;
    s = {MixedWord(kEncrypt, s.a, s.b, s.c, s.d, k[0]),
         MixedWord(kEncrypt, s.b, s.c, s.d, s.a, k[1]),
         MixedWord(kEncrypt, s.c, s.d, s.a, s.b, k[2]),
         MixedWord(kEncrypt, s.d, s.a, s.b, s.c, k[3])};
  }
  k += 4;
  const aes::WordTable& table = aes::kEncryptLast;
  StoreBigEndian(out, LastWord(table, s.a, s.b, s.c, s.d, k[0]));
  StoreBigEndian(out + 4, LastWord(table, s.b, s.c, s.d, s.a, k[1]));
  StoreBigEndian(out + 8, LastWord(table, s.c, s.d, s.a, s.b, k[2]));
  StoreBigEndian(out + 12, LastWord(table, s.d, s.a, s.b, s.c, k[3]));
}

void AesDecryptBlock(const std::uint8_t* in, std::uint8_t* out, const AES_KEY& key) {
  using aes::kDecrypt;
  const std::uint32_t* k = key.roundKeys;
  State s = LoadState(in, k);
  for (std::int32_t round = 1; round < key.rounds; ++round) {
    k += 4;
    s = {MixedWord(kDecrypt, s.a, s.d, s.c, s.b, k[0]),
         MixedWord(kDecrypt, s.b, s.a, s.d, s.c, k[1]),
         MixedWord(kDecrypt, s.c, s.b, s.a, s.d, k[2]),
         MixedWord(kDecrypt, s.d, s.c, s.b, s.a, k[3])};
  }
  k += 4;
  const aes::WordTable& table = aes::kDecryptLast;
  StoreBigEndian(out, LastWord(table, s.a, s.d, s.c, s.b, k[0]));
  StoreBigEndian(out + 4, LastWord(table, s.b, s.a, s.d, s.c, k[1]));
  StoreBigEndian(out + 8, LastWord(table, s.c, s.b, s.a, s.d, k[2]));
  StoreBigEndian(out + 12, LastWord(table, s.d, s.c, s.b, s.a, k[3]));
}

}  // namespace kq
