// kqimage verify: every kind of damage, in images composed byte by byte and in the client's own.

#include <array>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/client/client_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

using Json = nlohmann::json;
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kVolume = 64 * kSector;

class VerifyTest : public ClientTest {
 protected:
  // Runs the command with --json; its exit status must be as told.
  Json Verify(const std::vector<std::string>& arguments, int exitStatus) const {
    const ClientResult result = RunClient(Joined({"verify", "--json"}, arguments));
    EXPECT_EQ(result.exitStatus, exitStatus) << result.err << result.out;
    EXPECT_EQ(result.err.empty(), exitStatus != 1) << result.err;
    return exitStatus == 1 ? Json() : Json::parse(result.out);
  }

  static Ranges RangesOf(const Json& list) {
    Ranges ranges;
    for (const Json& range : list) ranges.emplace_back(range["offset"], range["length"]);
    return ranges;
  }

  // What the image has lost, as the last chain of the report tells.
  static Ranges Lost(const Json& report, std::size_t image) {
    return RangesOf(report["chains"].back()["images"].at(image)["lost"]);
  }

  static std::set<std::string> Kinds(const Json& file) {
    std::set<std::string> kinds;
    for (const Json& damage : file["damages"]) kinds.insert(damage["kind"].get<std::string>());
    return kinds;
  }
};

Bytes Text(std::size_t sectors) { return Bytes(sectors * kSector, 'a'); }

ChunkSpec TextChunk(std::vector<VolumeRun> runs) {
  std::size_t sectors = 0;
  for (const VolumeRun& run : runs) sectors += run.sectors;
  return StreamChunk(std::move(runs), LzoFrames(Text(sectors), 0x8000));
}

// A raw chunk, a compressed one, one of zeros and a compressed one of two stretches.
ImageSpec SomeImage() {
  ImageSpec spec;
  spec.header.sourceSize = kVolume;
  spec.header.compressionType = 5;
  spec.header.record.emplace();
  spec.header.laterSectors = PatternBytes(3, kSector);
  spec.chunks = {RawChunk({{0, 8}}, PatternBytes(1, 8 * kSector)), TextChunk({{8 * kSector, 16}}),
                 ZeroChunk({{24 * kSector, 8}}), TextChunk({{32 * kSector, 8}, {48 * kSector, 8}})};
  return spec;
}

struct Defect {
  const char* name;
  std::function<void(Bytes*, const ImageLayout&)> patch;
  const char* kind;
  bool opens;
  Ranges lost;
};

class DefectTest : public VerifyTest, public testing::WithParamInterface<Defect> {};

TEST_P(DefectTest, IsNamedWithWhatIsLost) {
  ImageLayout layout;
  Bytes image = BuildImage(SomeImage(), &layout);
  Put("a.twf", image);
  EXPECT_TRUE(Verify({Path("a.twf")}, 0)["isSound"]);
  GetParam().patch(&image, layout);
  Put("a.twf", image);
  const Json report = Verify({Path("a.twf")}, 3);
  EXPECT_FALSE(report["isSound"]);
  const Json file = report["files"][0];
  EXPECT_TRUE(Kinds(file).contains(GetParam().kind)) << file;
  EXPECT_EQ(file["opens"], GetParam().opens);
  EXPECT_EQ(Lost(report, 0), GetParam().lost);
}

void Flip(Bytes* image, std::uint64_t offset) { (*image)[offset] ^= 1; }

const Ranges kAll = {{0, kVolume}};
const Ranges kSecondChunk = {{8 * kSector, 16 * kSector}};

INSTANTIATE_TEST_SUITE_P(
    Each, DefectTest,
    testing::Values(
        Defect{"Magic", [](Bytes* i, const ImageLayout&) { Flip(i, 0); }, "header", false, {}},
        Defect{"Unfinished",
               [](Bytes* i, const ImageLayout&) {
                 SetBytes(i, 0, std::array<std::uint8_t, 4>{'O', 'P', 'E', 'N'});
               },
               "header",
               false,
               {}},
        Defect{"SectorSize",
               [](Bytes* i, const ImageLayout&) { Set32(i, 4, 513); },
               "header",
               false,
               {}},
        Defect{"Encryption",
               [](Bytes* i, const ImageLayout&) { Set32(i, 108, 5); },
               "header",
               false,
               {}},
        Defect{"HeaderChecksum",
               [](Bytes* i, const ImageLayout&) { Flip(i, 25); },
               "headerChecksum",
               true,
               {}},
        Defect{"ExtraChecksum",
               [](Bytes* i, const ImageLayout&) { Flip(i, kSector + 9); },
               "extraChecksum",
               true,
               {}},
        Defect{"IndexPointer",
               [](Bytes* i, const ImageLayout& l) { Flip(i, l.pointerOffset + 99); },
               "indexPointer", false, kAll},
        Defect{"IndexPlace",
               [](Bytes* i, const ImageLayout& l) { Set64(i, l.pointerOffset, l.pointerOffset); },
               "indexPointer", false, kAll},
        Defect{"IndexHead", [](Bytes* i, const ImageLayout& l) { Flip(i, l.indexOffset); }, "index",
               false, kAll},
        // The second entry, behind a full form of 12 bytes: what it and those behind it led to is
        // there, and no reader finds it.
        Defect{"IndexEntry",
               [](Bytes* i, const ImageLayout& l) { (*i)[l.indexOffset + 16 + 12] = 0x7F; },
               "index",
               true,
               {{8 * kSector, 32 * kSector}, {48 * kSector, 8 * kSector}}},
        Defect{"HeadCounts",
               [](Bytes* i, const ImageLayout& l) { Set32(i, l.chunkOffsets[1], 18); }, "chunkHead",
               true, kSecondChunk},
        Defect{"HeadOfZeros",
               [](Bytes* i, const ImageLayout& l) { Set32(i, l.chunkOffsets[2] + 4, 1); },
               "chunkHead",
               true,
               {{24 * kSector, 8 * kSector}}},
        // The list is a full form and a short one; the chunk's place may be anything up to the end.
        Defect{"RunList",
               [](Bytes* i, const ImageLayout& l) { (*i)[l.chunkOffsets[3] + 8 + 12] = 0x7F; },
               "runList",
               true,
               {{32 * kSector, 32 * kSector}}},
        Defect{"RunLength",
               [](Bytes* i, const ImageLayout& l) { Set32(i, l.chunkOffsets[1] + 16, 15); },
               "runList", true, kSecondChunk},
        Defect{"Stream",
               [](Bytes* i, const ImageLayout& l) { Set32(i, l.chunkOffsets[1] + kSector + 4, 0); },
               "stream", true, kSecondChunk},
        Defect{"StreamOfTheLastChunk",
               [](Bytes* i, const ImageLayout& l) { Set32(i, l.chunkOffsets[3] + kSector + 4, 0); },
               "stream",
               true,
               {{32 * kSector, 8 * kSector}, {48 * kSector, 8 * kSector}}},
        Defect{"StreamLength",
               [](Bytes* i, const ImageLayout& l) { Set32(i, l.chunkOffsets[1] + kSector, 509); },
               "streamLength", true, kSecondChunk},
        Defect{"CutShort",
               [](Bytes* i, const ImageLayout& l) { i->resize(l.chunkOffsets[3] + 100); }, "end",
               false, kAll},
        Defect{"CutInTheHeader",
               [](Bytes* i, const ImageLayout&) { i->resize(100); },
               "end",
               false,
               {}}),
    [](const auto& test) { return test.param.name; });

TEST_F(VerifyTest, AStreamThatYieldsLessThanItsChunkIsDamage) {
  ImageSpec spec = SomeImage();
  spec.chunks[1].data = LzoFrames(Text(15), 0x8000);
  Put("a.twf", BuildImage(spec));
  const Json report = Verify({Path("a.twf")}, 3);
  EXPECT_EQ(Kinds(report["files"][0]), std::set<std::string>{"stream"});
  EXPECT_EQ(Lost(report, 0), kSecondChunk);
}

TEST_F(VerifyTest, AMissingParentAndAMissingPartAreDamage) {
  ImageSpec first = SomeImage();
  first.chunks.resize(2);
  first.index.lastPart = 0;
  ImageSpec second = SomeImage();
  second.header = NextPartOf(first.header);
  second.chunks.erase(second.chunks.begin(), second.chunks.begin() + 2);
  ImageSpec child = SomeImage();
  child.header = IncrementOf(first.header, MakeId(9));
  Put("a.twf", BuildImage(first));
  Put("a.TW1", BuildImage(second));
  Put("b.twi", BuildImage(child));
  EXPECT_EQ(Verify({Path("b.twi")}, 0)["files"].size(), 3u);

  std::filesystem::rename(Path("a.TW1"), Path("away"));
  const Json part = Verify({Path("b.twi")}, 3);
  EXPECT_EQ(part["chains"][0]["missing"][0]["kind"], "missingPart");
  EXPECT_EQ(Lost(part, 1), kAll);
  std::filesystem::remove(Path("a.twf"));
  const Json parent = Verify({Path("b.twi")}, 3);
  EXPECT_EQ(parent["chains"][0]["missing"][0]["kind"], "missingParent");
  EXPECT_EQ(Lost(parent, 0), kAll);
}

TEST_F(VerifyTest, WhatBuildsOnADamagedImageIsNamedAndWhatStandsBeforeItIsWhole) {
  ImageLayout layout;
  const ImageSpec base = SomeImage();
  ImageSpec middle = SomeImage();
  middle.header = IncrementOf(base.header, MakeId(8));
  ImageSpec newest = SomeImage();
  newest.header = IncrementOf(middle.header, MakeId(9));
  newest.chunks = {TextChunk({{12 * kSector, 4}})};
  Put("a.twf", BuildImage(base));
  Bytes bytes = BuildImage(middle, &layout);
  Set32(&bytes, layout.chunkOffsets[1] + kSector + 4, 0);
  Put("b.twi", bytes);
  Put("c.twi", BuildImage(newest));
  const Json report = Verify({Path("b.twi")}, 3);
  EXPECT_EQ(Lost(report, 0), Ranges{});
  EXPECT_EQ(Lost(report, 1), kSecondChunk);
  ASSERT_EQ(report["dependents"].size(), 1u);
  EXPECT_TRUE(report["dependents"][0]["file"].get<std::string>().ends_with("/c.twi"));
  // What the newer image holds anew is not lost there.
  EXPECT_EQ(Lost(Verify({Path("c.twi")}, 3), 2),
            (Ranges{{8 * kSector, 4 * kSector}, {16 * kSector, 8 * kSector}}));
  const ClientResult text = RunClient({"verify", Path("b.twi")});
  EXPECT_NE(text.out.find("a.twf still restores whole"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("bytes 4096 to 12287"), std::string::npos) << text.out;
}

// Images of random stretches, some of whose chunks are damaged, against a volume whose every sector
// is looked at by itself.
TEST_F(VerifyTest, LostRangesAreThoseOfAPlainModel) {
  std::mt19937 random(TestSeed());
  constexpr std::size_t kSectors = 64;
  for (int round = 0; round < 8; ++round) {
    ImageSpec spec;
    std::array<bool, kSectors> isLost = {};
    std::vector<Ranges> expected;
    std::string newest;
    bool isDamaged = false;
    for (int generation = 0; generation < 3; ++generation) {
      if (generation > 0) {
        spec.header = IncrementOf(spec.header, MakeId(static_cast<std::uint32_t>(generation) + 5));
      }
      spec.header.sourceSize = kVolume;
      spec.header.compressionType = 5;
      spec.chunks.clear();
      for (std::uint64_t at = random() % 8; at + 12 < kSectors; at += random() % 8) {
        std::vector<VolumeRun> runs;
        const std::size_t runCount = 1 + random() % 2;
        for (std::size_t i = 0; i < runCount; ++i) {
          const auto length = static_cast<std::uint32_t>(3 + random() % 3);
          runs.push_back({at * kSector, length});
          at += length + random() % 2;
        }
        spec.chunks.push_back(TextChunk(runs));
      }
      ImageLayout layout;
      Bytes image = BuildImage(spec, &layout);
      for (std::size_t i = 0; i < spec.chunks.size(); ++i) {
        const bool isBad = random() % 4 == 0;
        isDamaged |= isBad;
        if (isBad) Set32(&image, layout.chunkOffsets[i] + kSector + 4, 0);
        for (const VolumeRun& run : spec.chunks[i].runs) {
          for (std::size_t k = 0; k < run.sectors; ++k) isLost[run.offset / kSector + k] = isBad;
        }
      }
      newest = Put("g" + std::to_string(generation) + (generation == 0 ? ".twf" : ".twi"), image);
      expected.emplace_back();
      for (std::size_t k = 0; k < kSectors; ++k) {
        if (!isLost[k]) continue;
        if (k == 0 || !isLost[k - 1]) expected.back().emplace_back(k * kSector, 0);
        expected.back().back().second += kSector;
      }
    }
    const Json report = Verify({newest}, isDamaged ? 3 : 0);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(Lost(report, i), expected[i]) << i;
  }
}

TEST_F(VerifyTest, AFlippedByteOfRawDataShowsByTheSumAlone) {
  Put("volume", MakeNoise(100000, 1));
  Create(Path("volume"), Path("a.twf"), {"--compress", "none"});
  EXPECT_EQ(Verify({Path("a.twf")}, 0)["files"][0]["sha256"], "good");
  Bytes image = ReadFile(Path("a.twf"));
  Flip(&image, 5000);
  Put("a.twf", image);
  const Json report = Verify({Path("a.twf")}, 3);
  EXPECT_EQ(Kinds(report["files"][0]), std::set<std::string>{"sha256"});
  EXPECT_EQ(report["files"][0]["sha256"], "wrong");
  const Json loss = report["chains"][0]["images"][0];
  EXPECT_EQ(RangesOf(loss["inDoubt"]), (Ranges{{0, 100000}}));
  EXPECT_EQ(loss["lostBytes"], 0);
  std::filesystem::remove(Path("a.twf.sha256"));
  EXPECT_EQ(Verify({Path("a.twf")}, 0)["files"][0]["sha256"], "absent");
}

class EveryCodecTest : public VerifyTest, public testing::WithParamInterface<const char*> {};

TEST_P(EveryCodecTest, StreamsAreDecodedAlsoWhereTheyCantBeRestored) {
  Put("volume", MakeVolume(3 << 20, 4));
  Create(Path("volume"), Path("a.twf"), {"--compress", GetParam(), "--no-sha256"});
  const Json sound = Verify({Path("a.twf")}, 0);
  EXPECT_EQ(sound["files"][0]["chunks"], sound["files"][0]["checkedChunks"]);
  // The length of the first chunk's stream, one byte less: neither codec has an end mark alone.
  Bytes image = ReadFile(Path("a.twf"));
  const std::size_t chunk = 512ul * Get32(image, 8);
  ASSERT_LT(Get32(image, chunk), Get32(image, chunk + 4)) << "not compressed";
  Set32(&image, chunk + 512, Get32(image, chunk + 512) / 2);
  Put("a.twf", image);
  EXPECT_TRUE(Kinds(Verify({Path("a.twf")}, 3)["files"][0]).contains("stream"));
}

INSTANTIATE_TEST_SUITE_P(Each, EveryCodecTest, testing::Values("lzo", "lzo-huffman", "lzw", "lzss"),
                         [](const auto& test) {
                           return std::string(test.param) == "lzo-huffman" ? "lzo_huffman"
                                                                           : test.param;
                         });

class VerifyEncipheredTest : public VerifyTest, public testing::WithParamInterface<Encryption> {};

TEST_P(VerifyEncipheredTest, IsDecodedWithThePasswordAndNotToldWithAWrongOne) {
  PutText("key", "secret");
  PutText("wrong", "guess");
  Put("volume", MakeVolume(3 << 20, 5));
  Create(Path("volume"), Path("a.twf"),
         {GetParam().option, GetParam().name, "--password-file", Path("key")});
  const std::vector<std::string> key = {Path("a.twf"), "--password-file", Path("key")};
  EXPECT_TRUE(Verify(key, 0)["isSound"]);
  Verify({Path("a.twf"), "--password-file", Path("wrong")}, 1);
  Verify({Path("a.twf")}, 1);
  Bytes image = ReadFile(Path("a.twf"));
  const std::size_t chunk = 512ul * Get32(image, 8);
  ASSERT_LT(Get32(image, chunk), Get32(image, chunk + 4)) << "not compressed";
  for (std::size_t i = 0; i < 64; ++i) image[chunk + 700 + i] ^= 0xFF;
  Put("a.twf", image);
  EXPECT_TRUE(Kinds(Verify(key, 3)["files"][0]).contains("sha256"));
}

INSTANTIATE_TEST_SUITE_P(All, VerifyEncipheredTest, testing::ValuesIn(kEncryptions),
                         NameOfEncryption);

TEST_F(VerifyTest, ASampleLooksAtItsShareOfTheChunks) {
  Put("volume", MakeNoise(20 << 20, 6));
  Create(Path("volume"), Path("a.twf"));
  const std::size_t chunks = Verify({Path("a.twf")}, 0)["files"][0]["chunks"];
  ASSERT_GE(chunks, 20u);
  const Json report = Verify({"--sample", "10%", Path("a.twf")}, 0);
  EXPECT_EQ(report["files"][0]["checkedChunks"], (chunks + 9) / 10);
  EXPECT_EQ(report["files"][0]["sha256"], nullptr);
  EXPECT_EQ(report["sample"], 0.1);
  EXPECT_EQ(Verify({"--sample", "0.001", Path("a.twf")}, 0)["files"][0]["checkedChunks"], 1);
  for (const char* wrong : {"0", "101%", "x", "-5%", "5%%", ""}) {
    EXPECT_EQ(RunClient({"verify", "--sample", wrong, Path("a.twf")}).exitStatus, 2) << wrong;
  }
}

TEST_F(VerifyTest, WhatIsNoImageIsDamagedAndWhatIsNotThereCantBeTold) {
  PutText("a.twf", "no image");
  EXPECT_EQ(RunClient({"verify", Path("a.twf")}).exitStatus, 3);
  const ClientResult none = RunClient({"verify", Path("b.twf")});
  EXPECT_EQ(none.exitStatus, 1);
  EXPECT_NE(none.err.find("b.twf"), std::string::npos);
}

}  // namespace
}  // namespace kqtest
