// Images that some other tool has made, composed byte by byte.

#include <filesystem>

#include "tests/client/client_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;

class OtherProducersTest : public ClientTest {
 protected:
  void PutImage(const std::string& name, const ImageSpec& spec) const {
    WriteFile(Path(name), BuildImage(spec));
  }

  // An image of one raw chunk that holds bytes from the offset.
  static ImageSpec RawImage(const Volume& volume, std::uint64_t offset, std::size_t bytes) {
    ImageSpec spec;
    spec.header.sourceSize = volume.size();
    const auto begin = volume.begin() + static_cast<std::ptrdiff_t>(offset);
    spec.chunks = {RawChunk({{offset, static_cast<std::uint32_t>(bytes / 512)}},
                            Bytes(begin, begin + static_cast<std::ptrdiff_t>(bytes)))};
    return spec;
  }
};

TEST_F(OtherProducersTest, SplitImagesAreFoundAndContinued) {
  Volume volume = MakeNoise(64 * 512, 1);
  ImageSpec first = RawImage(volume, 0, 32 * 512);
  first.index.lastPart = 0;
  ImageSpec second = RawImage(volume, 32 * 512, 32 * 512);
  second.header = NextPartOf(first.header);
  PutImage("split.twf", first);
  PutImage("split.TW1", second);
  EXPECT_EQ(Restore({Path("split.twf")}), volume);
  EXPECT_EQ(Restore({Path("split.TW1"), Path("split.twf")}), volume);

  volume[40 * 512] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("split.twf"), Path("a.twi"));
  EXPECT_EQ(Restore({Path("a.twi")}), volume);

  std::filesystem::remove(Path("split.TW1"));
  const ClientResult result = RunClient({"restore", Path("a.twi"), "--to", Path("new")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("part 2 of the image " + Path("split.twf") + " is missing"),
            std::string::npos)
      << result.err;
}

TEST_F(OtherProducersTest, AnIncrementCarriesOnWhatTheHeaderSaysOfTheDisk) {
  Volume volume = MakeNoise(64 * 512, 1);
  ImageSpec parent = RawImage(volume, 0, volume.size());
  parent.header.laterSectors = PatternBytes(5, 3 * 512);
  parent.header.comment = u"the parent's own";
  parent.header.flags = 0xAB000005;
  parent.header.record.emplace();
  parent.header.record->carriedValue1 = 0x1122334455667788;
  parent.header.record->carriedValue9 = 99;
  PutImage("a.twf", parent);
  volume[0] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"), {"--comment", "new"});
  const ParsedImage child = ParseImage(ReadFile(Path("b.twi")));
  EXPECT_EQ(child.error, "");
  EXPECT_EQ(child.header.laterSectors, parent.header.laterSectors);
  EXPECT_EQ(child.header.flags & 0xFF000005, 0xAB000005);
  EXPECT_EQ(child.header.comment, u"new");
  ASSERT_TRUE(child.header.record.has_value());
  EXPECT_EQ(child.header.record->carriedValue1, 0x1122334455667788u);
  EXPECT_EQ(child.header.record->carriedValue9, 99u);
  EXPECT_EQ(child.header.sourceSize, volume.size());
  EXPECT_EQ(Restore({Path("b.twi")}), volume);
}

TEST_F(OtherProducersTest, AnIncrementHasChecksumsAlsoWhereItsParentHasNone) {
  Volume volume = MakeNoise(64 * 512, 1);
  ImageSpec parent = RawImage(volume, 0, volume.size());
  parent.header.comment = u"the parent's own";
  parent.header.laterSectors = PatternBytes(5, 512);
  PutImage("a.twf", parent);
  volume[0] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  const ParsedImage child = ParseImage(ReadFile(Path("b.twi")));
  EXPECT_EQ(child.error, "");
  EXPECT_TRUE(child.header.record.has_value());
  EXPECT_EQ(child.header.comment, u"");
  EXPECT_EQ(child.header.laterSectors, parent.header.laterSectors);
}

TEST_F(OtherProducersTest, SectorsThatCantBeReadBackAreRefused) {
  ImageSpec spec;
  spec.header.sectorSize = 256;
  spec.header.sourceSize = 4096;
  spec.chunks = {RawChunk({{0, 16}}, PatternBytes(1, 4096))};
  PutImage("a.twf", spec);
  const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("sectors of 256 bytes"), std::string::npos) << result.err;
  EXPECT_EQ(Names(), NameSet{"a.twf"});
}

TEST_F(OtherProducersTest, ACompressionThatCantBeReadBackIsNamed) {
  ImageSpec spec = RawImage(MakeNoise(4096, 1), 0, 4096);
  spec.header.compressionType = 3;
  PutImage("a.twf", spec);
  const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("can be written but not read back (status -1630)"), std::string::npos)
      << result.err;
}

TEST_F(OtherProducersTest, AnImageThatHidesItsVolumesSizeIsRefused) {
  ImageSpec spec = RawImage(MakeNoise(4096, 1), 0, 4096);
  spec.header.sourceSize = 0;
  PutImage("a.twf", spec);
  const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("does not say how large its volume is"), std::string::npos);
}

TEST_F(OtherProducersTest, AVolumeThatNoFileCanHoldIsRefused) {
  for (const std::uint64_t size : {std::uint64_t{1} << 62, ~std::uint64_t{0}}) {
    ImageSpec spec = RawImage(MakeNoise(4096, 1), 0, 4096);
    spec.header.sourceSize = size;
    PutImage("a.twf", spec);
    const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("cannot make room for"), std::string::npos) << result.err;
    EXPECT_EQ(Names(), NameSet{"a.twf"});
  }
}

TEST_F(OtherProducersTest, AHeaderTooLargeToCarryOnIsAFailure) {
  const Volume volume = MakeNoise(4096, 1);
  ImageSpec spec = RawImage(volume, 0, 4096);
  spec.header.laterSectors = Bytes(600 << 10);
  PutImage("a.twf", spec);
  EXPECT_EQ(Restore({Path("a.twf")}), volume);
  Put("volume", MakeNoise(4096, 2));
  const ClientResult result = RunClient({"increment", Path("volume"), Path("a.twf")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("is too large to be carried on"), std::string::npos) << result.err;
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

}  // namespace
}  // namespace kqtest
