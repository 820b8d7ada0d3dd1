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
using kqtest::PatternBytes;

using Query = KQStatus (*)(const char*, const char*, void*, std::uint32_t*);

class HeaderSectorsQueryTest : public testing::Test {
 protected:
  void Write(const ImageSpec& spec) { kqtest::WriteFile(path_, kqtest::BuildImage(spec)); }

  // Asks for the size, then for the sectors, and expects both to succeed.
  Bytes Get(Query query, const char* password) const {
    std::uint32_t size = 0xDEAD;
    EXPECT_EQ(query(path_.c_str(), password, nullptr, &size).status, 0);
    Bytes sectors(size + 16, 0xEE);
    EXPECT_EQ(query(path_.c_str(), password, sectors.data(), &size).status, 0);
    EXPECT_EQ(size + 16, sectors.size());
    EXPECT_EQ(Bytes(sectors.end() - 16, sectors.end()), Bytes(16, 0xEE));
    sectors.resize(size);
    return sectors;
  }
  void ExpectFailure(Query query, const char* password, std::int32_t status,
                     const char* module) const {
    Bytes sectors(0x2000, 0xEE);
    std::uint32_t size = 0x2000;
    const KQStatus outcome = query(path_.c_str(), password, sectors.data(), &size);
    EXPECT_EQ(outcome.status, status);
    EXPECT_STREQ(outcome.file, module);
    EXPECT_EQ(size, 0x2000u);
    EXPECT_EQ(sectors, Bytes(0x2000, 0xEE));
    EXPECT_EQ(query(path_.c_str(), password, nullptr, &size).status, status);
    EXPECT_EQ(size, 0x2000u);
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

ImageSpec SpecWith(std::uint32_t headerSectors, std::uint32_t sectorSize = 512) {
  ImageSpec spec;
  spec.header.sectorSize = sectorSize;
  spec.header.laterSectors = PatternBytes(3, std::size_t{headerSectors - 1} * sectorSize);
  spec.chunks = {kqtest::RawChunk({{0x10000, 1}}, PatternBytes(4, sectorSize))};
  return spec;
}

Bytes PlainHeader(const ImageSpec& spec) {
  Bytes header = kqtest::BuildHeader(spec);
  kqtest::SetBytes(&header, spec.header.sectorSize, spec.header.laterSectors);
  return header;
}

Bytes From(const Bytes& bytes, std::size_t offset) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(offset), bytes.end()};
}

TEST_F(HeaderSectorsQueryTest, GivesPlainSectorsOfEveryEncryptionType) {
  for (std::uint32_t type = 0; type <= 4; ++type) {
    for (const std::uint32_t sectorSize : {512u, 4096u}) {
      SCOPED_TRACE(type);
      ImageSpec spec = SpecWith(5, sectorSize);
      if (type != 0) kqtest::EncipherImage(&spec, type, "secret");
      Write(spec);
      const Bytes plain = PlainHeader(spec);
      const char* password = type == 0 ? nullptr : "secret";
      EXPECT_EQ(Get(KQImageFileGetAllHeaderSectors, password), plain);
      EXPECT_EQ(Get(KQImageFileGetExtraSectors, password), From(plain, 2ul * sectorSize));
    }
  }
}

TEST_F(HeaderSectorsQueryTest, PasswordOfAPlainImageIsNotLookedAt) {
  const ImageSpec spec = SpecWith(3);
  Write(spec);
  EXPECT_EQ(Get(KQImageFileGetAllHeaderSectors, "\xFF"), PlainHeader(spec));
}

TEST_F(HeaderSectorsQueryTest, SmallSizeIsMoreDataWithTheSizeStored) {
  Write(SpecWith(4));
  for (const auto& [query, needed] :
       {std::pair<Query, std::uint32_t>{KQImageFileGetAllHeaderSectors, 2048},
        std::pair<Query, std::uint32_t>{KQImageFileGetExtraSectors, 1024}}) {
    for (const std::uint32_t room : {0u, 1u, needed - 1}) {
      Bytes sectors(needed, 0xEE);
      std::uint32_t size = room;
      const KQStatus status = query(path_.c_str(), nullptr, sectors.data(), &size);
      EXPECT_EQ(status.status, -234);
      EXPECT_STREQ(status.file, "kqimageapi");
      EXPECT_EQ(size, needed);
      EXPECT_EQ(sectors, Bytes(needed, 0xEE));
    }
    // More room than needed: the size comes back as what there is.
    Bytes sectors(needed + 100, 0xEE);
    std::uint32_t size = needed + 100;
    EXPECT_EQ(query(path_.c_str(), nullptr, sectors.data(), &size).status, 0);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(From(sectors, needed), Bytes(100, 0xEE));
  }
}

TEST_F(HeaderSectorsQueryTest, SizeAloneIsAskedWithoutABuffer) {
  Write(SpecWith(4));
  for (const std::uint32_t before : {0u, 5u, 0xFFFFFFFFu}) {
    std::uint32_t size = before;
    EXPECT_EQ(KQImageFileGetAllHeaderSectors(path_.c_str(), nullptr, nullptr, &size).status, 0);
    EXPECT_EQ(size, 2048u);
  }
}

TEST_F(HeaderSectorsQueryTest, FewerThanThreeSectorsHaveNoExtraOnes) {
  for (const std::uint32_t headerSectors : {1u, 2u}) {
    Write(SpecWith(headerSectors));
    ExpectFailure(KQImageFileGetExtraSectors, nullptr, -2, "kqimageapi");
    ImageSpec enciphered = SpecWith(headerSectors);
    kqtest::EncipherImage(&enciphered, 2, "secret");
    Write(enciphered);
    // Before any password is asked for.
    ExpectFailure(KQImageFileGetExtraSectors, nullptr, -2, "kqimageapi");
  }
}

// A client that got zeros for what is missing would carry them into its next image.
TEST_F(HeaderSectorsQueryTest, FileCutWithinItsHeaderIsGeneralFailure) {
  Bytes file = kqtest::BuildImage(SpecWith(4));
  for (const std::size_t length : {2047u, 1536u, 1025u, 513u, 512u, 200u}) {
    SCOPED_TRACE(length);
    file.resize(length);
    kqtest::WriteFile(path_, file);
    ExpectFailure(KQImageFileGetAllHeaderSectors, nullptr, -31, "kqos");
    ExpectFailure(KQImageFileGetExtraSectors, nullptr, -31, "kqos");
  }
}

TEST_F(HeaderSectorsQueryTest, EncipheredSectorsNeedTheirPassword) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    SCOPED_TRACE(type);
    ImageSpec spec = SpecWith(4);
    kqtest::EncipherImage(&spec, type, "secret");
    Write(spec);
    for (const Query query :
         {Query{KQImageFileGetAllHeaderSectors}, Query{KQImageFileGetExtraSectors}}) {
      ExpectFailure(query, nullptr, -86, "kqimageapi");
      ExpectFailure(query, "", -86, "kqimageapi");
      ExpectFailure(query, "\xC0\x80", -8, "crypto");
      if (type != 1) ExpectFailure(query, "Secret", -86, "crypto");
    }
  }
}

TEST_F(HeaderSectorsQueryTest, WrongPasswordOfType1GivesGarbage) {
  ImageSpec spec = SpecWith(4);
  kqtest::EncipherImage(&spec, 1, "secret");
  Write(spec);
  const Bytes garbage = Get(KQImageFileGetAllHeaderSectors, "Secret");
  const Bytes plain = PlainHeader(spec);
  ASSERT_EQ(garbage.size(), plain.size());
  EXPECT_EQ(Bytes(garbage.begin(), garbage.begin() + 512),
            Bytes(plain.begin(), plain.begin() + 512));
  EXPECT_NE(garbage, plain);
}

TEST_F(HeaderSectorsQueryTest, SingleSectorOfAnEncipheredImageNeedsNoPassword) {
  ImageSpec spec = SpecWith(1);
  kqtest::EncipherImage(&spec, 2, "secret");
  Write(spec);
  EXPECT_EQ(Get(KQImageFileGetAllHeaderSectors, nullptr), PlainHeader(spec));
}

TEST_F(HeaderSectorsQueryTest, EmptyKeyBlobIsInvalid) {
  for (std::uint32_t type = 1; type <= 4; ++type) {
    ImageSpec spec = SpecWith(4);
    spec.header.encryptionType = type;
    Write(spec);
    ExpectFailure(KQImageFileGetAllHeaderSectors, "secret", -87, "crypto");
    ExpectFailure(KQImageFileGetExtraSectors, "secret", -87, "crypto");
  }
}

TEST_F(HeaderSectorsQueryTest, NullArgumentsAreInvalid) {
  Write(SpecWith(4));
  Bytes sectors(8);
  std::uint32_t size = 8;
  for (const Query query :
       {Query{KQImageFileGetAllHeaderSectors}, Query{KQImageFileGetExtraSectors}}) {
    const KQStatus status = query(nullptr, nullptr, sectors.data(), &size);
    EXPECT_EQ(status.status, -87);
    EXPECT_STREQ(status.file, "kqimageapi");
    EXPECT_EQ(query(path_.c_str(), nullptr, sectors.data(), nullptr).status, -87);
  }
}

TEST_F(HeaderSectorsQueryTest, FailuresOfTheReadAreHandedOn) {
  ExpectFailure(KQImageFileGetAllHeaderSectors, nullptr, -2, "kqos_linux");
  ImageSpec spec = SpecWith(4);
  spec.header.magic = "OPEN";
  Write(spec);
  ExpectFailure(KQImageFileGetAllHeaderSectors, nullptr, -1392, "kqimageapi");
  ExpectFailure(KQImageFileGetExtraSectors, nullptr, -1392, "kqimageapi");
  kqtest::WriteFile(path_, Bytes(100));
  ExpectFailure(KQImageFileGetExtraSectors, nullptr, -31, "kqos");
}

// The tail of a file is none of these queries' business.
TEST_F(HeaderSectorsQueryTest, HeaderAloneIsEnough) {
  const ImageSpec spec = SpecWith(4);
  kqtest::WriteFile(path_, kqtest::BuildHeader(spec));
  EXPECT_EQ(Get(KQImageFileGetAllHeaderSectors, nullptr), PlainHeader(spec));
}

}  // namespace
}  // namespace kq
