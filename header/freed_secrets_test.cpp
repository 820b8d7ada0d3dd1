// No query leaves a password or a key blob in the memory that it frees.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "header/allocation_watch_test.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::Bytes;

constexpr char kPassword[] = "a password of some length";

class FreedSecretsTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  FreedSecretsTest() {
    kqtest::ImageSpec spec;
    spec.header.laterSectors = kqtest::PatternBytes(1, 1536);
    spec.chunks = {kqtest::RawChunk({{0, 1}}, kqtest::PatternBytes(2, 512))};
    kqtest::EncipherImage(&spec, GetParam(), kPassword);
    kqtest::WriteFile(path_, kqtest::BuildImage(spec));
    // The part of the blob that gives the data key away, and the password in both encodings.
    secrets_.emplace_back(spec.header.keyBlob.begin(), spec.header.keyBlob.begin() + 16);
    secrets_.emplace_back(kPassword, kPassword + sizeof kPassword - 1);
    secrets_.push_back(kqtest::PasswordUnits(kPassword));
    secrets_.push_back(kqtest::MakeImageKey(GetParam(), kPassword).dataKey);
  }

  template <class Query>
  void ExpectNothingFreed(const Query& query) {
    int blocks = 0;
    std::string found;
    {
      const kqtest::BeforeFree watch([&](std::span<const std::uint8_t> block) {
        ++blocks;
        for (std::size_t i = 0; i < secrets_.size(); ++i) {
          const Bytes& secret = secrets_[i];
          if (std::search(block.begin(), block.end(), secret.begin(), secret.end()) !=
              block.end()) {
            found += "secret " + std::to_string(i) + " in a block of " +
                     std::to_string(block.size()) + " bytes; ";
          }
        }
      });
      query();
    }
    EXPECT_EQ(found, "");
    EXPECT_GE(blocks, 2);
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
  std::vector<Bytes> secrets_;
};

TEST_P(FreedSecretsTest, PlainQueries) {
  ImageFileInfo info;
  ExpectNothingFreed([&] { EXPECT_EQ(KQImageFileGetInfo(path_.c_str(), &info).status, 0); });
  ImageFileInfo2 info2;
  ExpectNothingFreed([&] { EXPECT_EQ(KQImageFileGetInfo2(path_.c_str(), &info2).status, 0); });
}

TEST_P(FreedSecretsTest, HeaderSectors) {
  Bytes sectors(2048);
  for (const char* password : {kPassword, "wrong", static_cast<const char*>(nullptr)}) {
    auto size = static_cast<std::uint32_t>(sectors.size());
    ExpectNothingFreed(
        [&] { KQImageFileGetAllHeaderSectors(path_.c_str(), password, sectors.data(), &size); });
    ExpectNothingFreed(
        [&] { KQImageFileGetExtraSectors(path_.c_str(), password, sectors.data(), &size); });
  }
}

TEST_P(FreedSecretsTest, TestPassword) {
  for (const char* password : {kPassword, "wrong", static_cast<const char*>(nullptr)}) {
    bool opens = false;
    ExpectNothingFreed([&] { KQImageFileTestPassword(path_.c_str(), password, &opens); });
    EXPECT_EQ(opens, password == kPassword || (password != nullptr && GetParam() == 1));
  }
}

INSTANTIATE_TEST_SUITE_P(AllTypes, FreedSecretsTest, testing::Range(1u, 5u));

}  // namespace
}  // namespace kq
