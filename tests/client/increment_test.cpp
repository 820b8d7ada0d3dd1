// Increments, and how the files of a chain are found.

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;

class IncrementTest : public ClientTest {
 protected:
  // A volume and its full image a.twf.
  Volume Start(std::size_t size, const std::vector<std::string>& options = {}) const {
    Volume volume = MakeVolume(size, static_cast<unsigned>(size));
    Put("volume", volume);
    Create(Path("volume"), Path("a.twf"), options);
    return volume;
  }
};

class IncrementChainTest
    : public IncrementTest,
      public testing::WithParamInterface<std::tuple<const char*, const char*>> {};

// Changes a volume as a day of use would: writes, zeroed stretches, now and then another size.
void ChangeVolume(Volume& volume, std::mt19937& random) {
  for (auto change = 1 + random() % 8; change > 0; --change) {
    const std::size_t start = random() % volume.size();
    const std::size_t length = std::min<std::size_t>(volume.size() - start, random() % 150000);
    const bool isZero = random() % 2 == 0;
    for (std::size_t i = start; i < start + length; ++i) {
      volume[i] = isZero ? std::uint8_t{0} : static_cast<std::uint8_t>(random());
    }
  }
  if (random() % 3 == 0) volume.resize(1 + random() % 3000000);
  // At least one byte, since no image is made of a volume that has not changed.
  volume[random() % volume.size()] ^= 1;
}

TEST_P(IncrementChainTest, EachImageOfARandomHistoryComesBack) {
  const auto [compression, sectorSize] = GetParam();
  const unsigned seed = kqtest::TestSeed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  Volume volume =
      Start(2000000 + random() % 4096, {"--compress", compression, "--sector-size", sectorSize});
  std::vector<Volume> history = {volume};
  std::vector<std::string> images = {Path("a.twf")};
  for (int step = 1; step <= 6; ++step) {
    ChangeVolume(volume, random);
    Put("volume", volume);
    images.push_back(Path("a-" + std::to_string(step) + ".twi"));
    history.push_back(volume);
    Increment(Path("volume"), images[images.size() - 2], images.back());
    ASSERT_TRUE(std::filesystem::exists(images.back()));
  }
  for (std::size_t i = 0; i < images.size(); ++i) {
    EXPECT_EQ(Restore({images[i]}), history[i]) << images[i];
  }
}

INSTANTIATE_TEST_SUITE_P(, IncrementChainTest,
                         testing::Combine(testing::Values("none", "lzo", "lzo-huffman"),
                                          testing::Values("512", "4096")),
                         [](const auto& tested) {
                           std::string name = std::string(std::get<0>(tested.param)) + "_" +
                                              std::get<1>(tested.param);
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST_F(IncrementTest, StoresTheBlocksThatDifferAndNoMore) {
  Volume volume = MakeNoise(4 << 20, 1);
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"), {"--compress", "none"});
  volume[123456] ^= 1;
  volume[3456789] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  // Header, head and two blocks of 8 sectors, index, pointer.
  EXPECT_EQ(std::filesystem::file_size(Path("b.twi")), (1 + 1 + 16 + 1 + 1) * 512u);
  EXPECT_EQ(Restore({Path("b.twi")}), volume);
}

TEST_F(IncrementTest, AStretchThatBecameZeroIsStored) {
  Volume volume = MakeNoise(9 << 20, 1);
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  // Once as zeros, once as a hole that covers whole pieces of reading, once at the end.
  std::fill(volume.begin() + 1000, volume.begin() + 50000, std::uint8_t{0});
  std::fill(volume.begin() + (4 << 20), volume.end(), std::uint8_t{0});
  Put("volume", Volume(volume.begin(), volume.begin() + (4 << 20)));
  std::filesystem::resize_file(Path("volume"), volume.size());
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  EXPECT_EQ(Restore({Path("b.twi")}), volume);
}

TEST_F(IncrementTest, WithoutADifferenceNoFileIsMade) {
  Start(100001);
  const ClientResult result = RunClient({"increment", Path("volume"), Path("a.twf")});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out,
            Path("volume") + " has not changed since " + Path("a.twf") + ": no image made\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

TEST_F(IncrementTest, AChangeOfTheSizeAloneMakesAnImage) {
  for (const char* sectorSize : {"512", "4096"}) {
    Volume volume = Start(100000, {"--sector-size", sectorSize, "--force"});
    volume.resize(50001);
    Put("volume", volume);
    Increment(Path("volume"), Path("a.twf"), Path("smaller.twi"), {"--force"});
    EXPECT_EQ(Restore({Path("smaller.twi")}), volume);
    volume = ReadFile(Path("volume"));
    volume.resize(200000);
    Put("volume", volume);
    Increment(Path("volume"), Path("smaller.twi"), Path("larger.twi"), {"--force"});
    EXPECT_EQ(Restore({Path("larger.twi")}), volume) << "what the first image had is gone";
    std::filesystem::remove(Path("smaller.twi"));
    std::filesystem::remove(Path("larger.twi"));
  }
}

TEST_F(IncrementTest, ASmallSectorSizedVolumeCanChangeItsSizeAlone) {
  Volume volume = MakeNoise(4096, 1);
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"), {"--sector-size", "4096"});
  std::filesystem::resize_file(Path("volume"), 5000);
  volume.resize(5000);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  EXPECT_EQ(Restore({Path("b.twi")}), volume);
}

TEST_F(IncrementTest, HeaderContinuesTheParent) {
  Volume volume = Start(100000, {"--compress", "lzo-huffman", "--sector-size", "1024"});
  volume[5] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  const Volume a = ReadFile(Path("a.twf"));
  const Volume b = ReadFile(Path("b.twi"));
  ImageHeader parent = {};
  ImageHeader child = {};
  std::memcpy(&parent, a.data(), sizeof parent);
  std::memcpy(&child, b.data(), sizeof child);
  EXPECT_EQ(std::memcmp(child.ParentImageId, parent.ImageId, 16), 0);
  EXPECT_EQ(std::memcmp(child.ImageSetId, parent.ImageSetId, 16), 0);
  EXPECT_EQ(child.Generation, parent.NextGeneration);
  EXPECT_EQ(child.SectorSize, 1024u);
  EXPECT_EQ(child.CompressionType, KQ_COMPRESSION_LZO_HUFFMAN);
  EXPECT_EQ(child.Flags & KQ_FLAG_EXTENDED_RECORD, KQ_FLAG_EXTENDED_RECORD);
}

TEST_F(IncrementTest, CompressionMayChangeWithinAChain) {
  Volume volume = Start(300000, {"--compress", "none"});
  volume[5] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"), {"--compress", "lzo"});
  EXPECT_EQ(Restore({Path("b.twi")}), volume);
}

TEST_F(IncrementTest, WithoutANameTheNextFreeOneIsTaken) {
  Volume volume = Start(10000);
  Put("a-i002.twi", {'x'});
  for (const char* image : {"a.twf", "a-i001.twi", "a.twf"}) {
    ++volume[0];
    Put("volume", volume);
    ASSERT_EQ(RunClient({"increment", Path("volume"), Path(image)}).exitStatus, 0);
  }
  EXPECT_EQ(Names(),
            (NameSet{"volume", "a.twf", "a-i001.twi", "a-i002.twi", "a-i003.twi", "a-i004.twi"}));
  EXPECT_EQ(ReadFile(Path("a-i002.twi")), Volume{'x'});
}

TEST_F(IncrementTest, TheFolderOfANameWithoutOneIsSearched) {
  Volume volume = Start(10000);
  volume[0] ^= 1;
  Put("volume", volume);
  const ClientOptions here = {.workFolder = folder_.Path()};
  EXPECT_EQ(RunClient({"increment", "volume", "a.twf"}, here).exitStatus, 0);
  EXPECT_EQ(RunClient({"restore", "a-i001.twi", "--to", "new"}, here).exitStatus, 0);
  EXPECT_EQ(ReadFile(Path("new")), volume);
}

// A chain a.twf, b.twi, c.twi of one volume, whose history is returned.
class ChainTest : public IncrementTest {
 protected:
  void SetUp() override {
    volumes_.push_back(Start(100000));
    for (const auto& [image, out] : {std::pair("a.twf", "b.twi"), std::pair("b.twi", "c.twi")}) {
      Volume volume = volumes_.back();
      volume[volumes_.size() * 10000] ^= 1;
      Put("volume", volume);
      Increment(Path("volume"), Path(image), Path(out));
      volumes_.push_back(volume);
    }
  }

  void Move(const std::string& from, const std::string& to) const {
    std::filesystem::create_directories(std::filesystem::path(Path(to)).parent_path());
    std::filesystem::rename(Path(from), Path(to));
  }

  std::vector<Volume> volumes_;
};

TEST_F(ChainTest, StrangersInTheFolderDontDisturb) {
  Put("other", MakeNoise(5000, 9));
  Create(Path("other"), Path("0.twf"));
  Put("0-text.twi", {'n', 'o', ' ', 'i', 'm', 'a', 'g', 'e'});
  Put("empty.twf", {});
  ASSERT_EQ(mkfifo(Path("pipe.twi").c_str(), 0600), 0);
  std::filesystem::create_directory(Path("folder.twf"));
  std::filesystem::create_symlink("a.twf", Path("link.twf"));
  std::filesystem::create_hard_link(Path("b.twi"), Path("b-link.twi"));
  EXPECT_EQ(Restore({Path("b.twi")}), volumes_[1]);
  EXPECT_EQ(Restore({Path("c.twi")}), volumes_[2]);
}

TEST_F(ChainTest, AMissingParentIsNamed) {
  std::filesystem::remove(Path("b.twi"));
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"restore", Path("c.twi"), "--to", Path("new")},
        std::vector<std::string>{"increment", Path("volume"), Path("c.twi")}}) {
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("the parent of " + Path("c.twi") +
                              " is missing: no file in the "
                              "folder " +
                              folder_.Path() + " is the image "),
              std::string::npos)
        << result.err;
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf", "c.twi"}));
}

TEST_F(ChainTest, AMissingParentMessageTellsOfUnreadableFiles) {
  Volume image = ReadFile(Path("b.twi"));
  std::memcpy(image.data(), KQ_MAGIC_OPEN, 4);
  WriteFile(Path("b.twi"), image);
  const ClientResult result = RunClient({"restore", Path("c.twi"), "--to", Path("new")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find(Path("b.twi") + ": it is unfinished"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("status -1392"), std::string::npos) << result.err;
}

TEST_F(ChainTest, ACopyInTheFolderDoesNotMatter) {
  std::filesystem::copy_file(Path("a.twf"), Path("copy.twf"));
  std::filesystem::copy_file(Path("b.twi"), Path("copy.twi"));
  EXPECT_EQ(Restore({Path("c.twi")}), volumes_[2]);
  std::filesystem::remove(Path("a.twf"));
  std::filesystem::remove(Path("b.twi"));
  EXPECT_EQ(Restore({Path("c.twi")}), volumes_[2]);
  EXPECT_EQ(Restore({Path("c.twi"), Path("copy.twi"), Path("copy.twf")}), volumes_[2]);
}

TEST_F(ChainTest, FilesThatAreNamedMayLieAnywhereAndComeInAnyOrder) {
  Move("a.twf", "x/a.twf");
  Move("b.twi", "y/b.twi");
  EXPECT_EQ(Restore({Path("c.twi"), Path("x/a.twf"), Path("y/b.twi")}), volumes_[2]);
  Volume volume = volumes_[2];
  volume[7] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("c.twi"), Path("d.twi"),
            {"--chain", Path("y/b.twi"), "--chain", Path("x/a.twf")});
  EXPECT_EQ(Restore({Path("d.twi"), Path("c.twi"), Path("x/a.twf"), Path("y/b.twi")}), volume);
}

TEST_F(ChainTest, NamedFilesMustBeOneWholeChain) {
  Put("other", MakeNoise(5000, 9));
  Create(Path("other"), Path("other.twf"));
  Increment(Path("other"), Path("a.twf"), Path("branch.twi"));
  for (const std::vector<std::string>& files : {std::vector<std::string>{"a.twf", "c.twi"},
                                                {"b.twi", "c.twi"},
                                                {"a.twf", "other.twf"},
                                                {"a.twf", "b.twi", "branch.twi"},
                                                {"a.twf", "a.twf"},
                                                {"a.twf", "b.twi", "missing.twi"}}) {
    std::vector<std::string> arguments = {"restore"};
    for (const std::string& file : files) arguments.push_back(Path(file));
    arguments.insert(arguments.end(), {"--to", Path("new")});
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, files[0] == files[1] ? 2 : 1) << files.back();
    EXPECT_TRUE(result.err.starts_with("kqimage: ")) << result.err;
    EXPECT_FALSE(std::filesystem::exists(Path("new")));
  }
}

TEST_F(ChainTest, AChainThatGoesOnBehindTheImageIsRefused) {
  const ClientResult result = RunClient(
      {"increment", Path("volume"), Path("a.twf"), Path("d.twi"), "--chain", Path("b.twi")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("is newer than"), std::string::npos) << result.err;
}

TEST_F(ChainTest, AFileOfTheChainIsNeverReplaced) {
  Put("volume", MakeNoise(5000, 3));
  for (const char* out : {"b.twi", "c.twi"}) {
    const Volume before = ReadFile(Path(out));
    const ClientResult result =
        RunClient({"increment", Path("volume"), Path("c.twi"), Path(out), "--force"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(ReadFile(Path(out)), before);
  }
}

TEST_F(ChainTest, AFailedIncrementLeavesNothing) {
  const NameSet before = Names();
  Put("volume", MakeNoise(3 << 20, 3));
  const ClientResult result = RunClient({"increment", Path("volume"), Path("c.twi")},
                                        {.fileSizeLimit = std::uint64_t{1} << 20});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(Names(), before);
}

}  // namespace
}  // namespace kqtest
