#include "crypto/sha1.h"

#include <algorithm>
#include <cstring>

#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::FromText;
using kqtest::ToHex;

Bytes Digest(const Bytes& message) {
  Bytes digest(kSha1DigestBytes);
  EXPECT_TRUE(Sha1OfMessage(message, digest.data()));
  return digest;
}

TEST(Sha1, GivesTheDigestsOfFips180) {
  EXPECT_EQ(ToHex(Digest(FromText("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(ToHex(Digest(FromText("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"))),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(ToHex(Digest(Bytes(1000000, 'a'))), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1, EmptyMessageHasADigest) {
  EXPECT_EQ(ToHex(Digest({})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(Sha1, EveryLengthAroundTheBlockBoundariesMatchesThePeer) {
  kqtest::Random random;
  for (std::size_t length = 0; length <= 200; ++length) {
    const Bytes message = random.MakeBytes(length);
    EXPECT_EQ(Digest(message), kqtest::PeerDigest(EVP_sha1(), message)) << length;
  }
}

// The protocol that a caller without Sha1OfMessage follows.
TEST(Sha1Final, PadsTheRestInTheBufferAndWipesTheWholeContext) {
  const Bytes message = FromText(std::string(64, 'x') + "rest");
  Sha1Context context;
  context.bitCount = message.size() * 8;
  Sha1Transform(&context, message.data(), context.schedule);
  std::memcpy(context.buffer, message.data() + 64, 4);
  Bytes digest(kSha1DigestBytes);
  Sha1Final(digest.data(), &context);

  EXPECT_EQ(digest, kqtest::PeerDigest(EVP_sha1(), message));
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&context);
  EXPECT_TRUE(std::all_of(bytes, bytes + sizeof context, [](std::uint8_t b) { return b == 0; }));
}

TEST(Sha1Transform, WorksInTheScheduleWordsItIsGiven) {
  Sha1Context context;
  std::uint8_t block[64] = {0x01, 0x02, 0x03, 0x04};
  std::uint32_t words[80] = {};
  Sha1Transform(&context, block, words);
  EXPECT_EQ(words[0], 0x01020304u);  // big-endian
  // w[16] = rotl(w[13] ^ w[8] ^ w[2] ^ w[0], 1).
  EXPECT_EQ(words[16], 0x02040608u);
  EXPECT_EQ(context.schedule[0], 0u);
}

}  // namespace
}  // namespace kq
