// Increments and comparisons of volumes that are mostly holes: what nobody has data of is neither
// read nor compared, and all comes out as if it had been.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/client/client_fixture.h"
#include "tests/support/expand_stream.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_parser.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kCell = std::size_t{2} << 20;
constexpr std::size_t kBlock = 4096;

class HolesTest : public ClientTest {
 protected:
  // A file with the volume's bytes, in which every block of zeros is a hole.
  void PutSparse(const std::string& name, const Volume& volume) const {
    std::filesystem::remove(Path(name));
    std::ofstream file(Path(name), std::ios::binary);
    for (std::size_t at = 0; at < volume.size(); at += kBlock) {
      const std::size_t length = std::min(kBlock, volume.size() - at);
      const auto* block = volume.data() + at;
      if (std::all_of(block, block + length, [](std::uint8_t byte) { return byte == 0; })) continue;
      file.seekp(static_cast<std::streamoff>(at));
      file.write(reinterpret_cast<const char*>(block), static_cast<std::streamsize>(length));
    }
    file.close();
    std::filesystem::resize_file(Path(name), volume.size());
  }

  // The differences that compare tells, and with them its verdict.
  Json Compare(const std::string& a, const std::string& b) const {
    const ClientResult result = RunClient({"compare", "--json", Path(a), Path(b)});
    EXPECT_EQ(result.err, "");
    Json json = Json::parse(result.out);
    EXPECT_EQ(result.exitStatus, json["isSame"] == true ? 0 : 3);
    return json;
  }
};

Json DifferencesOf(const Volume& a, const Volume& b) {
  Json ranges = Json::array();
  const std::size_t size = std::min(a.size(), b.size());
  for (std::size_t at = 0; at < size;) {
    if (a[at] == b[at]) {
      ++at;
      continue;
    }
    const std::size_t begin = at;
    while (at < size && a[at] != b[at]) ++at;
    ranges.push_back({{"offset", begin}, {"length", at - begin}});
  }
  return ranges;
}

// What a chain reads as, whatever its newest volume's size is, and which blocks an increment of it
// has to hold.
struct ChainModel {
  Volume bytes;

  std::vector<std::size_t> Add(const Volume& volume) {
    std::vector<std::size_t> stored;
    for (std::size_t at = 0; at < volume.size(); at += kBlock) {
      const std::size_t length = std::min(kBlock, volume.size() - at);
      if (std::memcmp(bytes.data() + at, volume.data() + at, length) == 0) continue;
      stored.push_back(at);
      std::memcpy(bytes.data() + at, volume.data() + at, length);
    }
    return stored;
  }
};

Volume ChangedVolume(const Volume& before, std::size_t size, std::mt19937& random) {
  Volume volume = before;
  volume.resize(size);
  for (int change = 0; change < 5; ++change) {
    const std::size_t start = random() % size;
    const std::size_t longest = random() % 2 == 0 ? 9000 : 2 * kCell;
    const std::size_t length = std::min<std::size_t>(size - start, 1 + random() % longest);
    const auto kind = random() % 3;  // zeros, bytes that compress, and noise
    for (std::size_t i = start; i < start + length; ++i) {
      volume[i] = static_cast<std::uint8_t>(kind == 0 ? 0 : kind == 1 ? 'x' : random());
    }
  }
  return volume;
}

TEST_F(HolesTest, ResultsAreThoseOfComparingEveryByte) {
  const unsigned seed = TestSeed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  constexpr std::size_t kLargest = 8 * kCell;
  for (int round = 0; round < 3; ++round) {
    ChainModel model = {Volume(kLargest)};
    Volume volume = ChangedVolume({}, 4 * kCell + random() % (3 * kCell), random);
    volume[1] = 1;
    std::memcpy(model.bytes.data(), volume.data(), volume.size());
    PutSparse("volume", volume);
    Create(Path("volume"), Path("0.twf"),
           {"--force", "--compress", round % 2 == 0 ? "none" : "lzo"});
    std::string newest = "0.twf";
    for (int step = 1; step <= 3; ++step) {
      const Volume before = volume;
      const std::size_t size =
          random() % 2 == 0 ? volume.size() : kCell + random() % (kLargest - kCell);
      volume = ChangedVolume(volume, size, random);
      volume[random() % size] ^= 1;
      PutSparse("volume", volume);
      Put("written", volume);  // a file without holes
      EXPECT_EQ(Compare(newest, "volume")["different"], DifferencesOf(before, volume));
      EXPECT_EQ(Compare("written", newest)["different"], DifferencesOf(before, volume));
      const std::vector<std::size_t> expected = model.Add(volume);
      for (const char* source : {"volume", "written"}) {
        const std::string out = std::to_string(step) + ".twi";
        Increment(Path(source), Path(newest), Path(out), {"--force"});
        const ParsedImage image =
            ParseImage(ReadFile(Path(out)), {.decipher = {}, .expand = ExpandStream});
        ASSERT_TRUE(image.ok()) << image.error;
        std::vector<std::size_t> stored;
        for (std::size_t at = 0; at < size; at += kBlock) {
          if (image.Holds(at)) stored.push_back(at);
        }
        EXPECT_EQ(stored, expected) << source;
      }
      newest = std::to_string(step) + ".twi";
      EXPECT_TRUE(Restore({Path(newest)}) == volume);
      EXPECT_EQ(Compare(newest, "volume")["isSame"], true);
      EXPECT_EQ(Compare(newest, "0.twf")["different"], Compare("0.twf", newest)["different"]);
    }
  }
}

TEST_F(HolesTest, ALargeVolumeWithLittleInItTakesNoTime) {
  constexpr std::uint64_t kSize = std::uint64_t{1} << 40;
  const auto put = [&](const std::string& name,
                       const std::vector<std::pair<std::uint64_t, Volume>>& data) {
    std::ofstream file(Path(name), std::ios::binary);
    for (const auto& [offset, bytes] : data) {
      file.seekp(static_cast<std::streamoff>(offset));
      file.write(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::streamsize>(bytes.size()));
    }
    file.close();
    std::filesystem::resize_file(Path(name), kSize);
  };
  const Volume noise = MakeNoise(8192, 1);
  put("before", {{4096, noise}, {kSize / 3, noise}, {kSize - 512, Volume(512, 7)}});
  // One stretch became zero, one is new, and one has changed.
  put("after", {{4096, noise}, {kSize / 2, noise}, {kSize - 512, Volume(512, 8)}});
  Create(Path("before"), Path("a.twf"));
  Increment(Path("after"), Path("a.twf"), Path("b.twi"));
  const Json json = Compare("b.twi", "before");
  const std::uint64_t zeros =
      static_cast<std::uint64_t>(std::count(noise.begin(), noise.end(), std::uint8_t{0}));
  EXPECT_EQ(json["differentBytes"], 2 * (noise.size() - zeros) + 512);
  EXPECT_EQ(Compare("a.twf", "b.twi")["different"], json["different"]);
  EXPECT_EQ(Compare("after", "b.twi")["isSame"], true);
  EXPECT_EQ(Compare("before", "a.twf")["isSame"], true);
}

// The damaged chunk reads as zeros, though the index tells that there are data.
TEST_F(HolesTest, AnIncrementStoresWhatADamagedChunkHasLost) {
  ImageSpec spec;
  spec.header.sourceSize = 20 * kCell;
  spec.header.compressionType = 5;
  const Bytes good = PatternBytes(1, 8 * 512);
  spec.chunks = {StreamChunk({{kCell, 16}}, LzoFrames(Bytes(16 * 512, 'a'), 0x8000)),
                 RawChunk({{15 * kCell, 8}}, good)};
  ImageLayout layout;
  Bytes image = BuildImage(spec, &layout);
  Set32(&image, layout.chunkOffsets[0] + 512 + 4, 0);
  Put("a.twf", image);
  Volume volume(20 * kCell);
  std::fill_n(volume.begin() + kCell, 16 * 512, std::uint8_t{'a'});
  SetBytes(&volume, 15 * kCell, good);
  PutSparse("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  const ParsedImage increment =
      ParseImage(ReadFile(Path("b.twi")), {.decipher = {}, .expand = ExpandStream});
  ASSERT_TRUE(increment.ok()) << increment.error;
  ASSERT_EQ(increment.chunks.size(), 1u);
  EXPECT_EQ(increment.chunks[0].runs, (std::vector<VolumeRun>{{kCell, 16}}));
  EXPECT_TRUE(Restore({Path("b.twi")}) == volume);
}

}  // namespace
}  // namespace kqtest
