#include <gtest/gtest.h>

#include <string>

#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::ImageSpec;

class PasswordCheckTest : public testing::Test {
 protected:
  void Write(const Bytes& file) { kqtest::WriteFile(path_, file); }
  void Write(const ImageSpec& spec) { Write(kqtest::BuildImage(spec)); }

  // The answer; what the call leaves must be false or true, never what was there.
  bool Opens(const char* password, std::int32_t expectedStatus = 0) const {
    bool answers[2] = {false, true};
    for (bool& answer : answers) {
      EXPECT_EQ(KQImageFileTestPassword(path_.c_str(), password, &answer).status, expectedStatus);
    }
    EXPECT_EQ(answers[0], answers[1]);
    return answers[0];
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

ImageSpec EncipheredImage(std::uint32_t type, const char* password) {
  ImageSpec spec;
  spec.header.laterSectors = kqtest::PatternBytes(1, 1024);
  spec.chunks = {kqtest::RawChunk({{0, 1}}, kqtest::PatternBytes(4, 512))};
  if (type != 0) kqtest::EncipherImage(&spec, type, password);
  return spec;
}

TEST_F(PasswordCheckTest, EveryPasswordOpensAPlainImage) {
  Write(EncipheredImage(0, ""));
  for (const char* password : {static_cast<const char*>(nullptr), "", "x", "\xFF"}) {
    EXPECT_TRUE(Opens(password));
  }
}

TEST_F(PasswordCheckTest, CheckedSchemesTellRightFromWrong) {
  for (std::uint32_t type = 2; type <= 4; ++type) {
    SCOPED_TRACE(type);
    Write(EncipheredImage(type, "S\u00e9cret"));
    EXPECT_TRUE(Opens("S\u00e9cret"));
    EXPECT_FALSE(Opens("Secret"));
    EXPECT_FALSE(Opens("S\u00e9cret "));
    EXPECT_FALSE(Opens("S\u00e9cre"));
  }
}

TEST_F(PasswordCheckTest, UncheckedSchemeTakesEveryPasswordThatIsUtf8) {
  Write(EncipheredImage(1, "secret"));
  EXPECT_TRUE(Opens("secret"));
  EXPECT_TRUE(Opens("anything"));
  EXPECT_FALSE(Opens("\xFF"));
}

TEST_F(PasswordCheckTest, PasswordThatIsNoUtf8IsWrongAndNoFailure) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    Write(EncipheredImage(type, "secret"));
    EXPECT_FALSE(Opens("\x80"));
  }
}

TEST_F(PasswordCheckTest, MissingPasswordIsRefused) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    Write(EncipheredImage(type, "secret"));
    EXPECT_FALSE(Opens(nullptr, -86));
    EXPECT_FALSE(Opens("", -86));
  }
}

TEST_F(PasswordCheckTest, SingleSectorHeaderIsCheckedToo) {
  ImageSpec spec = EncipheredImage(2, "secret");
  spec.header.laterSectors.clear();
  Write(spec);
  EXPECT_TRUE(Opens("secret"));
  EXPECT_FALSE(Opens("Secret"));
  EXPECT_FALSE(Opens(nullptr, -86));
}

TEST_F(PasswordCheckTest, DamagedKeyBlobIsAWrongPassword) {
  for (std::uint32_t type = 2; type <= 4; ++type) {
    const Bytes file = kqtest::BuildImage(EncipheredImage(type, "secret"));
    const std::size_t length = type == 4 ? 64 : 48;
    for (std::size_t i = 0; i < length; ++i) {
      Bytes damaged = file;
      damaged[114 + i] ^= 1;
      Write(damaged);
      EXPECT_FALSE(Opens("secret")) << i;
    }
  }
}

TEST_F(PasswordCheckTest, KeyBlobOfAnotherLengthIsAWrongPassword) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    for (const unsigned length : {0u, 1u, 15u, 17u, 47u, 49u, 63u, 65u, 398u, 399u, 0xFFFFu}) {
      SCOPED_TRACE(length);
      ImageSpec spec = EncipheredImage(type, "secret");
      spec.keyBlobLengthField = static_cast<std::uint16_t>(length);
      Write(spec);
      EXPECT_FALSE(Opens("secret"));
    }
  }
}

TEST_F(PasswordCheckTest, KeyBlobBehindItsSectorIsAWrongPassword) {
  Bytes file = kqtest::BuildImage(EncipheredImage(2, "secret"));
  kqtest::Set32(&file, 4, 162);
  Write(file);
  EXPECT_TRUE(Opens("secret"));
  for (const std::uint32_t sectorSize : {161u, 128u, 114u, 16u, 1u}) {
    kqtest::Set32(&file, 4, sectorSize);
    Write(file);
    EXPECT_FALSE(Opens("secret"));
  }
}

TEST_F(PasswordCheckTest, NullArgumentsAreInvalid) {
  bool result = true;
  const KQStatus status = KQImageFileTestPassword(nullptr, "x", &result);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_FALSE(result);
  EXPECT_EQ(KQImageFileTestPassword(path_.c_str(), "x", nullptr).status, -87);
}

TEST_F(PasswordCheckTest, FailuresOfTheReadAreHandedOn) {
  EXPECT_FALSE(Opens("secret", -2));
  ImageSpec spec = EncipheredImage(2, "secret");
  spec.header.magic = "OPEN";
  Write(spec);
  EXPECT_FALSE(Opens("secret", -1392));
  EXPECT_FALSE(Opens(nullptr, -1392));
  Write(Bytes(113));
  EXPECT_FALSE(Opens("secret", -31));
}

}  // namespace
}  // namespace kq
