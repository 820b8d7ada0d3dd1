// Images that some other tool has made, composed byte by byte.

#include <filesystem>
#include <nlohmann/json.hpp>

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
  EXPECT_NE(result.err.find("part number 2 of the image " + Path("split.twf") + " is missing"),
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

// An identifier of bytes in order, as a GUID and as hexadecimal digits.
Id CountedId(std::uint8_t first) {
  Id id{};
  for (std::size_t i = 0; i < id.size(); ++i) id[i] = static_cast<std::uint8_t>(first + i);
  return id;
}

TEST_F(OtherProducersTest, InfoAsJsonTellsEachFieldOfTheHeader) {
  ImageSpec spec = RawImage(MakeNoise(4096, 1), 0, 4096);
  HeaderFields& header = spec.header;
  header.sectorSize = 512;
  header.flags = 0xAB000005;
  header.creationTime = 133500000012345678;  // 2024-01-17 21:20:01.2345678
  header.timeZoneBias = 300;
  header.daylightBias = -60;
  header.imageId = CountedId(0x10);
  header.parentImageId = CountedId(0x20);
  header.imageSetId = CountedId(0x30);
  header.generation = 3;
  header.nextGeneration = 9;
  header.partMarker = 5;
  header.partIndex = 2;
  header.laterSectors = PatternBytes(1, 1024);
  RecordFields& record = header.record.emplace();
  record.recordFlags = 0x138;
  record.fileUuid = CountedId(0x40);
  record.snapshotSetId = CountedId(0x50);
  record.secondUuid = CountedId(0x60);
  record.carriedId = CountedId(0x70);
  record.carriedValue1 = 0xFFFFFFFFFFFFFFFF;
  record.carriedValue2 = 2;
  record.carriedValue3 = 3;
  record.carriedBytes1 = CountedId(0x80);
  record.carriedValue4 = 4;
  record.carriedValue5 = 5;
  record.carriedValue6 = 6;
  record.carriedValue7 = 7;
  record.carriedBytes2 = CountedId(0x90);
  record.carriedValue8 = 8;
  record.carriedValue9 = 9;
  PutImage("b.twi", spec);
  nlohmann::json expected = {{"kind", "incremental"},
                             {"created", "2024-01-17T21:20:01.2345678-04:00"},
                             {"creationTime", 133500000012345678},
                             {"timeZoneBias", 300},
                             {"daylightBias", -60},
                             {"partIndex", 2},
                             {"partMarker", true},
                             {"imageId", "13121110-1514-1716-1819-1a1b1c1d1e1f"},
                             {"parentImageId", "23222120-2524-2726-2829-2a2b2c2d2e2f"},
                             {"imageSetId", "33323130-3534-3736-3839-3a3b3c3d3e3f"},
                             {"generation", 3},
                             {"nextGeneration", 9},
                             {"headerSectors", 3},
                             {"flags", 0xAB000007},
                             {"flagBit0", true},
                             {"flagBit2", true},
                             {"flagByte", 0xAB},
                             {"password", nullptr},
                             {"record",
                              {{"flags", 0x138},
                               {"headerChecksumGood", true},
                               {"extraChecksumGood", true},
                               {"fileId", "43424140-4544-4746-4849-4a4b4c4d4e4f"},
                               {"secondId", "63626160-6564-6766-6869-6a6b6c6d6e6f"},
                               {"snapshotSetId", "53525150-5554-5756-5859-5a5b5c5d5e5f"},
                               {"carriedId", "73727170-7574-7776-7879-7a7b7c7d7e7f"},
                               {"carriedValue1", 0xFFFFFFFFFFFFFFFF},
                               {"carriedValue2", 2},
                               {"carriedValue3", 3},
                               {"carriedValue4", 4},
                               {"carriedValue5", 5},
                               {"carriedValue6", 6},
                               {"carriedValue7", 7},
                               {"carriedValue8", 8},
                               {"carriedValue9", 9},
                               {"carriedBytes1", "808182838485868788898a8b8c8d8e8f"},
                               {"carriedBytes2", "909192939495969798999a9b9c9d9e9f"}}}};
  const ClientResult result = RunClient({"info", "--json", Path("b.twi")});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const nlohmann::json told = nlohmann::json::parse(result.out);
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(told[key], value) << key;

  // A byte of a later sector more, and only the checksum over them is wrong; without a record
  // there is nothing to tell.
  Volume bytes = ReadFile(Path("b.twi"));
  bytes[700] ^= 1;
  WriteFile(Path("b.twi"), bytes);
  const nlohmann::json damaged =
      nlohmann::json::parse(RunClient({"info", "--json", Path("b.twi")}).out);
  EXPECT_EQ(damaged["record"]["headerChecksumGood"], true);
  EXPECT_EQ(damaged["record"]["extraChecksumGood"], false);
  header.record.reset();
  PutImage("b.twi", spec);
  EXPECT_EQ(nlohmann::json::parse(RunClient({"info", "--json", Path("b.twi")}).out)["record"],
            nullptr);
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
  for (const auto& [type, name] : {std::pair{1u, "unknown type 1"}, {3u, "lzw"}, {4u, "lzss"}}) {
    spec.header.compressionType = type;
    PutImage("a.twf", spec);
    const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "kqimage: " + Path("a.twf") + " is compressed as " + name +
                              ", which can't be read back: nothing can be restored from it or "
                              "compared with it\n");
  }
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
