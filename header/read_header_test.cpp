#include "header/read_header.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <limits>
#include <string>

#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::Bytes;
using kqtest::ImageSpec;
using kqtest::PatternBytes;

struct Outcome {
  KQStatus status{};
  bool hasBuffer = false;
  std::uint32_t size = 0;
  Bytes bytes;
};

class ReadHeaderSectorsTest : public testing::Test {
 protected:
  std::string Write(const Bytes& bytes) {
    kqtest::WriteFile(path_, bytes);
    return path_;
  }
  std::string Write(const ImageSpec& spec) { return Write(kqtest::BuildImage(spec)); }

  Outcome Read(const char* password, std::uint64_t start, std::uint64_t count,
               bool tolerate) const {
    Outcome outcome;
    HeapBuffer sectors = HeapBuffer::Allocate(1);
    outcome.size = 77;
    outcome.status = ReadHeaderSectorsFromPath(path_.c_str(), password, start, count, tolerate,
                                               &sectors, &outcome.size);
    outcome.hasBuffer = static_cast<bool>(sectors);
    if (sectors) outcome.bytes.assign(sectors.data(), sectors.data() + outcome.size);
    return outcome;
  }

  void ExpectFailure(const Outcome& outcome, std::int32_t status, const char* module) const {
    EXPECT_EQ(outcome.status.status, status);
    EXPECT_STREQ(outcome.status.file, module);
    EXPECT_FALSE(outcome.hasBuffer);
    EXPECT_EQ(outcome.size, 0u);
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

Bytes Part(const Bytes& bytes, std::size_t offset, std::size_t length) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(offset),
          bytes.begin() + static_cast<std::ptrdiff_t>(offset + length)};
}

// An image with a header of the given sectors and one chunk.
ImageSpec SpecWith(std::uint32_t headerSectors, std::uint32_t sectorSize = 512) {
  ImageSpec spec;
  spec.header.sectorSize = sectorSize;
  spec.header.laterSectors = PatternBytes(3, std::size_t{headerSectors - 1} * sectorSize);
  spec.chunks = {kqtest::RawChunk({{0x10000, 2}}, PatternBytes(4, std::size_t{2} * sectorSize))};
  return spec;
}

TEST_F(ReadHeaderSectorsTest, GivesTheSectorsAsStoredOfAPlainImage) {
  for (const std::uint32_t sectorSize : {256u, 512u, 1024u, 2048u, 4096u, 300u, 130u}) {
    SCOPED_TRACE(sectorSize);
    const Bytes file = kqtest::BuildImage(SpecWith(4, sectorSize));
    Write(file);
    for (const std::uint64_t start : {0u, 2u}) {
      for (std::uint64_t count = 0; count <= 4 - start; ++count) {
        const Outcome outcome = Read(nullptr, start, count, false);
        ASSERT_EQ(outcome.status.status, 0);
        const std::uint64_t sectors = count == 0 ? 4 - start : count;
        EXPECT_EQ(outcome.size, sectors * sectorSize);
        EXPECT_EQ(outcome.bytes, Part(file, start * sectorSize, sectors * sectorSize));
      }
    }
  }
}

TEST_F(ReadHeaderSectorsTest, SizeMayBeNull) {
  Write(SpecWith(2));
  HeapBuffer sectors;
  EXPECT_EQ(
      ReadHeaderSectorsFromPath(path_.c_str(), nullptr, 0, 0, false, &sectors, nullptr).status, 0);
  EXPECT_TRUE(sectors);
}

TEST_F(ReadHeaderSectorsTest, RangeBeyondTheHeaderIsNotFound) {
  Write(SpecWith(3));
  ExpectFailure(Read(nullptr, 0, 4, true), -2, "kqimageapi");
  ExpectFailure(Read(nullptr, 2, 2, true), -2, "kqimageapi");
  ExpectFailure(Read(nullptr, 2, std::numeric_limits<std::uint64_t>::max(), true), -2,
                "kqimageapi");
  Write(SpecWith(2));
  ExpectFailure(Read(nullptr, 2, 0, true), -2, "kqimageapi");
  Write(SpecWith(1));
  ExpectFailure(Read(nullptr, 2, 0, true), -2, "kqimageapi");
  ExpectFailure(Read(nullptr, 2, 1, true), -2, "kqimageapi");
  EXPECT_EQ(Read(nullptr, 0, 1, true).status.status, 0);
}

TEST_F(ReadHeaderSectorsTest, FixedHeadIsChecked) {
  struct Change {
    const char* what;
    std::size_t offset;
    std::uint64_t value;
    std::size_t width;
    std::int32_t status;
  };
  const Change changes[] = {
      {"OPEN", 0, 0x4E45504F, 4, -1392},
      {"first letter", 0, 'X', 1, -1392},
      {"last letter", 3, 'i', 1, -1392},
      {"SectorSize 0", 4, 0, 4, -1392},
      {"HeaderSectors 0", 8, 0, 4, -1392},
      {"CompressionType 6", 104, 6, 4, 0},
      {"CompressionType 7", 104, 7, 4, -1392},
      {"CompressionType largest", 104, 0xFFFFFFFF, 4, -1392},
      {"CompressionType 1", 104, 1, 4, 0},
      {"EncryptionType 4", 108, 4, 4, 0},
      {"EncryptionType 5", 108, 5, 4, -1392},
      {"EncryptionType largest", 108, 0xFFFFFFFF, 4, -1392},
      {"SectorSize 1", 4, 1, 4, 0},
  };
  for (const Change& change : changes) {
    SCOPED_TRACE(change.what);
    Bytes file = kqtest::BuildImage(SpecWith(1));
    kqtest::SetLe(&file, change.offset, change.value, change.width);
    Write(file);
    const Outcome outcome = Read(nullptr, 0, 1, true);
    if (change.status != 0) {
      ExpectFailure(outcome, change.status, "kqimageapi");
    } else {
      EXPECT_EQ(outcome.status.status, 0);
    }
  }
}

TEST_F(ReadHeaderSectorsTest, ImageIdIsNeitherZeroNorItsParent) {
  ImageSpec spec = SpecWith(1);
  spec.header.imageId = kqtest::Id{};
  spec.header.parentImageId = kqtest::MakeId(2);
  Write(spec);
  ExpectFailure(Read(nullptr, 0, 1, true), -1392, "kqimageapi");

  // One byte anywhere makes an identifier.
  for (const std::size_t place : {0u, 15u}) {
    spec.header.imageId = kqtest::Id{};
    spec.header.imageId[place] = 1;
    Write(spec);
    EXPECT_EQ(Read(nullptr, 0, 1, true).status.status, 0);
  }

  spec.header.imageId = spec.header.parentImageId = kqtest::MakeId(5);
  Write(spec);
  ExpectFailure(Read(nullptr, 0, 1, true), -1392, "kqimageapi");
  spec.header.imageId[15] ^= 1;
  Write(spec);
  EXPECT_EQ(Read(nullptr, 0, 1, true).status.status, 0);
}

TEST_F(ReadHeaderSectorsTest, CorruptHeadIsToldBeforeTheRange) {
  Bytes file = kqtest::BuildImage(SpecWith(1));
  file[0] = 'X';
  Write(file);
  ExpectFailure(Read(nullptr, 2, 0, true), -1392, "kqimageapi");
}

// A file that can't give 114 bytes fails in the read itself, which goes through a bounce buffer.
TEST_F(ReadHeaderSectorsTest, FileShorterThanTheFixedHeadIsGeneralFailure) {
  const Bytes file = kqtest::BuildImage(SpecWith(1));
  for (const std::size_t length : {0u, 1u, 4u, 113u}) {
    SCOPED_TRACE(length);
    Write(Part(file, 0, length));
    ExpectFailure(Read(nullptr, 0, 1, true), -31, "kqos");
  }
}

TEST_F(ReadHeaderSectorsTest, FileCutBehindTheFixedHeadIsGeneralFailure) {
  const Bytes file = kqtest::BuildImage(SpecWith(3));
  for (const std::size_t length : {114u, 115u, 511u, 512u, 513u, 1024u, 1535u}) {
    SCOPED_TRACE(length);
    Write(Part(file, 0, length));
    ExpectFailure(Read(nullptr, 0, 0, false), -31, "kqos");
    ExpectFailure(Read(nullptr, 2, 1, false), -31, "kqos");
  }
  Write(Part(file, 0, 1536));
  EXPECT_EQ(Read(nullptr, 0, 0, false).bytes, Part(file, 0, 1536));
  Write(Part(file, 0, 512));
  EXPECT_EQ(Read(nullptr, 0, 1, false).bytes, Part(file, 0, 512));
}

TEST_F(ReadHeaderSectorsTest, WhatACutFileLacksReadsAsZeroUnderTolerance) {
  const Bytes file = kqtest::BuildImage(SpecWith(3));
  for (const std::size_t length : {114u, 115u, 511u, 512u, 513u, 1024u, 1535u}) {
    SCOPED_TRACE(length);
    Write(Part(file, 0, length));
    const Outcome outcome = Read(nullptr, 0, 0, true);
    ASSERT_EQ(outcome.status.status, 0);
    Bytes expected = Part(file, 0, length);
    expected.resize(1536);
    EXPECT_EQ(outcome.bytes, expected);
  }
}

TEST_F(ReadHeaderSectorsTest, FileCutInSectorsOfOddSizeIsGeneralFailure) {
  const Bytes file = kqtest::BuildImage(SpecWith(3, 300));
  Write(Part(file, 0, 899));
  ExpectFailure(Read(nullptr, 0, 0, false), -31, "kqos");
  EXPECT_EQ(Read(nullptr, 0, 2, false).status.status, 0);
}

TEST_F(ReadHeaderSectorsTest, OpenFailureIsHandedOn) {
  const Outcome outcome = Read(nullptr, 0, 1, true);
  ExpectFailure(outcome, -2, "kqos_linux");
  EXPECT_EQ(outcome.status.detail1, static_cast<std::uint32_t>(ENOENT));
  EXPECT_EQ(outcome.status.detail2, 2u);
}

TEST_F(ReadHeaderSectorsTest, DirectoryFailsInTheRead) {
  path_ = dir_.Path();
  const Outcome outcome = Read(nullptr, 0, 1, true);
  ExpectFailure(outcome, -31, "kqos_linux");
  EXPECT_EQ(outcome.status.detail1, static_cast<std::uint32_t>(EISDIR));
}

TEST_F(ReadHeaderSectorsTest, SectorSmallerThanTheFixedHeadHasItsFieldsBehindIt) {
  Bytes file = kqtest::BuildImage(SpecWith(1));
  for (const std::uint32_t sectorSize : {1u, 8u, 64u, 113u}) {
    kqtest::Set32(&file, 4, sectorSize);
    Write(file);
    HeapBuffer sectors;
    std::uint32_t size = 0;
    ASSERT_EQ(ReadHeaderSectorsFromPath(path_.c_str(), nullptr, 0, 1, true, &sectors, &size).status,
              0);
    EXPECT_EQ(size, sectorSize);
    EXPECT_EQ(std::memcmp(sectors.data(), file.data(), 114), 0);
  }
}

TEST_F(ReadHeaderSectorsTest, RangeOf4GiBIsOutOfMemory) {
  Bytes file = kqtest::BuildImage(SpecWith(1));
  const std::pair<std::uint32_t, std::uint32_t> sizes[] = {
      {0xFFFFFFFF, 0xFFFFFFFF}, {0x80000000, 2}, {512, 0x800000}};
  for (const auto& [sectorSize, headerSectors] : sizes) {
    SCOPED_TRACE(sectorSize);
    kqtest::Set32(&file, 4, sectorSize);
    kqtest::Set32(&file, 8, headerSectors);
    Write(file);
    ExpectFailure(Read(nullptr, 0, 0, true), -8, "kqimageapi");
  }
}

// Address space is all that the claim costs: a bound far below the claim on what may be touched.
TEST_F(ReadHeaderSectorsTest, ClaimBeyondTheFileTouchesNoMemory) {
  Bytes file = kqtest::BuildImage(SpecWith(1));
  kqtest::Set32(&file, 4, 0x30000000);
  Write(file);
  const auto residentPages = [] {
    const Bytes text = kqtest::ReadFile("/proc/self/statm");
    const std::string line(text.begin(), text.end());
    return std::stoull(line.substr(line.find(' ')));
  };
  const auto before = residentPages();
  HeapBuffer sectors;
  std::uint32_t size = 0;
  ASSERT_EQ(ReadHeaderSectorsFromPath(path_.c_str(), nullptr, 0, 1, true, &sectors, &size).status,
            0);
  EXPECT_EQ(size, 0x30000000u);
  EXPECT_LT(residentPages(), before + 0x30000000ull / 4096 / 2);
  EXPECT_EQ(std::memcmp(sectors.data(), file.data(), file.size()), 0);
  EXPECT_EQ(sectors.data()[file.size()], 0);
  EXPECT_EQ(sectors.data()[size - 1], 0);
}

// ---- Enciphered images ----

class EncipheredHeaderTest : public ReadHeaderSectorsTest,
                             public testing::WithParamInterface<std::uint32_t> {
 protected:
  ImageSpec Enciphered(std::uint32_t headerSectors, std::uint32_t sectorSize = 512) const {
    ImageSpec spec = SpecWith(headerSectors, sectorSize);
    kqtest::EncipherImage(&spec, GetParam(), "the password");
    return spec;
  }
  // What a reader with the key gets: sector 0 as stored, the later ones plain.
  static Bytes PlainHeader(const ImageSpec& spec, const Bytes& file) {
    Bytes plain = Part(file, 0, spec.header.sectorSize);
    kqtest::Append(&plain, spec.header.laterSectors);
    return plain;
  }
};

TEST_P(EncipheredHeaderTest, RightPasswordGivesPlainSectors) {
  for (const std::uint32_t sectorSize : {256u, 512u, 4096u}) {
    SCOPED_TRACE(sectorSize);
    const ImageSpec spec = Enciphered(4, sectorSize);
    const Bytes file = kqtest::BuildImage(spec);
    Write(file);
    const Bytes plain = PlainHeader(spec, file);
    ASSERT_NE(Part(file, 0, plain.size()), plain);
    for (const std::uint64_t start : {0u, 2u}) {
      for (std::uint64_t count = 0; count <= 4 - start; ++count) {
        for (const bool tolerate : {false, true}) {
          const Outcome outcome = Read("the password", start, count, tolerate);
          ASSERT_EQ(outcome.status.status, 0);
          const std::uint64_t sectors = count == 0 ? 4 - start : count;
          EXPECT_EQ(outcome.bytes, Part(plain, start * sectorSize, sectors * sectorSize));
        }
      }
    }
  }
}

TEST_P(EncipheredHeaderTest, FirstSectorAloneNeedsNoPassword) {
  const Bytes file = kqtest::BuildImage(Enciphered(3));
  Write(file);
  const Outcome outcome = Read(nullptr, 0, 1, false);
  ASSERT_EQ(outcome.status.status, 0);
  EXPECT_EQ(outcome.bytes, Part(file, 0, 512));
}

TEST_P(EncipheredHeaderTest, SingleHeaderSectorNeedsNoPassword) {
  const Bytes file = kqtest::BuildImage(Enciphered(1));
  Write(file);
  for (const char* password : {static_cast<const char*>(nullptr), "", "wrong"}) {
    const Outcome outcome = Read(password, 0, 0, false);
    ASSERT_EQ(outcome.status.status, 0);
    EXPECT_EQ(outcome.bytes, Part(file, 0, 512));
  }
}

TEST_P(EncipheredHeaderTest, NoPasswordWithholdsTheSectorsUnlessTolerated) {
  const Bytes file = kqtest::BuildImage(Enciphered(4));
  Write(file);
  for (const char* password : {static_cast<const char*>(nullptr), ""}) {
    ExpectFailure(Read(password, 0, 0, false), -86, "kqimageapi");
    ExpectFailure(Read(password, 2, 0, false), -86, "kqimageapi");

    const Outcome all = Read(password, 0, 0, true);
    EXPECT_EQ(all.status.status, -86);
    ASSERT_TRUE(all.hasBuffer);
    EXPECT_EQ(all.bytes, Part(file, 0, 4ul * 512));

    const Outcome extra = Read(password, 2, 1, true);
    EXPECT_EQ(extra.status.status, -86);
    ASSERT_TRUE(extra.hasBuffer);
    EXPECT_EQ(extra.bytes, Part(file, 1024, 512));
  }
}

TEST_P(EncipheredHeaderTest, WrongPasswordIsToldByCheckedSchemesOnly) {
  const ImageSpec spec = Enciphered(3);
  const Bytes file = kqtest::BuildImage(spec);
  Write(file);
  const Outcome outcome = Read("The password", 0, 0, false);
  if (GetParam() == 1) {
    ASSERT_EQ(outcome.status.status, 0);
    EXPECT_EQ(Part(outcome.bytes, 0, 512), Part(file, 0, 512));
    EXPECT_NE(Part(outcome.bytes, 512, 1024), spec.header.laterSectors);
    return;
  }
  ExpectFailure(outcome, -86, "crypto");
  const Outcome tolerated = Read("The password", 0, 0, true);
  EXPECT_EQ(tolerated.status.status, -86);
  EXPECT_EQ(tolerated.bytes, Part(file, 0, 3ul * 512));
}

TEST_P(EncipheredHeaderTest, PasswordThatIsNoUtf8IsOutOfMemory) {
  Write(Enciphered(2));
  ExpectFailure(Read("\xFF", 0, 0, false), -8, "crypto");
}

TEST_P(EncipheredHeaderTest, KeyBlobOfAnotherLengthIsRefused) {
  for (const unsigned length : {0u, 1u, 15u, 17u, 47u, 49u, 63u, 65u, 300u}) {
    ImageSpec spec = Enciphered(2);
    spec.keyBlobLengthField = static_cast<std::uint16_t>(length);
    Write(spec);
    ExpectFailure(Read("the password", 0, 0, false), -87, "crypto");
    const Outcome tolerated = Read("the password", 0, 0, true);
    EXPECT_EQ(tolerated.status.status, -87);
    EXPECT_TRUE(tolerated.hasBuffer);
  }
}

TEST_P(EncipheredHeaderTest, KeyBlobBeyondTheFileIsGeneralFailure) {
  ImageSpec spec = Enciphered(2);
  spec.keyBlobLengthField = 0xFFFF;
  Write(spec);
  // Withheld even under tolerance: it is the reading that fails.
  ExpectFailure(Read("the password", 0, 0, true), -31, "kqos");
  ExpectFailure(Read(nullptr, 0, 0, true), -31, "kqos");
  EXPECT_EQ(Read(nullptr, 0, 1, true).status.status, 0);
}

TEST_P(EncipheredHeaderTest, SectorsThatAreNoWholeBlocksFitRc4Only) {
  ImageSpec spec = SpecWith(3, 300);
  spec.header.encryptionType = GetParam();
  const kqtest::ImageKey key = kqtest::MakeImageKey(GetParam(), "the password");
  spec.header.keyBlob = key.blob;
  if (GetParam() == 3) spec.encipher = kqtest::EncipherWith(key);
  const Bytes file = kqtest::BuildImage(spec);
  Write(file);
  const Outcome outcome = Read("the password", 0, 0, false);
  if (GetParam() == 3) {
    ASSERT_EQ(outcome.status.status, 0);
    EXPECT_EQ(outcome.bytes, PlainHeader(spec, file));
  } else {
    EXPECT_EQ(outcome.status.status, -87);
    EXPECT_FALSE(outcome.hasBuffer);
    EXPECT_EQ(Read("the password", 0, 0, true).bytes, Part(file, 0, 900));
  }
}

TEST_P(EncipheredHeaderTest, LongPasswordsBeyondTheBasicPlaneOpen) {
  const std::string password = "Gr\u00fc\u00dfe \u20ac \U0001F600 " + std::string(100, 'x');
  ImageSpec spec = SpecWith(2);
  kqtest::EncipherImage(&spec, GetParam(), password);
  const Bytes file = kqtest::BuildImage(spec);
  Write(file);
  const Outcome outcome = Read(password.c_str(), 0, 0, false);
  ASSERT_EQ(outcome.status.status, 0);
  EXPECT_EQ(outcome.bytes, PlainHeader(spec, file));
}

TEST_P(EncipheredHeaderTest, RunThatTheFileLacksIsGeneralFailureWhateverThePassword) {
  ImageSpec spec = Enciphered(2);
  const Bytes file = kqtest::BuildImage(spec);
  Write(Part(file, 0, 700));
  for (const char* password : {static_cast<const char*>(nullptr), "the password", "another"}) {
    ExpectFailure(Read(password, 0, 0, false), -31, "kqos");
  }
  // As stored, with the failure of the password that is missing.
  const Outcome tolerated = Read(nullptr, 0, 0, true);
  EXPECT_EQ(tolerated.status.status, -86);
  Bytes expected = Part(file, 0, 700);
  expected.resize(1024);
  EXPECT_EQ(tolerated.bytes, expected);
}

TEST_P(EncipheredHeaderTest, ClaimBeyondTheFileIsToleratedWithoutAPassword) {
  ImageSpec spec = Enciphered(2);
  spec.headerSectorsField = 0x300000;
  Write(spec);
  ExpectFailure(Read("the password", 0, 0, false), -31, "kqos");
  HeapBuffer sectors;
  EXPECT_EQ(ReadHeaderSectorsFromPath(path_.c_str(), nullptr, 0, 0, true, &sectors, nullptr).status,
            -86);
  EXPECT_TRUE(sectors);
}

INSTANTIATE_TEST_SUITE_P(AllTypes, EncipheredHeaderTest, testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace kq
