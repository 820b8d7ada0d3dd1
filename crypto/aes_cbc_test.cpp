#include <algorithm>
#include <cstring>

#include "crypto/aes.h"
#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::FromHex;
using kqtest::PeerCbc;
using kqtest::ScopedAesMode;
using kqtest::ToHex;

// Every way this machine can cipher: software, and hardware in each width.
struct Path {
  std::uint32_t mode;
  AesVectorBlocks width;
};

std::vector<Path> RunnablePaths() {
  std::vector<Path> paths;
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    if (mode == kAesModeSoftware) {
      paths.push_back({mode, AesVectorBlocks::kOne});
    } else {
      for (const AesVectorBlocks width : kqtest::RunnableVectorBlocks()) {
        paths.push_back({mode, width});
      }
    }
  }
  return paths;
}

class ScopedPath {
 public:
  explicit ScopedPath(const Path& path) : mode_(path.mode) { AesDecryptVectorBlocks = path.width; }

 private:
  ScopedAesMode mode_;
};

struct Schedules {
  alignas(16) AES_KEY encrypt;
  alignas(16) AES_KEY decrypt;

  explicit Schedules(const Bytes& key) {
    AesSetEncryptKey(key.data(), static_cast<std::uint32_t>(8 * key.size()), &encrypt);
    AesSetDecryptKey(key.data(), static_cast<std::uint32_t>(8 * key.size()), &decrypt);
  }
};

struct Vector {
  alignas(16) std::uint8_t bytes[16];

  explicit Vector(const Bytes& from) { std::memcpy(bytes, from.data(), 16); }
  bool IsWiped() const {
    return std::all_of(bytes, bytes + 16, [](std::uint8_t b) { return b == 0; });
  }
};

const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");

TEST(AesCbc, GivesTheVectorsOfSp80038a) {
  const Bytes plain = FromHex(
      "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710");
  const struct {
    const char* key;
    const char* cipher;
  } kVectors[] = {
      {"2b7e151628aed2a6abf7158809cf4f3c",
       "7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
       "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"},
      {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
       "f58c4c04d6e5f1ba779eabfb5f7bfbd6 9cfc4e967edb808d679f777bc6702c7d"
       "39f23369a9d9bacfa530e26304231461 b2eb05e2c39be9fcda6c19078c6a9d1b"},
  };
  for (const Path& path : RunnablePaths()) {
    const ScopedPath scoped(path);
    for (const auto& vector : kVectors) {
      const Schedules schedules(FromHex(vector.key));
      Bytes data = plain;
      AesCbcEncrypt(data.data(), data.data(), data.size(), schedules.encrypt, Vector(kIv).bytes);
      EXPECT_EQ(data, FromHex(vector.cipher));
      AesCbcDecrypt(data.data(), data.data(), data.size(), schedules.decrypt, Vector(kIv).bytes);
      EXPECT_EQ(data, plain);
    }
  }
}

// Buffers of exactly the length, at all alignments over time, so that the sanitizer sees any touch
// outside them.
void CompareWithPeer(kqtest::Random& random, std::size_t keyBytes, std::size_t blocks) {
  const Bytes key = random.MakeBytes(keyBytes);
  const Bytes iv = random.MakeBytes(16);
  const Bytes plain = random.MakeBytes(16 * blocks);
  const Bytes cipher = PeerCbc(key, iv, plain, true);
  const std::size_t inShift = random.Below(16);
  const std::size_t outShift = random.Below(16);
  Bytes in(inShift + plain.size());
  Bytes out(outShift + plain.size());
  const Schedules schedules(key);

  std::copy(plain.begin(), plain.end(), in.begin() + static_cast<std::ptrdiff_t>(inShift));
  Vector vector(iv);
  AesCbcEncrypt(in.data() + inShift, out.data() + outShift, plain.size(), schedules.encrypt,
                vector.bytes);
  ASSERT_TRUE(std::equal(cipher.begin(), cipher.end(), out.data() + outShift)) << blocks;
  ASSERT_TRUE(vector.IsWiped());

  Bytes decrypted(plain.size() + inShift);
  Vector second(iv);
  AesCbcDecrypt(out.data() + outShift, decrypted.data() + inShift, plain.size(), schedules.decrypt,
                second.bytes);
  ASSERT_TRUE(std::equal(plain.begin(), plain.end(), decrypted.data() + inShift)) << blocks;
  ASSERT_TRUE(second.IsWiped());

  AesCbcDecrypt(out.data() + outShift, out.data() + outShift, plain.size(), schedules.decrypt,
                Vector(iv).bytes);
  ASSERT_TRUE(std::equal(plain.begin(), plain.end(), out.data() + outShift)) << blocks;
  AesCbcEncrypt(in.data() + inShift, in.data() + inShift, plain.size(), schedules.encrypt,
                Vector(iv).bytes);
  ASSERT_TRUE(std::equal(cipher.begin(), cipher.end(), in.data() + inShift)) << blocks;
}

TEST(AesCbc, EveryShortLengthMatchesThePeerOnEveryPath) {
  kqtest::Random random;
  for (const Path& path : RunnablePaths()) {
    const ScopedPath scoped(path);
    for (std::size_t blocks = 0; blocks <= 100; ++blocks) {
      CompareWithPeer(random, 16, blocks);
      CompareWithPeer(random, 32, blocks);
    }
  }
}

TEST(AesCbc, LongRunsMatchThePeerOnEveryPath) {
  kqtest::Random random;
  for (const Path& path : RunnablePaths()) {
    const ScopedPath scoped(path);
    for (const std::size_t blocks : {127u, 128u, 129u, 1023u, 1024u, 4095u, 4096u}) {
      CompareWithPeer(random, 16, blocks);
      CompareWithPeer(random, 32, blocks);
    }
    for (int run = 0; run < 10; ++run) {
      CompareWithPeer(random, run % 2 == 0 ? 16 : 32, random.Below(4097));
    }
  }
}

TEST(AesCbc, LengthZeroTouchesNoDataAndWipesTheVector) {
  for (const Path& path : RunnablePaths()) {
    const ScopedPath scoped(path);
    const Schedules schedules(kIv);
    testing::internal::CaptureStderr();
    Vector vector(kIv);
    AesCbcDecrypt(nullptr, nullptr, 0, schedules.decrypt, vector.bytes);
    EXPECT_TRUE(vector.IsWiped());
    vector = Vector(kIv);
    AesCbcEncrypt(nullptr, nullptr, 0, schedules.encrypt, vector.bytes);
    EXPECT_TRUE(vector.IsWiped());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
}

// Hardware mode ignores a partial block in silence; software mode logs it, and then does the same.
TEST(AesCbc, APartialLastBlockIsLeftAsItIs) {
  kqtest::Random random;
  for (const Path& path : RunnablePaths()) {
    const ScopedPath scoped(path);
    const std::string line =
        path.mode == kAesModeSoftware ? "ASSERT: CBC must have aligned block size!\n" : "";
    for (const std::size_t length : {1u, 15u, 17u, 31u, 129u, 143u, 513u, 527u, 1041u}) {
      const Bytes key = random.MakeBytes(16);
      const Schedules schedules(key);
      const Bytes plain = random.MakeBytes(length);
      const std::size_t whole = length / 16 * 16;
      Bytes expected = PeerCbc(key, kIv, std::span(plain).first(whole), true);
      expected.insert(expected.end(), plain.begin() + static_cast<std::ptrdiff_t>(whole),
                      plain.end());

      Bytes data = plain;
      Vector vector(kIv);
      testing::internal::CaptureStderr();
      AesCbcEncrypt(data.data(), data.data(), length, schedules.encrypt, vector.bytes);
      EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
      EXPECT_EQ(data, expected) << length;
      EXPECT_TRUE(vector.IsWiped());

      vector = Vector(kIv);
      testing::internal::CaptureStderr();
      AesCbcDecrypt(data.data(), data.data(), length, schedules.decrypt, vector.bytes);
      EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
      EXPECT_EQ(data, plain) << length;
      EXPECT_TRUE(vector.IsWiped());
    }
  }
}

TEST(AesCbcDecryptHardware, LeavesTheVectorAloneAndTakesZeroIv) {
  kqtest::Random random;
  for (const Path& path : RunnablePaths()) {
    if (path.mode != kAesModeHardware) continue;
    const ScopedPath scoped(path);
    const Bytes key = random.MakeBytes(32);
    const Schedules schedules(key);
    for (const std::size_t length : {16u, 144u, 528u, 1024u}) {
      const Bytes cipher = random.MakeBytes(length);
      Bytes out(length);
      Vector vector(kIv);
      AesCbcDecryptHardware(cipher.data(), out.data(), vector.bytes, length, schedules.decrypt);
      EXPECT_EQ(ToHex(vector.bytes), ToHex(kIv));
      EXPECT_EQ(out, PeerCbc(key, kIv, cipher, false));

      AesCbcDecryptHardware(cipher.data(), out.data(), ZeroIv, length, schedules.decrypt);
      EXPECT_EQ(out, PeerCbc(key, Bytes(16), cipher, false));
    }
  }
}

TEST(ZeroIv, IsAnAlignedBlockOfZeroes) {
  EXPECT_EQ(ToHex(ZeroIv), "00000000000000000000000000000000");
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ZeroIv) % 16, 0u);
}

}  // namespace
}  // namespace kq
