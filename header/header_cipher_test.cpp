#include "header/header_cipher.h"

#include <gtest/gtest.h>

#include "tests/support/image_cipher.h"

namespace kq {
namespace {

using kqtest::Bytes;

KQStatus Decipher(const kqtest::ImageKey& key, const char* password, Bytes* run) {
  return DecipherHeaderRun(key.type, key.blob.data(), static_cast<std::uint32_t>(key.blob.size()),
                           password, run->data(), static_cast<std::uint32_t>(run->size()));
}

TEST(DecipherHeaderRun, DeciphersInPlaceAndLeavesTheKeyBlob) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    const kqtest::ImageKey key = kqtest::MakeImageKey(type, "p");
    const Bytes blob = key.blob;
    const Bytes plain = kqtest::PatternBytes(type, 3ul * 512);
    Bytes run = kqtest::EncipherWith(key)(plain, 0);
    EXPECT_EQ(Decipher(key, "p", &run).status, 0);
    EXPECT_EQ(run, plain);
    EXPECT_EQ(key.blob, blob);
  }
}

TEST(DecipherHeaderRun, FailureLeavesTheRun) {
  for (std::uint32_t type = 2; type <= 4; ++type) {
    const kqtest::ImageKey key = kqtest::MakeImageKey(type, "p");
    const Bytes stored = kqtest::PatternBytes(type, 512);
    for (const char* password : {static_cast<const char*>(nullptr), "", "q"}) {
      Bytes run = stored;
      const KQStatus status = Decipher(key, password, &run);
      EXPECT_EQ(status.status, -86);
      const bool missing = password == nullptr || *password == '\0';
      EXPECT_STREQ(status.file, missing ? "kqimageapi" : "crypto");
      EXPECT_EQ(run, stored);
    }
  }
}

TEST(DecipherHeaderRun, MissingPasswordIsToldBeforeABadKeyBlob) {
  Bytes run(512);
  EXPECT_EQ(DecipherHeaderRun(2, nullptr, 0, nullptr, run.data(), 512).status, -86);
  EXPECT_EQ(DecipherHeaderRun(2, run.data(), 0, "p", run.data(), 512).status, -87);
}

}  // namespace
}  // namespace kq
