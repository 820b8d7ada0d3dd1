// Enciphered images of every type, from the new image to the restored volume.

#include <filesystem>
#include <map>

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"
#include "tests/support/image_cipher.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;
using Arguments = std::vector<std::string>;

constexpr char kPassword[] = "Gr\u00fc\u00dfe, \u4f60\u597d \U0001F511";

class EncryptionTest : public ClientTest {
 protected:
  void SetUp() override {
    PutText("right", kPassword);
    PutText("wrong", "guess");
  }
  Arguments Right() const { return {"--password-file", Path("right")}; }
  Arguments Wrong() const { return {"--password-file", Path("wrong")}; }

  // The file taken apart without the library, deciphered with the password.
  ParsedImage Parse(const std::string& name, const Encryption& encryption) const {
    const Volume file = ReadFile(Path(name));
    const ParsedImage plain = ParseImage(file);
    const auto key = OpenImageKey(encryption.type, kPassword, plain.header.keyBlob);
    EXPECT_TRUE(key.has_value()) << name;
    ParseOptions options;
    if (key) options.decipher = DecipherWith(*key);
    return ParseImage(file, options);
  }
};

class EveryEncryption : public EncryptionTest, public testing::WithParamInterface<Encryption> {
 protected:
  void CreateBase(const Arguments& more = {}) const {
    Create(Path("volume"), Path("a.twf"),
           Joined({GetParam().option, GetParam().name}, Joined(Right(), more)));
  }
};

TEST_P(EveryEncryption, AChainRestoresEachOfItsStates) {
  std::map<std::string, Volume> states;
  Volume volume = MakeVolume(300001, 7);
  Put("volume", volume);
  CreateBase({"--compress", "none"});
  states["a.twf"] = volume;
  std::string parent = "a.twf";
  for (const char* kind : {"none", "lzo", "lzo-huffman"}) {
    for (std::size_t at = volume.size() / 3; at < volume.size() / 2; ++at) volume[at] ^= 0x55;
    volume.resize(volume.size() + 50000, 'x');
    Put("volume", volume);
    const std::string child = std::string(kind) + ".twi";
    Increment(Path("volume"), Path(parent), Path(child), Joined(Right(), {"--compress", kind}));
    states[child] = volume;
    parent = child;
  }
  for (const auto& [name, state] : states) {
    EXPECT_TRUE(Restore({Path(name)}, Right()) == state) << name;
  }
  const ParsedImage base = Parse("a.twf", GetParam());
  const ParsedImage child = Parse("none.twi", GetParam());
  EXPECT_EQ(base.error + child.error, "");
  EXPECT_TRUE(base.ReadVolume(0, 300001) == states["a.twf"]);
  EXPECT_EQ(child.header.encryptionType, GetParam().type);
  EXPECT_NE(child.header.keyBlob, base.header.keyBlob) << "a data key of its own";
}

TEST_P(EveryEncryption, NothingOfTheVolumeIsInTheFile) {
  const std::string text = "a text that nobody is to read";
  Put("volume", Volume(text.begin(), text.end()));
  CreateBase({"--compress", "none"});
  const Volume file = ReadFile(Path("a.twf"));
  EXPECT_EQ(std::search(file.begin(), file.end(), text.begin(), text.end()), file.end());
}

TEST_P(EveryEncryption, InfoTellsWhetherThePasswordIsRight) {
  Put("volume", MakeNoise(5000, 1));
  CreateBase();
  const ClientResult without = RunClient({"info", Path("a.twf")});
  EXPECT_EQ(without.exitStatus, 0) << without.err;
  EXPECT_NE(without.out.find("Encryption        " + std::string(GetParam().name) + "\n"),
            std::string::npos);
  EXPECT_EQ(without.out.find("Password"), std::string::npos);
  const ClientResult right = RunClient(Joined({"info", Path("a.twf")}, Right()));
  const char* verdict = GetParam().type == KQ_ENCRYPTION_AES128_UNCHECKED
                            ? "Password          can't be checked with this encryption\n"
                            : "Password          right\n";
  EXPECT_NE(right.out.find(verdict), std::string::npos) << right.out << right.err;
}

// Parents of other producers may have more header sectors. They are deciphered with the parent's
// key and enciphered with the child's.
TEST_P(EveryEncryption, AnIncrementCarriesOnEncipheredHeaderSectors) {
  Volume volume = MakeNoise(64 * 512, 1);
  ImageSpec parent;
  parent.header.sourceSize = volume.size();
  parent.header.laterSectors = PatternBytes(5, 3 * 512);
  parent.chunks = {RawChunk({{0, 64}}, volume)};
  EncipherImage(&parent, GetParam().type, kPassword);
  WriteFile(Path("a.twf"), BuildImage(parent));
  volume[0] ^= 1;
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"), Right());
  const ParsedImage child = Parse("b.twi", GetParam());
  EXPECT_EQ(child.error, "");
  EXPECT_EQ(child.header.laterSectors, parent.header.laterSectors);
  EXPECT_NE(child.storedLaterSectors, parent.header.laterSectors);
  EXPECT_TRUE(Restore({Path("b.twi")}, Right()) == volume);
}

INSTANTIATE_TEST_SUITE_P(, EveryEncryption, testing::ValuesIn(kEncryptions), NameOfEncryption);

TEST_F(EncryptionTest, AWrongPasswordSaysSoInOneSentence) {
  Put("volume", MakeNoise(5000, 1));
  for (const Encryption& encryption : kEncryptions) {
    if (encryption.type == kUncheckedEncryption.type) continue;
    Create(Path("volume"), Path("a.twf"),
           Joined({"--force", encryption.option, encryption.name}, Right()));
    for (const Arguments& command : {Arguments{"restore", Path("a.twf"), "--to", Path("new")},
                                     Arguments{"increment", Path("volume"), Path("a.twf")},
                                     Arguments{"info", Path("a.twf")}}) {
      const ClientResult result = RunClient(Joined(command, Wrong()));
      EXPECT_EQ(result.exitStatus, 1) << command[0];
      EXPECT_EQ(result.out, "");
      EXPECT_EQ(result.err,
                "kqimage: the password is wrong: it does not open " + Path("a.twf") + "\n");
    }
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf", "right", "wrong"}));
}

// This encryption takes any password, and what comes out is noise. Most often a chunk then makes no
// sense; where it does, the result line tells what is not known.
TEST_F(EncryptionTest, AnUncheckedPasswordIsDoubted) {
  Put("volume", MakeVolume(300000, 1));
  const Arguments base = Joined({kUncheckedEncryption.option, kUncheckedEncryption.name}, Right());
  Create(Path("volume"), Path("lzo.twf"), base);
  const ClientResult damaged =
      RunClient(Joined({"restore", Path("lzo.twf"), "--to", Path("new")}, Wrong()));
  EXPECT_EQ(damaged.exitStatus, 1);
  EXPECT_NE(damaged.err.find("the password may be wrong, which this image's encryption can't tell"),
            std::string::npos)
      << damaged.err;
  Create(Path("volume"), Path("none.twf"), Joined(base, {"--compress", "none"}));
  for (const Arguments& command :
       {Arguments{"restore", Path("none.twf"), "--to", Path("new")},
        Arguments{"increment", Path("volume"), Path("none.twf"), Path("new.twi")}}) {
    const ClientResult result = RunClient(Joined(command, Wrong()));
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("aes128-unchecked can't tell whether the password was right"),
              std::string::npos)
        << result.out;
  }
}

TEST_F(EncryptionTest, AFileOfTheChainUnderAnotherPasswordIsNamed) {
  Volume volume = MakeNoise(64 * 512, 1);
  ImageSpec base;
  base.header.sourceSize = volume.size();
  base.chunks = {RawChunk({{0, 64}}, volume)};
  ImageSpec child = base;
  child.header = IncrementOf(base.header, MakeId(2));
  EncipherImage(&base, KQ_ENCRYPTION_AES256, "another", 3);
  EncipherImage(&child, KQ_ENCRYPTION_AES128, kPassword, 4);
  WriteFile(Path("a.twf"), BuildImage(base));
  WriteFile(Path("b.twi"), BuildImage(child));
  const ClientResult result =
      RunClient(Joined({"restore", Path("b.twi"), "--to", Path("new")}, Right()));
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err, "kqimage: the password is wrong: it does not open " + Path("a.twf") + "\n");
}

TEST_F(EncryptionTest, TheCommentSharesItsSectorWithTheKey) {
  Put("volume", MakeNoise(5000, 1));
  // 512 bytes less 114 of fields, 64 of key, 157 of record and 2 of the NUL.
  const std::string longest(87, 'c');
  Create(Path("volume"), Path("a.twf"),
         Joined({"--encrypt", "aes256", "--comment", longest}, Right()));
  EXPECT_NE(RunClient({"info", Path("a.twf")}).out.find(longest + "\n"), std::string::npos);
  const ClientResult result = RunClient(Joined(
      {"create", Path("volume"), Path("b.twf"), "--encrypt", "aes256", "--comment", longest + "c"},
      Right()));
  EXPECT_EQ(result.exitStatus, 2);
  EXPECT_NE(result.err.find("1 more than fit beside the key"), std::string::npos) << result.err;
}

TEST_F(EncryptionTest, APasswordThatWouldDoNothingIsAMistake) {
  Put("volume", MakeNoise(5000, 1));
  Create(Path("volume"), Path("a.twf"));
  for (const Arguments& command : {Arguments{"create", Path("volume"), Path("b.twf")},
                                   Arguments{"increment", Path("volume"), Path("a.twf")}}) {
    const ClientResult result = RunClient(Joined(command, Right()));
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("password"), std::string::npos) << result.err;
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf", "right", "wrong"}));
}

TEST_F(EncryptionTest, OptionsThatMakeNoSenseAreUsageErrors) {
  Put("volume", MakeNoise(5000, 1));
  for (const Arguments& options : std::vector<Arguments>{
           {"--encrypt", "rc4"},
           {"--encrypt", "4"},
           {"--encrypt-legacy", "aes256"},
           {"--encrypt", "aes256", "--encrypt-legacy", "rc4"},
           {"--encrypt", "aes256", "--password", "secret"},
           {"--encrypt", "aes256", "--password-file", Path("right"), "--password-command", "x"}}) {
    const ClientResult result =
        RunClient(Joined({"create", Path("volume"), Path("a.twf")}, options));
    EXPECT_EQ(result.exitStatus, 2) << options[0] << " " << options[1];
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "right", "wrong"}));
}

}  // namespace
}  // namespace kqtest
