// Usage, info, and what is shown to a terminal.

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;

class CommandLineTest : public ClientTest {
 protected:
  void SetUp() override { Put("volume", MakeNoise(70000, 1)); }
};

TEST_F(CommandLineTest, MistakesAreUsageErrors) {
  Create(Path("volume"), Path("a.twf"));
  const std::string volume = Path("volume");
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {},
           {"compare"},
           {"create"},
           {"create", volume},
           {"create", volume, Path("b.twf"), "extra"},
           {"create", volume, Path("b.twf"), "--no-such-option"},
           {"create", volume, Path("b.img")},
           {"create", volume, Path("b.twi")},
           {"create", volume, Path("b.twf"), "--compress", "gzip"},
           {"create", volume, Path("b.twf"), "--compress", "5"},
           {"create", volume, Path("b.twf"), "--sector-size", "256"},
           {"create", volume, Path("b.twf"), "--sector-size", "8192"},
           {"create", volume, Path("b.twf"), "--comment", std::string(100, 'c')},
           {"create", volume, Path("b.twf"), "--comment", "\xff"},
           {"increment", volume},
           {"increment", volume, Path("a.twf"), Path("b.twf")},
           {"restore", Path("a.twf")},
           {"restore", "--to", Path("new")},
           {"info"},
           {"info", Path("a.twf"), Path("a.twf")}}) {
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, 2) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("kqimage: ")) << result.err;
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

TEST_F(CommandLineTest, HelpAndVersionGoToStandardOutput) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"--help"},
                                             {"create", "--help"},
                                             {"increment", "--help"},
                                             {"restore", "--help"},
                                             {"info", "--help"}}) {
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("Examples:\n  kqimage " +
                              (arguments.size() == 2 ? arguments[0] : "create")),
              std::string::npos)
        << result.out;
  }
  const ClientResult version = RunClient({"--version"});
  EXPECT_EQ(version.exitStatus, 0);
  EXPECT_TRUE(version.out.starts_with("kqimage 6.")) << version.out;
}

TEST_F(CommandLineTest, NamesInMessagesCantSteerTheTerminal) {
  const ClientResult result = RunClient({"info", Path("\x1b[2J\n.twf")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("\\x1b[2J\\x0a.twf"), std::string::npos) << result.err;
}

TEST_F(CommandLineTest, InfoTellsTheHeader) {
  const ClientResult created = RunClient({"create", Path("volume"), Path("a.twf"), "--comment",
                                          "vor dem Umzug \u2014 gr\u00fcn", "--compress", "none"},
                                         {.timeZone = "KQT-2"});  // two hours east of UTC
  ASSERT_EQ(created.exitStatus, 0) << created.err;
  const ClientResult result = RunClient({"info", Path("a.twf")});
  EXPECT_EQ(result.exitStatus, 0);
  for (const char* line :
       {"Kind              full image\n", "Volume size       68.4 KiB (70000 bytes)\n",
        "Sector size       512 bytes\n", "Compression       none\n", "Encryption        none\n",
        "Part              1 (the last)\n", "Parent image      none\n",
        "Comment           vor dem Umzug \u2014 gr\u00fcn\n", "Header checksum   good\n",
        "Extra checksum    none needed\n", "+02:00\n"}) {
    EXPECT_NE(result.out.find(line), std::string::npos) << line << result.out;
  }
}

TEST_F(CommandLineTest, InfoAsJsonHasTheWholeHeader) {
  Create(Path("volume"), Path("a.twf"), {"--comment", "one \"two\""});
  Volume changed = MakeNoise(70000, 1);
  changed[0] ^= 1;
  Put("volume", changed);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  const ClientResult base = RunClient({"info", "--json", Path("a.twf")});
  const ClientResult child = RunClient({"info", Path("b.twi"), "--json"});
  ASSERT_EQ(base.exitStatus, 0);
  ASSERT_EQ(child.exitStatus, 0);
  const nlohmann::json a = nlohmann::json::parse(base.out);
  const nlohmann::json b = nlohmann::json::parse(child.out);
  EXPECT_EQ(a["file"], Path("a.twf"));
  EXPECT_EQ(a["fileSize"], std::filesystem::file_size(Path("a.twf")));
  EXPECT_EQ(a["kind"], "full");
  EXPECT_EQ(a["volumeSize"], 70000);
  EXPECT_EQ(a["compression"]["name"], "lzo");
  EXPECT_EQ(a["compression"]["type"], 5);
  EXPECT_EQ(a["parentImageId"], nullptr);
  EXPECT_EQ(a["comment"], "one \"two\"");
  EXPECT_EQ(a["isLastPart"], true);
  EXPECT_EQ(b["kind"], "incremental");
  EXPECT_EQ(b["parentImageId"], a["imageId"]);
  EXPECT_EQ(b["imageSetId"], a["imageSetId"]);
  EXPECT_EQ(b["comment"], "");
  ImageHeader header = {};
  const Volume bytes = ReadFile(Path("a.twf"));
  std::memcpy(&header, bytes.data(), sizeof header);
  EXPECT_EQ(a["creationTime"], std::uint64_t{header.CreationTime});
}

TEST_F(CommandLineTest, InfoFailsOnWhatIsNoImage) {
  Put("text.twf", {'t', 'e', 'x', 't'});
  for (const std::string& file :
       {Path("text.twf"), Path("volume"), Path("missing.twf"), Path("")}) {
    const ClientResult result = RunClient({"info", file});
    EXPECT_EQ(result.exitStatus, 1) << file;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("cannot read the image " + file + ": "), std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("(status -"), std::string::npos) << result.err;
  }
}

TEST_F(CommandLineTest, AResultThatCantBePrintedIsAFailure) {
  Create(Path("volume"), Path("a.twf"));
  const std::string command =
      "\"" KQIMAGE_PROGRAM "\" info '" + Path("a.twf") + "' >/dev/full 2>/dev/null";
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
}

TEST_F(CommandLineTest, ATerminalSeesTheProgressAndAQuietRunShowsNone) {
  const ClientResult shown = RunClientOnTerminal({"create", Path("volume"), Path("a.twf")});
  EXPECT_EQ(shown.exitStatus, 0);
  EXPECT_TRUE(shown.err.starts_with("\rImaging   0%  0 bytes of 68.4 KiB")) << shown.err;
  EXPECT_TRUE(shown.err.ends_with("\r\x1b[K")) << "the line is cleared at the end";
  EXPECT_TRUE(shown.out.starts_with(Path("a.twf") + ": full image of ")) << shown.out;
  const ClientResult quiet =
      RunClientOnTerminal({"restore", "-q", Path("a.twf"), "--to", Path("r")});
  EXPECT_EQ(quiet.exitStatus, 0);
  EXPECT_EQ(quiet.err + quiet.out, "");
}

}  // namespace
}  // namespace kqtest
