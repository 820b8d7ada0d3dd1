// Runs that are cut short, each at a moment that is known exactly.

#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;

// Far more than what is read ahead and encoded when the first chunk stands in the file.
constexpr std::size_t kVolumeMiB = 160;

Volume MakeLongVolume() {
  const Volume mebibyte = MakeNoise(std::size_t{1} << 20, 1);
  Volume volume;
  for (std::size_t i = 0; i < kVolumeMiB; ++i) {
    volume.insert(volume.end(), mebibyte.begin(), mebibyte.end());
  }
  return volume;
}

// An image at the path is unfinished and has chunks already.
bool IsInTheMiddle(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char magic[4] = {};
  return file.read(magic, sizeof magic) && std::memcmp(magic, KQ_MAGIC_OPEN, sizeof magic) == 0 &&
         std::filesystem::file_size(path) > 4096;
}

// The path of the one file in the folder whose name ends in .partial; empty if there is none.
std::string PartialFile(const std::string& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".partial") return entry.path().string();
  }
  return {};
}

bool HasData(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && status.st_blocks > 0;
}

class InterruptTest : public ClientTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override { Put("volume", MakeLongVolume()); }

  static void ExpectInterrupted(const ClientResult& result) {
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "kqimage: interrupted; what was unfinished has been removed\n");
  }
};

TEST_P(InterruptTest, CreateRemovesItsImage) {
  const std::string image = Path("a.twf");
  ExpectInterrupted(RunClientUntil(
      {"create", Path("volume"), image}, [&] { return IsInTheMiddle(image); }, GetParam()));
  EXPECT_EQ(Names(), NameSet{"volume"});
}

TEST_P(InterruptTest, AReplacementLeavesTheOldImage) {
  Put("small", MakeNoise(5000, 2));
  Create(Path("small"), Path("a.twf"));
  const Volume before = ReadFile(Path("a.twf"));
  ExpectInterrupted(RunClientUntil(
      {"create", Path("volume"), Path("a.twf"), "--force"},
      [&] {
        const std::string partial = PartialFile(folder_.Path());
        return !partial.empty() && IsInTheMiddle(partial);
      },
      GetParam()));
  EXPECT_EQ(ReadFile(Path("a.twf")), before);
  EXPECT_EQ(Names(), (NameSet{"volume", "small", "a.twf"}));
}

TEST_P(InterruptTest, IncrementRemovesItsImage) {
  Put("small", MakeNoise(5000, 2));
  Create(Path("small"), Path("a.twf"));
  const std::string image = Path("a-i001.twi");
  ExpectInterrupted(RunClientUntil(
      {"increment", Path("volume"), Path("a.twf")}, [&] { return IsInTheMiddle(image); },
      GetParam()));
  EXPECT_EQ(Names(), (NameSet{"volume", "small", "a.twf"}));
}

TEST_P(InterruptTest, RestoreRemovesItsFile) {
  Create(Path("volume"), Path("a.twf"));
  ExpectInterrupted(RunClientUntil(
      {"restore", Path("a.twf"), "--to", Path("new")},
      [&] { return HasData(PartialFile(folder_.Path())); }, GetParam()));
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

INSTANTIATE_TEST_SUITE_P(, InterruptTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& tested) {
                           return tested.param == SIGINT    ? "SIGINT"
                                  : tested.param == SIGTERM ? "SIGTERM"
                                                            : "SIGHUP";
                         });

class CutShortTest : public ClientTest {
 protected:
  void SetUp() override { Put("volume", MakeLongVolume()); }
};

TEST_F(CutShortTest, AKilledCreateLeavesWhatNobodyTakesForAnImage) {
  const std::string image = Path("a.twf");
  RunClientUntil(
      {"create", Path("volume"), image}, [&] { return IsInTheMiddle(image); }, SIGKILL);
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"info", image},
        std::vector<std::string>{"restore", image, "--to", Path("new")},
        std::vector<std::string>{"increment", Path("volume"), image}}) {
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("it is unfinished"), std::string::npos) << result.err;
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

TEST_F(CutShortTest, AKilledRestoreLeavesNothingUnderTheTargetsName) {
  Create(Path("volume"), Path("a.twf"));
  RunClientUntil(
      {"restore", Path("a.twf"), "--to", Path("new")},
      [&] { return HasData(PartialFile(folder_.Path())); }, SIGKILL);
  EXPECT_FALSE(std::filesystem::exists(Path("new")));
  EXPECT_FALSE(PartialFile(folder_.Path()).empty());
}

TEST_F(CutShortTest, AFileThatTakesTheTargetsNameMeanwhileIsKept) {
  Create(Path("volume"), Path("a.twf"));
  const ClientResult result = RunClientUntil(
      {"restore", Path("a.twf"), "--to", Path("new")},
      [&] { return HasData(PartialFile(folder_.Path())); }, 0, [&] { Put("new", {'x'}); });
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("exists already"), std::string::npos) << result.err;
  EXPECT_EQ(ReadFile(Path("new")), Volume{'x'});
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf", "new"}));
}

TEST_F(CutShortTest, ASourceThatShrinksIsAFailure) {
  const std::string image = Path("a.twf");
  const ClientResult result = RunClientUntil(
      {"create", Path("volume"), image}, [&] { return IsInTheMiddle(image); }, 0,
      [&] { std::filesystem::resize_file(Path("volume"), 100); });
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("became shorter"), std::string::npos) << result.err;
  EXPECT_EQ(Names(), NameSet{"volume"});
}

}  // namespace
}  // namespace kqtest
