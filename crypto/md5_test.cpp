#include "crypto/md5.h"

#include <algorithm>

#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::FromText;
using kqtest::ToHex;

Bytes Digest(const Bytes& message) {
  Md5Context context;
  Md5Update(&context, message.data(), static_cast<std::uint32_t>(message.size()));
  Bytes digest(kMd5DigestBytes);
  Md5Final(digest.data(), &context);
  return digest;
}

TEST(Md5, GivesTheDigestsOfRfc1321) {
  const struct {
    const char* message;
    const char* digest;
  } kVectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& vector : kVectors) {
    EXPECT_EQ(ToHex(Digest(FromText(vector.message))), vector.digest) << vector.message;
  }
}

TEST(Md5, NoBytesFromANullPointerAreAnEmptyMessage) {
  Md5Context context;
  Md5Update(&context, nullptr, 0);
  Bytes digest(kMd5DigestBytes);
  Md5Final(digest.data(), &context);
  EXPECT_EQ(ToHex(digest), "d41d8cd98f00b204e9800998ecf8427e");
}

// 55 bytes are the longest that pad into one block, 56 and 64 need two.
TEST(Md5, EveryLengthAroundTheBlockBoundariesMatchesThePeer) {
  kqtest::Random random;
  for (std::size_t length = 0; length <= 200; ++length) {
    const Bytes message = random.MakeBytes(length);
    EXPECT_EQ(Digest(message), kqtest::PeerDigest(EVP_md5(), message)) << length;
  }
}

TEST(Md5, PiecesOfAnySizeGiveTheDigestOfTheWhole) {
  kqtest::Random random;
  for (int run = 0; run < 200; ++run) {
    const Bytes message = random.MakeBytes(random.Below(1000));
    Md5Context context;
    for (std::size_t at = 0; at < message.size();) {
      const std::size_t piece = std::min<std::size_t>(random.Below(150), message.size() - at);
      Md5Update(&context, message.data() + at, static_cast<std::uint32_t>(piece));
      at += piece;
    }
    Bytes digest(kMd5DigestBytes);
    Md5Final(digest.data(), &context);
    ASSERT_EQ(digest, kqtest::PeerDigest(EVP_md5(), message)) << message.size();
  }
}

TEST(Md5, BitCountCarriesIntoItsHighWord) {
  // 2^29 bytes are 2^32 bits; the count starts just below, at a whole number of blocks.
  Md5Context context;
  context.bitCount[0] = 0xFFFFFE00;
  const Bytes block(64, 7);
  Md5Update(&context, block.data(), 64);
  EXPECT_EQ(context.bitCount[0], 0u);
  EXPECT_EQ(context.bitCount[1], 1u);
}

TEST(Md5Final, WipesTheWholeContext) {
  Md5Context context;
  const Bytes message(100, 0xAB);
  Md5Update(&context, message.data(), 100);
  std::uint8_t digest[kMd5DigestBytes];
  Md5Final(digest, &context);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&context);
  EXPECT_TRUE(std::all_of(bytes, bytes + sizeof context, [](std::uint8_t b) { return b == 0; }));
}

}  // namespace
}  // namespace kq
