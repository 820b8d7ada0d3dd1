#include "crypto/aes.h"

#include <algorithm>
#include <cstring>

#include "crypto/crypto_test_support.h"
#include "foundation/memory.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::FromHex;
using kqtest::ScopedAesMode;
using kqtest::ToHex;

const Bytes kKey128 = FromHex("000102030405060708090a0b0c0d0e0f");
const Bytes kKey256 = FromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
const Bytes kPlain = FromHex("00112233445566778899aabbccddeeff");
const Bytes kCipher128 = FromHex("69c4e0d86a7b0430d8cdb78070b4c55a");
const Bytes kCipher256 = FromHex("8ea2b7ca516745bfeafc49904b496089");

std::uint32_t BitsOf(const Bytes& key) { return static_cast<std::uint32_t>(8 * key.size()); }

// The bytes of a schedule's round keys, told in FIPS 197's order whatever the mode's layout.
Bytes RoundKeyBytes(const AES_KEY& key, std::uint32_t mode) {
  Bytes bytes;
  for (std::size_t i = 0; i < 4 * (static_cast<std::size_t>(key.rounds) + 1); ++i) {
    std::uint8_t word[4];
    std::memcpy(word, &key.roundKeys[i], 4);
    if (mode == kAesModeSoftware) std::reverse(word, word + 4);
    bytes.insert(bytes.end(), word, word + 4);
  }
  return bytes;
}

TEST(AesSingleBlock, GivesTheExamplesOfFips197InBothModes) {
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    const struct {
      const Bytes& key;
      const Bytes& cipher;
    } kExamples[] = {{kKey128, kCipher128}, {kKey256, kCipher256}};
    for (const auto& example : kExamples) {
      alignas(16) AES_KEY key;
      Bytes block = kPlain;
      AesSetEncryptKey(example.key.data(), BitsOf(example.key), &key);
      AesEncipherSingleBlock(block.data(), block.data(), key);
      EXPECT_EQ(block, example.cipher) << mode;
      AesSetDecryptKey(example.key.data(), BitsOf(example.key), &key);
      AesDecipherSingleBlock(block.data(), block.data(), key);
      EXPECT_EQ(block, kPlain) << mode;
    }
  }
}

TEST(AesEncryptBlock, TakesInAndOutApartOrInPlace) {
  const ScopedAesMode scoped(kAesModeSoftware);
  alignas(16) AES_KEY key;
  AesSetEncryptKey(kKey128.data(), 128, &key);
  Bytes in = kPlain;
  Bytes out(16);
  AesEncryptBlock(in.data(), out.data(), key);
  EXPECT_EQ(in, kPlain);
  EXPECT_EQ(out, kCipher128);
  AesEncryptBlock(in.data(), in.data(), key);
  EXPECT_EQ(in, kCipher128);
}

TEST(AesDecryptBlock, TakesInAndOutApartOrInPlace) {
  const ScopedAesMode scoped(kAesModeSoftware);
  alignas(16) AES_KEY key;
  AesSetDecryptKey(kKey256.data(), 256, &key);
  Bytes in = kCipher256;
  Bytes out(16);
  AesDecryptBlock(in.data(), out.data(), key);
  EXPECT_EQ(in, kCipher256);
  EXPECT_EQ(out, kPlain);
  AesDecryptBlock(in.data(), in.data(), key);
  EXPECT_EQ(in, kPlain);
}

TEST(AesSetEncryptKey, GivesTheKeyExpansionsOfFips197) {
  const struct {
    const char* key;
    const char* first;
    const char* firstMade;
    const char* last;
  } kExpansions[] = {
      {"2b7e151628aed2a6abf7158809cf4f3c", "2b7e151628aed2a6abf7158809cf4f3c",
       "a0fafe1788542cb123a339392a6c7605", "d014f9a8c9ee2589e13f0cc8b6630ca6"},
      {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
       "603deb1015ca71be2b73aef0857d7781", "1f352c073b6108d72d9810a30914dff4",
       "fe4890d1e6188d0b046df344706c631e"},
  };
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const auto& expansion : kExpansions) {
      const Bytes keyBytes = FromHex(expansion.key);
      alignas(16) AES_KEY key;
      AesSetEncryptKey(keyBytes.data(), BitsOf(keyBytes), &key);
      ASSERT_EQ(key.rounds, keyBytes.size() == 16 ? 10 : 14);
      const Bytes bytes = RoundKeyBytes(key, mode);
      const std::span roundKeys(bytes);
      EXPECT_EQ(ToHex(roundKeys.first(16)), expansion.first);
      EXPECT_EQ(ToHex(roundKeys.subspan(16, 16)), expansion.firstMade);
      EXPECT_EQ(ToHex(roundKeys.last(16)), expansion.last);
    }
  }
}

std::uint8_t Times(std::uint8_t a, unsigned factor) {
  unsigned product = 0;
  for (unsigned bit = 0, value = a; bit < 4; ++bit) {
    if ((factor >> bit & 1) != 0) product ^= value;
    value = value << 1 ^ ((value & 0x80) != 0 ? 0x11BU : 0U);
  }
  return static_cast<std::uint8_t>(product);
}

Bytes InverseMixColumns(std::span<const std::uint8_t> block) {
  constexpr unsigned kFactors[4] = {14, 11, 13, 9};
  Bytes mixed(16);
  for (std::size_t column = 0; column < 16; column += 4) {
    for (std::size_t row = 0; row < 4; ++row) {
      for (std::size_t i = 0; i < 4; ++i) {
        mixed[column + row] ^= Times(block[column + (row + i) % 4], kFactors[i]);
      }
    }
  }
  return mixed;
}

TEST(AesSetDecryptKey, IsTheScheduleOfTheEquivalentInverseCipher) {
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const Bytes& keyBytes : {kKey128, kKey256}) {
      alignas(16) AES_KEY encrypt;
      alignas(16) AES_KEY decrypt;
      AesSetEncryptKey(keyBytes.data(), BitsOf(keyBytes), &encrypt);
      AesSetDecryptKey(keyBytes.data(), BitsOf(keyBytes), &decrypt);
      ASSERT_EQ(decrypt.rounds, encrypt.rounds);
      const auto rounds = static_cast<std::size_t>(encrypt.rounds);
      const Bytes forward = RoundKeyBytes(encrypt, mode);
      const Bytes backward = RoundKeyBytes(decrypt, mode);
      for (std::size_t round = 0; round <= rounds; ++round) {
        const auto source = std::span(forward).subspan(16 * (rounds - round), 16);
        const Bytes expected = round == 0 || round == rounds ? Bytes(source.begin(), source.end())
                                                             : InverseMixColumns(source);
        EXPECT_EQ(ToHex(std::span(backward).subspan(16 * round, 16)), ToHex(expected)) << round;
      }
    }
  }
}

TEST(AesSetKey, OtherBitCountsTakeNothingOfTheKey) {
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const auto& setKey : {AesSetEncryptKey, AesSetDecryptKey}) {
      alignas(16) AES_KEY key;
      std::memset(&key, 0x77, sizeof key);
      setKey(kKey256.data(), 192, &key);
      EXPECT_EQ(key.rounds, 14);
      EXPECT_EQ(std::count(std::begin(key.roundKeys), std::end(key.roundKeys), 0u), 60);
    }
  }
}

TEST(AesSetKey, MisalignedScheduleIsLoggedInHardwareModeAndStillUsed) {
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    alignas(16) AES_KEY room[2];
    auto* const misaligned = reinterpret_cast<AES_KEY*>(reinterpret_cast<std::uint8_t*>(room) + 4);
    const std::string line =
        mode == kAesModeHardware ? "ASSERT: AES_KEY must be 16 byte aligned!\n" : "";

    testing::internal::CaptureStderr();
    AesSetEncryptKey(kKey128.data(), 128, misaligned);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    Bytes block = kPlain;
    AesEncipherSingleBlock(block.data(), block.data(), *misaligned);
    EXPECT_EQ(block, kCipher128);

    testing::internal::CaptureStderr();
    AesSetDecryptKey(kKey128.data(), 128, misaligned);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    AesDecipherSingleBlock(block.data(), block.data(), *misaligned);
    EXPECT_EQ(block, kPlain);
  }
}

TEST(AesSetKey, AlignedScheduleLogsNothing) {
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    alignas(16) AES_KEY key;
    testing::internal::CaptureStderr();
    AesSetEncryptKey(kKey128.data(), 128, &key);
    AesSetDecryptKey(kKey256.data(), 256, &key);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
}

TEST(AesSingleBlock, RandomKeysAndBlocksMatchThePeerInBothModes) {
  kqtest::Random random;
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (int run = 0; run < 300; ++run) {
      const Bytes keyBytes = random.MakeBytes(run % 2 == 0 ? 16 : 32);
      const Bytes block = random.MakeBytes(16);
      alignas(16) AES_KEY key;
      Bytes out(16);
      AesSetEncryptKey(keyBytes.data(), BitsOf(keyBytes), &key);
      AesEncipherSingleBlock(block.data(), out.data(), key);
      ASSERT_EQ(out, kqtest::PeerEcb(keyBytes, block, true));
      AesSetDecryptKey(keyBytes.data(), BitsOf(keyBytes), &key);
      AesDecipherSingleBlock(block.data(), out.data(), key);
      ASSERT_EQ(out, kqtest::PeerEcb(keyBytes, block, false));
    }
  }
}

}  // namespace
}  // namespace kq
