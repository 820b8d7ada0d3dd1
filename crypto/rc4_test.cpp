#include "crypto/rc4.h"

#include <algorithm>

#include "crypto/crypto_test_support.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::FromHex;
using kqtest::ToHex;

Bytes Keystream(const Bytes& key, std::size_t count) {
  Rc4State state;
  Rc4Init(&state, key.data());
  Bytes stream(count);
  Rc4Crypt(&state, stream.data(), stream.data(), static_cast<std::uint32_t>(count));
  return stream;
}

TEST(Rc4, GivesTheKeystreamsOfRfc6229For128BitKeys) {
  const struct {
    const char* key;
    std::size_t offset;
    const char* bytes;
  } kVectors[] = {
      {"0102030405060708090a0b0c0d0e0f10", 0, "9ac7cc9a609d1ef7b2932899cde41b97"},
      {"0102030405060708090a0b0c0d0e0f10", 16, "5248c4959014126a6e8a84f11d1a9e1c"},
      {"0102030405060708090a0b0c0d0e0f10", 240, "065902e4b620f6cc36c8589f66432f2b"},
      {"0102030405060708090a0b0c0d0e0f10", 4096, "a36a4c301ae8ac13610ccbc12256cacc"},
      {"ebb46227c6cc8b37641910833222772a", 0, "720c94b63edf44e131d950ca211a5a30"},
      {"ebb46227c6cc8b37641910833222772a", 16, "c366fdeacf9ca80436be7c358424d20b"},
  };
  for (const auto& vector : kVectors) {
    const Bytes stream = Keystream(FromHex(vector.key), vector.offset + 16);
    EXPECT_EQ(ToHex(std::span(stream).subspan(vector.offset)), vector.bytes) << vector.offset;
  }
}

TEST(Rc4Init, LeavesBothIndicesAtZero) {
  Rc4State state;
  state.i = 7;
  state.j = 9;
  const Bytes key(16, 1);
  Rc4Init(&state, key.data());
  EXPECT_EQ(state.i, 0u);
  EXPECT_EQ(state.j, 0u);
  std::vector<bool> seen(256);
  for (const std::uint32_t entry : state.entries) seen.at(entry) = true;
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 256);
}

TEST(Rc4Crypt, IndicesStayBelow256AndCountTheStream) {
  Rc4State state;
  const Bytes key(16, 3);
  Rc4Init(&state, key.data());
  Bytes data(300);
  Rc4Crypt(&state, data.data(), data.data(), 300);
  EXPECT_EQ(state.i, 300u % 256);
  EXPECT_LT(state.j, 256u);
}

TEST(Rc4Crypt, AnyLengthInAnyPiecesAtAnyAlignmentMatchesTheModel) {
  kqtest::Random random;
  for (int run = 0; run < 100; ++run) {
    const Bytes key = random.MakeBytes(16);
    const Bytes plain = random.MakeBytes(random.Below(2000));
    const Bytes expected = kqtest::Xor(plain, kqtest::Rc4Keystream(key, plain.size()));

    Rc4State state;
    Rc4Init(&state, key.data());
    Bytes out(plain.size());
    for (std::size_t at = 0; at < plain.size();) {
      const std::size_t piece = std::min<std::size_t>(random.Below(40), plain.size() - at);
      Rc4Crypt(&state, plain.data() + at, out.data() + at, static_cast<std::uint32_t>(piece));
      at += piece;
    }
    ASSERT_EQ(out, expected) << plain.size();
  }
}

TEST(Rc4Crypt, WorksInPlaceAndUndoesItself) {
  kqtest::Random random;
  const Bytes key = random.MakeBytes(16);
  const Bytes plain = random.MakeBytes(101);
  Bytes data = plain;
  for (int pass = 0; pass < 2; ++pass) {
    Rc4State state;
    Rc4Init(&state, key.data());
    Rc4Crypt(&state, data.data(), data.data(), 101);
    EXPECT_EQ(data == plain, pass == 1);
  }
}

}  // namespace
}  // namespace kq
