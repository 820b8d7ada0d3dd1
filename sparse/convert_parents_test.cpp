// Parents of every kind: sector and header sizes, compression and encryption types, split images.
#include <tuple>

#include "sparse/overlay_support_test.h"

namespace kqtest {
namespace {

constexpr char kPassword[] = "p\xC3\xA4ssword";

// Sector size, further header sectors, compression type, encryption type.
using Kind = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>;

class ConvertKind : public SparseTest, public ::testing::WithParamInterface<Kind> {
 protected:
  kq::ImageFolder images_;
};

TEST_P(ConvertKind, NewImageIsOfTheParentsKindAndExtendsItsChain) {
  const auto [sectorSize, later, compression, encryption] = GetParam();
  ImageSpec base;
  base.header.sectorSize = sectorSize;
  base.header.compressionType = compression;
  base.header.laterSectors = PatternBytes(9, std::size_t{later} * sectorSize);
  base.header.record = RecordFields();
  const Bytes volume = PatternBytes(1, std::size_t{16} * sectorSize);
  base.chunks = {RawChunk({{0, 16}}, volume)};
  if (encryption != 0) EncipherImage(&base, encryption, kPassword);
  const Bytes parentsBlob = base.header.keyBlob;

  // What compresses, what doesn't, and zeros.
  SparseModel model;
  model.Write(0, Text(2, 3 * sectorSize));
  model.Write(1 << 16, Noise(3, 1 << 15));
  model.Write(1 << 17, Bytes(1 << 15));
  model.Write(3 << 16, Text(4, (1 << 14) + sectorSize));

  WriteFile(path_, model.File());
  const std::string parent = images_.Write("base.twf", base);
  const std::string child = images_.Path("child.twi");
  ASSERT_EQ(
      KQConvertSparseToIncremental(path_.c_str(), parent.c_str(),
                                   encryption != 0 ? kPassword : nullptr, child.c_str(), "comment")
          .status,
      0);
  const ParsedImage image = ParseFile(ReadFile(child), encryption != 0 ? kPassword : nullptr);
  EXPECT_EQ(image.header.sectorSize, sectorSize);
  EXPECT_EQ(image.headerSectors, later + 1);
  EXPECT_EQ(image.header.compressionType, compression);
  EXPECT_EQ(image.header.encryptionType, encryption);
  EXPECT_EQ(image.header.laterSectors, base.header.laterSectors);
  EXPECT_EQ(image.header.comment, u"comment");
  EXPECT_TRUE(image.header.record.has_value());
  EXPECT_EQ(image.header.keyBlob.size(), parentsBlob.size());
  if (encryption != 0) {
    EXPECT_NE(image.header.keyBlob, parentsBlob);
  }
  EXPECT_EQ(image.storedLaterSectors == base.header.laterSectors, encryption == 0 || later == 0);
  const std::size_t size = 1 << 18;
  EXPECT_TRUE(image.ReadVolume(0, size) == model.Read(0, size, 0));

  std::uint64_t chain = 0;
  ASSERT_EQ(KQImageFilesOpen((child + "|" + parent).c_str(), encryption != 0 ? kPassword : nullptr,
                             0, &chain)
                .status,
            0);
  Bytes expected = model.Read(0, size, 0);
  SetBytes(&expected, std::size_t{3} * sectorSize,
           Slice(volume, std::size_t{3} * sectorSize, std::size_t{13} * sectorSize));
  ExpectRead(chain, 0, expected);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ConvertKind,
                         ::testing::Combine(::testing::Values(512, 1024, 2048, 4096),
                                            ::testing::Values(0, 1, 5), ::testing::Values(0),
                                            ::testing::Values(0)));
INSTANTIATE_TEST_SUITE_P(CompressionAndEncryption, ConvertKind,
                         ::testing::Combine(::testing::Values(512, 4096), ::testing::Values(0, 2),
                                            ::testing::Values(0, 5, 6),
                                            ::testing::Values(1, 2, 3, 4)));
INSTANTIATE_TEST_SUITE_P(Compression, ConvertKind,
                         ::testing::Combine(::testing::Values(512), ::testing::Values(1),
                                            ::testing::Values(5, 6), ::testing::Values(0)));

using ConvertParent = OverlayTest;

TEST_F(ConvertParent, EncipheredOneNeedsItsPasswordInEveryCase) {
  WriteFile(path_, ModelOf({{0, PatternBytes(2, 512)}}).File());
  for (const std::uint32_t type : {1U, 2U, 3U, 4U}) {
    for (const std::size_t later : {0U, 512U}) {
      ImageSpec sealed = base_;
      sealed.header.laterSectors = PatternBytes(9, later);
      EncipherImage(&sealed, type, kPassword);
      const std::string parent = images_.Write("sealed", sealed);
      const auto convert = [&](const char* password) {
        return KQConvertSparseToIncremental(path_.c_str(), parent.c_str(), password, new_.c_str(),
                                            nullptr);
      };
      EXPECT_EQ(convert(nullptr).status, -86);
      EXPECT_FALSE(NewFileExists());
      // Type 1 has no way to tell a wrong password.
      if (type == 1) continue;
      EXPECT_EQ(convert("wrong").status, -86);
      EXPECT_FALSE(NewFileExists());
    }
  }
}

TEST_F(ConvertParent, OpenOneKeepsThePasswordOfItsFirstOpen) {
  WriteFile(path_, ModelOf({{0, PatternBytes(2, 512)}}).File());
  ImageSpec sealed = base_;
  sealed.header.laterSectors = PatternBytes(9, 1024);
  EncipherImage(&sealed, 4, kPassword);
  const std::string parent = images_.Write("sealed", sealed);
  const std::uint64_t chain = OpenChain(parent, 0, kPassword);
  for (const char* password : {"wrong", static_cast<const char*>(nullptr)}) {
    ASSERT_EQ(
        KQConvertSparseToIncremental(path_.c_str(), parent.c_str(), password, new_.c_str(), nullptr)
            .status,
        0);
    ExpectHolds(NewImage(kPassword), 0, PatternBytes(2, 512));
  }
  EXPECT_EQ(OpenFileCount(), 1u);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ConvertParent, LastPartOfASplitImageIsOne) {
  ImageSpec first = base_;
  first.index.lastPart = 0;
  ImageSpec second;
  second.header = NextPartOf(first.header);
  second.chunks = {RawChunk({{64 * 512, 8}}, PatternBytes(2, 8 * 512))};
  second.index.lastPart = 0;
  ImageSpec last;
  last.header = NextPartOf(second.header);
  last.header.partMarker = 1;
  last.chunks = {RawChunk({{72 * 512, 8}}, PatternBytes(3, 8 * 512))};
  const std::string files =
      images_.Write("a", first) + "|" + images_.Write("c", last) + "|" + images_.Write("b", second);
  Append(&volume_, PatternBytes(2, 8 * 512));
  Append(&volume_, PatternBytes(3, 8 * 512));
  const SparseModel model = ModelOf({{70 * 512, PatternBytes(4, 4 * 512)}});
  SetBytes(&volume_, 70 * 512, PatternBytes(4, 4 * 512));

  // Of the last part, and through the close of the whole chain.
  for (const bool throughChain : {false, true}) {
    if (throughChain) {
      const std::uint64_t chain = OpenChain(files, OpenModelHandle(model));
      EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 0).status, 0);
    } else {
      WriteFile(path_, model.File());
      EXPECT_EQ(KQConvertSparseToIncremental(path_.c_str(), images_.Path("c").c_str(), nullptr,
                                             new_.c_str(), nullptr)
                    .status,
                0);
    }
    const ParsedImage image = NewImage();
    EXPECT_EQ(image.header.partIndex, 0u);
    EXPECT_EQ(image.header.partMarker, 0u);
    EXPECT_EQ(image.header.parentImageId, first.header.imageId);
    EXPECT_EQ(image.lastPart, 0xFFFFFFFFu);
    const std::uint64_t grown = OpenChain(new_ + "|" + files, 0);
    ExpectRead(grown, 0, volume_);
    EXPECT_EQ(KQImageFilesClose(grown, nullptr, nullptr, 0).status, 0);
  }
}

// A file that says 256 is laid out in 512 for all readers; the new one really has 256.
TEST_F(ConvertParent, SmallestSectorSizePassesOn) {
  base_.layoutSectorSize = 512;
  base_.sectorSizeField = 256;
  WriteFile(path_, ModelOf({{256, PatternBytes(2, 768)}}).File());
  const std::string parent = images_.Write("base.twf", base_);
  ASSERT_EQ(
      KQConvertSparseToIncremental(path_.c_str(), parent.c_str(), nullptr, new_.c_str(), nullptr)
          .status,
      0);
  const ParsedImage image = NewImage();
  EXPECT_EQ(image.header.sectorSize, 256u);
  EXPECT_EQ(image.headerSectors, 1u);
  EXPECT_TRUE(image.ReadVolume(256, 768) == PatternBytes(2, 768));
}

TEST_F(ConvertParent, HeaderThatLeavesNoRoomForAChunkLeavesNoImage) {
  base_.header.laterSectors = Bytes(2046 * 512);  // the largest header that readers accept
  WriteFile(path_, ModelOf({{0, PatternBytes(2, 512)}}).File());
  const std::string parent = images_.Write("base.twf", base_);
  EXPECT_EQ(
      KQConvertSparseToIncremental(path_.c_str(), parent.c_str(), nullptr, new_.c_str(), nullptr)
          .status,
      0);
  EXPECT_FALSE(NewFileExists());
}

}  // namespace
}  // namespace kqtest
