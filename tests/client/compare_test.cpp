// kqimage compare: chains and volumes in all pairings.

#include <nlohmann/json.hpp>

#include "tests/client/client_fixture.h"
#include "tests/support/image_builder.h"

namespace kqtest {
namespace {

using Json = nlohmann::json;

class CompareTest : public ClientTest {
 protected:
  int Compare(const std::vector<std::string>& arguments) const {
    const ClientResult result = RunClient(Joined({"compare"}, arguments));
    EXPECT_EQ(result.err, "");
    return result.exitStatus;
  }

  Json CompareJson(const std::vector<std::string>& arguments) const {
    return Json::parse(RunClient(Joined({"compare", "--json"}, arguments)).out);
  }
};

TEST_F(CompareTest, AllPairingsOfChainsAndVolumesAgree) {
  const Volume before = MakeVolume(5000001, 1);
  Volume after = before;
  after[10] ^= 1;
  after[11] ^= 1;
  after[4500000] ^= 1;
  Put("before", before);
  Put("after", after);
  Create(Path("before"), Path("a.twf"));
  Create(Path("before"), Path("other.twf"), {"--compress", "lzo-huffman", "--sector-size", "4096"});
  Increment(Path("after"), Path("a.twf"), Path("b.twi"));
  const std::vector<std::vector<std::string>> sides = {{"before", "a.twf", "other.twf"},
                                                       {"after", "b.twi"}};
  for (std::size_t i = 0; i < 2; ++i) {
    for (std::size_t k = 0; k < 2; ++k) {
      for (const std::string& a : sides[i]) {
        for (const std::string& b : sides[k]) {
          EXPECT_EQ(Compare({Path(a), Path(b)}), i == k ? 0 : 3) << a << " " << b;
        }
      }
    }
  }
  const Json json = CompareJson({Path("a.twf"), Path("b.twi")});
  EXPECT_EQ(json["isSame"], false);
  EXPECT_EQ(json["differentBytes"], 3);
  EXPECT_EQ(json["different"], Json::parse(R"([{"offset": 10, "length": 2},
                                               {"offset": 4500000, "length": 1}])"));
  EXPECT_EQ(json["sizes"], (Json{5000001, 5000001}));
}

TEST_F(CompareTest, ForTheEyeTheFirstRangesAreListedAndAllAreCounted) {
  Volume volume(3 << 20, 1);
  Put("before", volume);
  for (std::size_t i = 0; i < 25; ++i) volume[i * 100000] ^= 1;
  Put("after", volume);
  const ClientResult result = RunClient({"compare", Path("before"), Path("after")});
  EXPECT_EQ(result.exitStatus, 3);
  std::string expected = "25 of the bytes that both have are different:\n";
  for (int i = 0; i < 20; ++i) {
    const std::string at = std::to_string(i * 100000);
    expected += "  bytes " + at + " to " + at + "\n";
  }
  expected += "  and 5 more ranges, which --json lists\nDIFFERENT\n";
  EXPECT_EQ(result.out, expected);
  EXPECT_EQ(CompareJson({Path("before"), Path("after")})["different"].size(), 25u);
}

TEST_F(CompareTest, VolumesOfDifferentSizesAreDifferent) {
  Volume volume = MakeVolume(300000, 2);
  Put("long", volume);
  volume.resize(200000);
  Put("short", volume);
  Create(Path("long"), Path("a.twf"));
  const Json json = CompareJson({Path("a.twf"), Path("short")});
  EXPECT_EQ(json["isSame"], false);
  EXPECT_EQ(json["sizes"], (Json{300000, 200000}));
  EXPECT_EQ(json["differentBytes"], 0);
  EXPECT_EQ(Compare({Path("short"), Path("a.twf")}), 3);
}

// A damaged chunk reads as zeros; a volume that has zeros there is not the same for that.
TEST_F(CompareTest, WhatAnImageHasLostCantBeTold) {
  ImageSpec spec;
  spec.header.sourceSize = 64 * 512;
  spec.header.compressionType = 5;
  spec.chunks = {StreamChunk({{0, 16}}, LzoFrames(Bytes(16 * 512, 'a'), 0x8000)),
                 RawChunk({{16 * 512, 8}}, PatternBytes(1, 8 * 512))};
  ImageLayout layout;
  Bytes image = BuildImage(spec, &layout);
  Set32(&image, layout.chunkOffsets[0] + 512 + 4, 0);
  Put("a.twf", image);
  Volume volume(64 * 512);
  SetBytes(&volume, 16 * 512, PatternBytes(1, 8 * 512));
  Put("volume", volume);
  EXPECT_EQ(Compare({Path("a.twf"), Path("volume")}), 1);
  const Json json = CompareJson({Path("volume"), Path("a.twf")});
  EXPECT_EQ(json["isSame"], nullptr);
  EXPECT_EQ(json["unknown"], Json::parse(R"([{"offset": 0, "length": 8192}])"));
  // What stands behind it is compared all the same.
  volume[16 * 512] ^= 1;
  volume[0] ^= 1;
  Put("volume", volume);
  EXPECT_EQ(Compare({Path("a.twf"), Path("volume")}), 3);
  EXPECT_EQ(CompareJson({Path("a.twf"), Path("volume")})["different"],
            Json::parse(R"([{"offset": 8192, "length": 1}])"));
}

// The volume is read in pieces of 2 MiB; what is lost here ends one and begins the next.
TEST_F(CompareTest, WhatStandsAroundLostBytesIsCompared) {
  constexpr std::size_t kPiece = std::size_t{2} << 20;
  constexpr std::size_t kHalf = 16 * 512;
  ImageSpec spec;
  spec.header.sourceSize = 2 * kPiece;
  spec.header.compressionType = 5;
  const Bytes before = PatternBytes(1, kHalf);
  const Bytes behind = PatternBytes(2, kHalf);
  spec.chunks = {RawChunk({{kPiece - 2 * kHalf, 16}}, before),
                 StreamChunk({{kPiece - kHalf, 32}}, LzoFrames(Bytes(2 * kHalf, 'a'), 0x8000)),
                 RawChunk({{kPiece + kHalf, 16}}, behind)};
  ImageLayout layout;
  Bytes image = BuildImage(spec, &layout);
  Set32(&image, layout.chunkOffsets[1] + 512 + 4, 0);
  Put("a.twf", image);
  Volume volume(2 * kPiece, 0);
  SetBytes(&volume, kPiece - 2 * kHalf, before);
  SetBytes(&volume, kPiece - kHalf, Bytes(2 * kHalf, 'a'));
  SetBytes(&volume, kPiece + kHalf, behind);
  Put("volume", volume);
  EXPECT_EQ(Compare({Path("a.twf"), Path("volume")}), 1);
  volume[kPiece - kHalf - 1] ^= 1;
  volume[kPiece + kHalf] ^= 1;
  Put("volume", volume);
  const Json json = CompareJson({Path("a.twf"), Path("volume")});
  EXPECT_EQ(json["unknown"], (Json{{{"offset", kPiece - kHalf}, {"length", 2 * kHalf}}}));
  EXPECT_EQ(json["different"], (Json{{{"offset", kPiece - kHalf - 1}, {"length", 1}},
                                     {{"offset", kPiece + kHalf}, {"length", 1}}}));
}

TEST_F(CompareTest, EachSideCanHaveItsOwnPassword) {
  PutText("key", "one");
  PutText("other", "two");
  Put("volume", MakeVolume(200000, 3));
  Create(Path("volume"), Path("a.twf"), {"--encrypt", "aes256", "--password-file", Path("key")});
  Create(Path("volume"), Path("b.twf"), {"--encrypt", "aes128", "--password-file", Path("other")});
  const std::vector<std::string> key = {"--password-file", Path("key")};
  const std::vector<std::string> other = {"--password-file-b", Path("other")};
  EXPECT_EQ(Compare(Joined({Path("a.twf"), Path("volume")}, key)), 0);
  EXPECT_EQ(Compare(Joined({Path("volume"), Path("a.twf")}, key)), 0);
  EXPECT_EQ(Compare(Joined(Joined({Path("a.twf"), Path("b.twf")}, key), other)), 0);
  EXPECT_EQ(RunClient(Joined({"compare", Path("a.twf"), Path("b.twf")}, key)).exitStatus, 1);
  EXPECT_EQ(RunClient({"compare", Path("a.twf"), Path("volume")}).exitStatus, 1);
}

TEST_F(CompareTest, WhatCantBeReadCantBeTold) {
  Put("volume", MakeVolume(200000, 3));
  Create(Path("volume"), Path("a.twf"), {"--compress", "lzw"});
  EXPECT_EQ(RunClient({"compare", Path("a.twf"), Path("volume")}).exitStatus, 1);
  EXPECT_EQ(RunClient({"compare", Path("none"), Path("volume")}).exitStatus, 1);
  EXPECT_EQ(RunClient({"compare", Path("volume")}).exitStatus, 2);
}

}  // namespace
}  // namespace kqtest
