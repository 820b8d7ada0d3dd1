// The .sha256 files that create and increment write. Those of mount and commit: mount_test.cpp.

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "tests/client/client_fixture.h"
#include "tests/support/image_builder.h"

namespace kqtest {
namespace {

class Sha256Test : public ClientTest {
 protected:
  bool HasSum(const std::string& image) const {
    return std::filesystem::exists(Path(image + ".sha256"));
  }

  // What sha256sum says to all .sha256 files in the folder.
  int CheckSums() const {
    const std::string command =
        "cd '" + folder_.Path() + "' && sha256sum --strict --status -c *.sha256";
    return std::system(command.c_str());
  }
};

TEST_F(Sha256Test, Sha256sumAcceptsWhatIsWritten) {
  Put("volume", MakeNoise(9000000, 1));
  for (const char* name : {"a.twf", "with space.twf", "back\\slash.twf", "line\nend.twf",
                           "carriage\rreturn.twf", "*.twf"}) {
    Create(Path("volume"), Path(name));
    EXPECT_TRUE(HasSum(name)) << name;
    EXPECT_EQ(RunClient({"verify", "-q", Path(name)}).exitStatus, 0) << name;
  }
  Volume changed = MakeNoise(9000000, 1);
  changed[7] ^= 1;
  Put("volume", changed);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  EXPECT_TRUE(HasSum("b.twi"));
  EXPECT_EQ(CheckSums(), 0);
  const Volume text = ReadFile(Path("a.twf.sha256"));
  EXPECT_EQ(std::string(text.begin() + 64, text.end()), "  a.twf\n");
  Volume image = ReadFile(Path("a.twf"));
  image.back() ^= 1;
  Put("a.twf", image);
  EXPECT_NE(CheckSums(), 0);
}

TEST_F(Sha256Test, NoneIsWrittenWithTheOption) {
  Put("volume", MakeNoise(5000, 1));
  Create(Path("volume"), Path("a.twf"), {"--no-sha256"});
  EXPECT_FALSE(HasSum("a.twf"));
}

TEST_F(Sha256Test, AReplacedImageNeverKeepsItsOldSum) {
  Put("volume", MakeNoise(5000, 1));
  Create(Path("volume"), Path("a.twf"));
  const Volume before = ReadFile(Path("a.twf.sha256"));
  Create(Path("volume"), Path("a.twf"), {"--force"});
  EXPECT_NE(ReadFile(Path("a.twf.sha256")), before);
  EXPECT_EQ(CheckSums(), 0);
  Create(Path("volume"), Path("a.twf"), {"--force", "--no-sha256"});
  EXPECT_FALSE(HasSum("a.twf"));
}

TEST_F(Sha256Test, AFileOfThatNameIsNotOverwritten) {
  Put("volume", MakeNoise(5000, 1));
  PutText("a.twf.sha256", "mine");
  const ClientResult refused = RunClient({"create", Path("volume"), Path("a.twf")});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.err.find("a.twf.sha256 exists already"), std::string::npos) << refused.err;
  EXPECT_FALSE(std::filesystem::exists(Path("a.twf")));
  Create(Path("volume"), Path("a.twf"), {"--no-sha256"});
  const Volume kept = ReadFile(Path("a.twf.sha256"));
  EXPECT_EQ(std::string(kept.begin(), kept.end()), "mine");
}

TEST_F(Sha256Test, AnInterruptedCreateLeavesNone) {
  Put("volume", MakeNoise(40 << 20, 1));
  const std::string image = Path("a.twf");
  const ClientResult result = RunClientUntil(
      {"create", Path("volume"), image},
      [&] {
        std::error_code error;
        return std::filesystem::file_size(image, error) > (1 << 20) && !error;
      },
      SIGINT);
  EXPECT_EQ(result.exitStatus, 1);
  for (const auto& entry : std::filesystem::directory_iterator(folder_.Path())) {
    EXPECT_EQ(entry.path().filename(), "volume");
  }
}

TEST_F(Sha256Test, ARepairKeepsAGoodSumTrueAndAWrongOneWrong) {
  ImageSpec spec;
  spec.header.generation = 1;
  spec.header.record.emplace();
  spec.header.record->recordFlags = 0x30;
  spec.chunks = {RawChunk({{0, 8}}, PatternBytes(1, 4096))};
  const auto sum = [this] {
    return std::system(("cd '" + folder_.Path() + "' && sha256sum a.twf > a.twf.sha256").c_str());
  };
  Put("a.twf", BuildImage(spec));
  ASSERT_EQ(sum(), 0);
  EXPECT_EQ(RunClient({"repair", Path("a.twf")}).exitStatus, 0);
  EXPECT_NE(ReadFile(Path("a.twf")), BuildImage(spec)) << "nothing was mended";
  EXPECT_EQ(CheckSums(), 0);
  Volume image = BuildImage(spec);
  Put("a.twf", image);
  ASSERT_EQ(sum(), 0);
  image[1500] ^= 1;
  Put("a.twf", image);
  EXPECT_EQ(RunClient({"repair", Path("a.twf")}).exitStatus, 0);
  EXPECT_NE(CheckSums(), 0);
}

}  // namespace
}  // namespace kqtest
