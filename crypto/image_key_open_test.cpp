#include <cstring>

#include "crypto/image_key.h"
#include "crypto/key_blob_model.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::ScopedAesMode;

constexpr std::uint32_t kTypes[] = {1, 2, 3, 4};
constexpr std::uint32_t kCheckedTypes[] = {2, 3, 4};

struct Sample {
  std::uint32_t type;
  Bytes dataKey;
  Bytes testValue;
  Bytes blob;

  Sample(kqtest::Random& random, std::uint32_t sampleType, const Bytes& units)
      : type(sampleType),
        dataKey(random.MakeBytes(kqtest::DataKeyBytes(type))),
        testValue(random.MakeBytes(16)),
        blob(kqtest::MakeKeyBlob(type, units, dataKey, testValue)) {}
};

std::unique_ptr<CryptoContext> MakeContext(std::uint32_t type) {
  auto context = std::make_unique<CryptoContext>();
  context->type = type;
  return context;
}

KQStatus Open(CryptoContext* context, const char* password, Bytes& blob) {
  return ImageKeyOpen(context, password, blob.data(), static_cast<std::uint32_t>(blob.size()));
}

KQStatus Unwrap(CryptoContext* context, const Bytes& units, Bytes& blob, KeyDirection direction) {
  return ImageKeyUnwrap(context, units.data(), static_cast<std::uint32_t>(units.size()),
                        blob.data(), static_cast<std::uint32_t>(blob.size()), direction);
}

void ExpectFailure(const KQStatus& status, std::int32_t code) {
  EXPECT_EQ(status.status, code);
  EXPECT_STREQ(status.file, "crypto");
  EXPECT_EQ(status.detail1, 0u);
  EXPECT_EQ(status.detail2, 0u);
}

// The context has the data key open: what it ciphers is what the peer ciphers.
void ExpectCiphers(const CryptoContext& context, const Bytes& dataKey, KeyDirection direction) {
  kqtest::Random random;
  const Bytes in = random.MakeBytes(2048);
  const Bytes iv = random.MakeBytes(16);
  Bytes out(in.size());
  alignas(16) std::uint8_t vector[16];
  std::memcpy(vector, iv.data(), 16);
  const bool encrypt = direction == KeyDirection::kWriting;
  const auto run = encrypt ? ImageEncipherRun : ImageDecipherRun;
  EXPECT_EQ(run(context, out.data(), in.data(), 2048, vector).status, 0);
  EXPECT_EQ(out, kqtest::CipherRun(context.type, dataKey, iv, in, encrypt)) << context.type;
}

TEST(ImageKeyOpen, OpensTheBlobsOfAllSchemesInBothModes) {
  kqtest::Random random;
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const std::uint32_t type : kTypes) {
      Sample sample(random, type, kqtest::UnitsOfAscii("correct horse"));
      const auto context = MakeContext(type);
      ASSERT_EQ(Open(context.get(), "correct horse", sample.blob).status, 0) << type;
      ExpectCiphers(*context, sample.dataKey, KeyDirection::kReading);
    }
  }
}

TEST(ImageKeyUnwrap, OpensForEitherDirectionInBothModes) {
  kqtest::Random random;
  const Bytes units = kqtest::UnitsOfAscii("pw");
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const std::uint32_t type : kTypes) {
      for (const KeyDirection direction : {KeyDirection::kReading, KeyDirection::kWriting}) {
        Sample sample(random, type, units);
        const auto context = MakeContext(type);
        ASSERT_EQ(Unwrap(context.get(), units, sample.blob, direction).status, 0);
        ExpectCiphers(*context, sample.dataKey, direction);
      }
    }
  }
}

TEST(ImageKeyUnwrap, DestroysTheKeyPartAndKeepsTheTestValue) {
  kqtest::Random random;
  const Bytes units = kqtest::UnitsOfAscii("pw");
  for (const std::uint32_t type : kTypes) {
    for (const KeyDirection direction : {KeyDirection::kReading, KeyDirection::kWriting}) {
      Sample sample(random, type, units);
      const auto context = MakeContext(type);
      ASSERT_EQ(Unwrap(context.get(), units, sample.blob, direction).status, 0);
      const std::size_t keyBytes = kqtest::DataKeyBytes(type);
      EXPECT_EQ(kqtest::Slice(sample.blob, 0, keyBytes), Bytes(keyBytes)) << type;
      if (type != 1) {
        EXPECT_EQ(kqtest::Slice(sample.blob, keyBytes, 16), sample.testValue);
      }
    }
  }
}

TEST(ImageKeyUnwrap, AWrongPasswordOfACheckedSchemeIsRefusedAndTheKeyPartWiped) {
  kqtest::Random random;
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const std::uint32_t type : kCheckedTypes) {
      for (const char* wrong :
           {"", "p", "pW", "pw ", "a much longer password than the right one"}) {
        Sample sample(random, type, kqtest::UnitsOfAscii("pw"));
        const auto context = MakeContext(type);
        ExpectFailure(Open(context.get(), wrong, sample.blob), -86);
        const std::size_t keyBytes = kqtest::DataKeyBytes(type);
        EXPECT_EQ(kqtest::Slice(sample.blob, 0, keyBytes), Bytes(keyBytes)) << type;
      }
    }
  }
}

TEST(ImageKeyUnwrap, AWrongPasswordOfTheUncheckedSchemeGivesAWrongKey) {
  kqtest::Random random;
  Sample sample(random, 1, kqtest::UnitsOfAscii("pw"));
  const Bytes wrongUnits = kqtest::UnitsOfAscii("wrong");
  const Bytes wrongKey = *kqtest::OpenKeyBlob(1, wrongUnits, sample.blob);
  ASSERT_NE(wrongKey, sample.dataKey);
  const auto context = MakeContext(1);
  ASSERT_EQ(Open(context.get(), "wrong", sample.blob).status, 0);
  ExpectCiphers(*context, wrongKey, KeyDirection::kReading);
}

TEST(ImageKeyUnwrap, AnyDamagedByteOfACheckedBlobIsRefused) {
  kqtest::Random random;
  const Bytes units = kqtest::UnitsOfAscii("pw");
  for (const std::uint32_t type : kCheckedTypes) {
    const Sample sample(random, type, units);
    for (std::size_t at = 0; at < sample.blob.size(); ++at) {
      Bytes damaged = sample.blob;
      damaged[at] ^= static_cast<std::uint8_t>(1u << random.Below(8));
      const auto context = MakeContext(type);
      ExpectFailure(Unwrap(context.get(), units, damaged, KeyDirection::kReading), -86);
    }
  }
}

TEST(ImageKeyUnwrap, AnyOtherBlobLengthIsRefusedBeforeAnythingIsComputed) {
  const Bytes units = kqtest::UnitsOfAscii("pw");
  for (const std::uint32_t type : kTypes) {
    for (std::size_t length = 0; length <= 80; ++length) {
      if (length == kqtest::KeyBlobBytes(type)) continue;
      Bytes blob(length, 0xA5);
      const auto context = MakeContext(type);
      ExpectFailure(Unwrap(context.get(), units, blob, KeyDirection::kReading), -87);
      EXPECT_EQ(blob, Bytes(length, 0xA5));
    }
  }
}

TEST(ImageKeyUnwrap, AnyOtherTypeSucceedsAndDoesNothing) {
  const Bytes units = kqtest::UnitsOfAscii("pw");
  for (const std::uint32_t type : {0u, 5u, 6u, 0x80000001u, 0xFFFFFFFFu}) {
    for (const std::size_t length : {0u, 16u, 48u, 64u}) {
      Bytes blob(length, 0xA5);
      const auto context = MakeContext(type);
      EXPECT_EQ(Unwrap(context.get(), units, blob, KeyDirection::kReading).status, 0);
      EXPECT_EQ(blob, Bytes(length, 0xA5));
      EXPECT_EQ(context->rc4.entries[0], 0u);
    }
  }
}

TEST(ImageKeyUnwrap, AnEmptyPasswordMakesItsKeyFromTheDigestOfNoBytes) {
  kqtest::Random random;
  // MD5 of no bytes, as published.
  const Bytes passwordKey = kqtest::FromHex("d41d8cd98f00b204e9800998ecf8427e");
  const Bytes dataKey = random.MakeBytes(16);
  Bytes blob = kqtest::PeerEcb(passwordKey, dataKey, true);
  const auto context = MakeContext(1);
  ASSERT_EQ(
      ImageKeyUnwrap(context.get(), nullptr, 0, blob.data(), 16, KeyDirection::kReading).status, 0);
  ExpectCiphers(*context, dataKey, KeyDirection::kReading);
}

TEST(ImageKeyUnwrap, Rc4StandsBehindTheSixteenTestBytes) {
  kqtest::Random random;
  const Bytes units = kqtest::UnitsOfAscii("pw");
  Sample sample(random, 3, units);
  const auto context = MakeContext(3);
  ASSERT_EQ(Unwrap(context.get(), units, sample.blob, KeyDirection::kReading).status, 0);
  EXPECT_EQ(context->rc4.i, 16u);
}

TEST(ImageKeyOpen, ThePasswordIsItsUnitsInLittleEndianOrderWithoutMarkOrNul) {
  kqtest::Random random;
  // e-acute, the euro sign and a key beyond U+FFFF, which is two units.
  const char* const password = "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\x91";
  const Bytes units = {0xE9, 0x00, 0xAC, 0x20, 0x3D, 0xD8, 0x11, 0xDD};
  for (const std::uint32_t type : kTypes) {
    Sample sample(random, type, units);
    const auto context = MakeContext(type);
    ASSERT_EQ(Open(context.get(), password, sample.blob).status, 0) << type;
    ExpectCiphers(*context, sample.dataKey, KeyDirection::kReading);
  }
}

TEST(ImageKeyOpen, PasswordsOfAnyLengthOpen) {
  kqtest::Random random;
  for (std::size_t length = 0; length < 150; ++length) {
    const std::string password(length, 'k');
    Sample sample(random, 4, kqtest::UnitsOfAscii(password));
    const auto context = MakeContext(4);
    ASSERT_EQ(Open(context.get(), password.c_str(), sample.blob).status, 0) << length;
  }
}

TEST(ImageKeyOpen, ANullOrInconvertiblePasswordIsOutOfMemoryBeforeTheBlobIsLookedAt) {
  for (const char* password : {static_cast<const char*>(nullptr), "\xFF", "ok\xC3", "\xC0\x80",
                               "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
    for (const std::uint32_t type : {0u, 1u, 2u, 3u, 4u, 9u}) {
      Bytes blob(7, 0xA5);
      const auto context = MakeContext(type);
      ExpectFailure(Open(context.get(), password, blob), -8);
      EXPECT_EQ(blob, Bytes(7, 0xA5));
    }
  }
}

TEST(ImageKeyOpen, ASurrogateThatPassesTheConversionIsAUnitOfThePassword) {
  kqtest::Random random;
  Sample sample(random, 2, {0x01, 0xD8});
  const auto context = MakeContext(2);
  EXPECT_EQ(Open(context.get(), "\xED\xA0\x81", sample.blob).status, 0);
}

TEST(ImageKeyUnwrap, BlobMayHaveAnyAlignment) {
  kqtest::Random random;
  const Bytes units = kqtest::UnitsOfAscii("pw");
  for (const std::uint32_t mode : kqtest::RunnableModes()) {
    const ScopedAesMode scoped(mode);
    for (const std::uint32_t type : kTypes) {
      const Sample sample(random, type, units);
      Bytes room = kqtest::Joined(Bytes(1), sample.blob);
      const auto context = MakeContext(type);
      ASSERT_EQ(
          ImageKeyUnwrap(context.get(), units.data(), 4, room.data() + 1,
                         static_cast<std::uint32_t>(sample.blob.size()), KeyDirection::kReading)
              .status,
          0);
      ExpectCiphers(*context, sample.dataKey, KeyDirection::kReading);
    }
  }
}

}  // namespace
}  // namespace kq
