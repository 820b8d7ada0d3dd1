// Enciphered images of a disk's partition, before and after a repair of their header.

#include <algorithm>

#include "tests/client/disk_fixture.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

class EncipheredPartition : public PartitionTest, public testing::WithParamInterface<Encryption> {
 protected:
  void SetUp() override {
    PutText("key", "secret");
    Sfdisk("label: gpt\nsize=2M, name=\"one\"\nsize=4M, name=\"two\"\n");
    volume_ = Partitions(Table())[1];
    PutExt4(volume_, "vault");
    CreateOf(2);
    plain_ = Info()["origin"];
    CreateOf(2, Joined({GetParam().option, GetParam().name}, key_));
  }
  Volume Bytes() const { return DiskBytes(volume_.offset, volume_.size); }

  Arguments key_ = {"--password-file", Path("key")};
  Partition volume_;
  Json plain_;
};

TEST_P(EncipheredPartition, TellsItsOriginWithThePasswordAlone) {
  EXPECT_EQ(Info()["origin"], nullptr);
  EXPECT_NE(InfoText().find("Origin            enciphered; with the password it is shown\n"),
            std::string::npos);
  EXPECT_EQ(Info(key_)["origin"], plain_);
  EXPECT_EQ(plain_["label"], "vault");
  EXPECT_TRUE(Restore({Path("a.twf")}, key_) == Bytes());
  const Volume file = ReadFile(Path("a.twf"));
  const std::string signature = "EFI PART";
  EXPECT_EQ(std::search(file.begin(), file.end(), signature.begin(), signature.end()), file.end());
  EXPECT_EQ(ParseImage(file).error, "");
}

TEST_P(EncipheredPartition, AWrongPasswordShowsNoNoise) {
  PutText("wrong", "guess");
  const Arguments wrong = {"--password-file", Path("wrong")};
  const ClientResult result = RunClient(Joined({"info", Path("a.twf")}, wrong));
  if (GetParam().type != kUncheckedEncryption.type) {
    EXPECT_EQ(result.exitStatus, 1);
    return;
  }
  EXPECT_NE(
      result.out.find("Password          probably wrong: with it the header makes no sense\n"),
      std::string::npos)
      << result.out;
  EXPECT_EQ(Info(wrong)["password"], "doubtful");
  EXPECT_EQ(Info(wrong)["origin"], nullptr);
  EXPECT_EQ(Info(key_)["password"], "unchecked");
  EXPECT_NE(RunClient(Joined({"repair", "--check", Path("a.twf")}, wrong))
                .out.find("can't be looked for: the password is probably wrong\n"),
            std::string::npos);
}

TEST_P(EncipheredPartition, IsWholeAfterARepair) {
  EXPECT_NE(RunClient({"repair", "--check", Path("a.twf")})
                .out.find("a GPT in the header: can't be looked for without the password\n"),
            std::string::npos);
  const ClientResult checked = RunClient(Joined({"repair", "--check", Path("a.twf")}, key_));
  EXPECT_EQ(checked.exitStatus, 0) << checked.err;
  EXPECT_NE(checked.out.find("a GPT in the header: found; no defect, and --forget-gpt drops it\n"),
            std::string::npos)
      << checked.out;
  EXPECT_EQ(RunClient(Joined({"repair", Path("a.twf")}, key_)).exitStatus, 0);
  EXPECT_EQ(Info(key_)["origin"], plain_) << "nobody asked for it to be dropped";

  const ClientResult mended = RunClient(Joined({"repair", "--forget-gpt", Path("a.twf")}, key_));
  EXPECT_EQ(mended.exitStatus, 0) << mended.err;
  EXPECT_NE(mended.out.find("a GPT in the header: mended\n"), std::string::npos) << mended.out;
  const Json info = Info(key_);
  EXPECT_EQ(info["origin"]["partitionStyle"], "none");
  EXPECT_EQ(info["origin"]["label"], "vault");
  EXPECT_EQ(info["record"]["headerChecksumGood"], true);
  EXPECT_EQ(info["record"]["extraChecksumGood"], true);
  EXPECT_TRUE(Restore({Path("a.twf")}, key_) == Bytes());
}

INSTANTIATE_TEST_SUITE_P(, EncipheredPartition, testing::ValuesIn(kEncryptions), NameOfEncryption);

}  // namespace
}  // namespace kqtest
