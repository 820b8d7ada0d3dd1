// Headers with the defects that the library knows.

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"
#include "tests/support/image_cipher.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

class RepairTest : public ClientTest {
 protected:
  // A full image that says it has the generation of an increment.
  ImageSpec Defective() const {
    ImageSpec spec;
    spec.header.sourceSize = volume_.size();
    spec.header.generation = 1;
    spec.header.record.emplace().recordFlags = 0x30;
    spec.chunks = {RawChunk({{0, 64}}, volume_)};
    return spec;
  }
  std::uint32_t Generation() const { return ParseImage(ReadFile(Path("a.twf"))).header.generation; }
  ClientResult Repair(const std::vector<std::string>& options = {}) const {
    return RunClient(Joined({"repair", Path("a.twf")}, options));
  }
  std::string Line(const std::string& result) const {
    return Path("a.twf") + ": a full image with the generation of an increment: " + result + "\n";
  }

  const Volume volume_ = MakeNoise(64 * 512, 1);
};

TEST_F(RepairTest, AWrongGenerationIsFoundAndMendedInImagesOfEveryEncryption) {
  PutText("key", "secret");
  for (std::uint32_t type = KQ_ENCRYPTION_NONE; type <= KQ_ENCRYPTION_AES256; ++type) {
    ImageSpec spec = Defective();
    if (type != KQ_ENCRYPTION_NONE) EncipherImage(&spec, type, "secret");
    WriteFile(Path("a.twf"), BuildImage(spec));
    const Volume before = ReadFile(Path("a.twf"));

    const ClientResult checked = Repair({"--check"});
    EXPECT_EQ(checked.exitStatus, 1);
    EXPECT_TRUE(checked.out.starts_with(Line("found"))) << checked.out;
    EXPECT_EQ(checked.err,
              "kqimage: " + Path("a.twf") + " has a defect that kqimage repair mends\n");
    EXPECT_EQ(ReadFile(Path("a.twf")), before) << "a check changes nothing";

    const ClientResult mended = Repair();
    EXPECT_EQ(mended.exitStatus, 0) << mended.err;
    EXPECT_EQ(mended.out, Line("mended"));
    EXPECT_EQ(Generation(), 0u);
    EXPECT_EQ(ParseImage(ReadFile(Path("a.twf"))).error, "");
    EXPECT_TRUE(Restore({Path("a.twf")}, {"--password-file", Path("key")}) == volume_) << type;

    const ClientResult again = Repair({"--check"});
    EXPECT_EQ(again.exitStatus, 0);
    EXPECT_TRUE(again.out.starts_with(Line("not found"))) << again.out;
    EXPECT_EQ(Repair().out, Line("not found"));
  }
}

TEST_F(RepairTest, DamageThatCantBeMendedIsAFailure) {
  WriteFile(Path("a.twf"), BuildImage(Defective()));
  Volume file = ReadFile(Path("a.twf"));
  file[500] ^= 1;
  WriteFile(Path("a.twf"), file);
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, std::vector<std::string>{"--check"}}) {
    const ClientResult result = Repair(options);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "kqimage: the header of " + Path("a.twf") +
                              " is damaged in a way that can't be mended (status -1392)\n");
    EXPECT_EQ(ReadFile(Path("a.twf")), file);
  }
  EXPECT_EQ(Repair({"--check", "--forget-gpt"}).exitStatus, 2);
}

TEST_F(RepairTest, AWrongPasswordChangesNothing) {
  PutText("wrong", "guess");
  ImageSpec spec = Defective();
  EncipherImage(&spec, KQ_ENCRYPTION_AES256, "secret");
  WriteFile(Path("a.twf"), BuildImage(spec));
  const ClientResult result = Repair({"--password-file", Path("wrong")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err, "kqimage: the password is wrong: it does not open " + Path("a.twf") + "\n");
  EXPECT_EQ(Generation(), 1u);
}

}  // namespace
}  // namespace kqtest
