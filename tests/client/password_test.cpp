// Where a password comes from: files, commands and the terminal.

#include <csignal>
#include <filesystem>

#include "tests/client/client_fixture.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;
using Arguments = std::vector<std::string>;

class PasswordTest : public ClientTest {
 protected:
  void SetUp() override {
    Put("volume", volume_);
    PutText("key", "secret");
    Create(Path("volume"), Path("a.twf"), {"--encrypt", "aes256", "--password-file", Path("key")});
  }

  Arguments RestoreCommand(const Arguments& options) const {
    return Joined({"restore", Path("a.twf"), "--to", Path("restored")}, options);
  }
  void ExpectOpens(const Arguments& options) const {
    EXPECT_TRUE(Restore({Path("a.twf")}, options) == volume_) << options.back();
  }
  void ExpectFails(const Arguments& options, const std::string& message, int exitStatus = 1) const {
    const ClientResult result = RunClient(RestoreCommand(options));
    EXPECT_EQ(result.exitStatus, exitStatus) << options.back();
    EXPECT_EQ(result.err, "kqimage: " + message + "\n");
    EXPECT_FALSE(std::filesystem::exists(Path("restored")));
  }

  const Volume volume_ = MakeNoise(5000, 1);
};

TEST_F(PasswordTest, AFileGivesItsFirstLineWithoutItsEnd) {
  for (const char* content : {"secret", "secret\n", "secret\r\n", "secret\nsecond line\n"}) {
    PutText("other", content);
    ExpectOpens({"--password-file", Path("other")});
  }
  for (const char* content :
       {"secret ", " secret", "secret\r", "\tsecret\n", "\xEF\xBB\xBFsecret"}) {
    PutText("other", content);
    ExpectFails({"--password-file", Path("other")},
                "the password is wrong: it does not open " + Path("a.twf"));
  }
}

TEST_F(PasswordTest, AFileWithoutAUsablePasswordIsNamed) {
  const Arguments option = {"--password-file", Path("other")};
  const std::string origin = "the password in " + Path("other");
  for (const char* content : {"", "\n", "\r\n", "\nsecret\n"}) {
    PutText("other", content);
    ExpectFails(option, origin + " is empty; an image needs one that is not");
  }
  for (const char* content : {"secr\xe9t\n", "\xff", "\xed\xa0\x80", "secret\xc3"}) {
    PutText("other", content);
    ExpectFails(option, origin + " is not valid UTF-8");
  }
  PutText("other", std::string("sec\0ret\n", 8));
  ExpectFails(option, origin + " holds a NUL byte, which no password can");
  PutText("other", std::string(4096, 'x'));
  ExpectFails(option, origin + " is longer than 4095 bytes");
  std::filesystem::remove(Path("other"));
  ExpectFails(option,
              "cannot open the password file " + Path("other") + ": No such file or directory");
}

TEST_F(PasswordTest, TheLongestPasswordOpensWhatItHasMade) {
  PutText("long", std::string(4095, 'x') + "\r\n");
  const Arguments option = {"--password-file", Path("long")};
  Create(Path("volume"), Path("b.twf"), Joined({"--encrypt", "aes128"}, option));
  EXPECT_TRUE(Restore({Path("b.twf")}, option) == volume_);
}

TEST_F(PasswordTest, StandardInputGivesItToo) {
  PutText("other", "secret\n");
  const ClientResult result =
      RunClient(RestoreCommand({"--password-file", "-"}), {.standardInput = Path("other")});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(ReadFile(Path("restored")), volume_);
  const ClientResult shared = RunClient(
      {"create", "/dev/stdin", Path("b.twf"), "--encrypt", "aes256", "--password-file", "-"},
      {.standardInput = Path("volume")});
  EXPECT_EQ(shared.exitStatus, 2);
  EXPECT_NE(shared.err.find("can't give the password as well"), std::string::npos) << shared.err;
}

TEST_F(PasswordTest, ACommandGivesTheFirstLineThatItPrints) {
  for (const char* command : {"echo secret", "printf secret", "printf 'secret\\r\\nuser: me\\n'",
                              "cat; echo secret", "cd / && printf 'sec' && printf 'ret\\n'"}) {
    ExpectOpens({"--password-command", command});
  }
}

TEST_F(PasswordTest, ACommandThatFailsGivesNone) {
  const auto expect = [&](const char* command, const char* message) {
    ExpectFails({"--password-command", command}, message);
  };
  expect("echo secret; exit 3", "the password command failed with exit status 3");
  expect("echo secret; kill -KILL $$", "the password command was ended by signal 9 (Killed)");
  expect("/no/such/program 2>/dev/null", "the password command failed with exit status 127");
  expect("true",
         "the password that --password-command gave is empty; an image needs one that is not");
  expect("echo 'wrong one'", ("the password is wrong: it does not open " + Path("a.twf")).c_str());
  expect("echo secret; yes",
         "the password command prints more than a password: its output has no end in sight");
}

TEST_F(PasswordTest, WithoutATerminalNobodyIsAsked) {
  const std::string message =
      Path("a.twf") +
      " needs a password, and there is no terminal to ask for it: give --password-file or "
      "--password-command";
  ExpectFails({}, message);
  const ClientResult result =
      RunClient({"create", Path("volume"), Path("b.twf"), "--encrypt", "aes256"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("no terminal"), std::string::npos) << result.err;
  EXPECT_FALSE(std::filesystem::exists(Path("b.twf")));
}

TEST_F(PasswordTest, APlainImageAsksForNone) {
  Create(Path("volume"), Path("b.twf"));
  EXPECT_TRUE(Restore({Path("b.twf")}) == volume_);
}

class PromptTest : public PasswordTest {
 protected:
  Arguments CreateCommand() const {
    return {"create", "-q", Path("volume"), Path("new.twf"), "--encrypt", "aes256"};
  }
  std::string First() const { return "Password for the new image " + Path("new.twf") + ": "; }

  // The terminal is as before, and shows no password.
  static void ExpectClean(const PromptResult& result) {
    EXPECT_TRUE(result.isEchoOffAtPrompts);
    EXPECT_TRUE(result.isEchoOnAtTheEnd);
    EXPECT_EQ(result.client.err.find("secret"), std::string::npos) << result.client.err;
  }
  void ExpectNothingMade() const { EXPECT_EQ(Names(), (NameSet{"volume", "key", "a.twf"})); }
};

TEST_F(PromptTest, CreateAsksTwiceAndRestoreOnce) {
  const PromptResult created = RunClientAtPrompts(
      CreateCommand(), {{First(), "secret\n"}, {"The same again: ", "secret\n"}});
  EXPECT_EQ(created.client.exitStatus, 0);
  ExpectClean(created);
  EXPECT_EQ(created.client.err, First() + "\r\nThe same again: \r\n");
  EXPECT_TRUE(Restore({Path("new.twf")}, {"--password-file", Path("key")}) == volume_);

  const PromptResult restored = RunClientAtPrompts(
      RestoreCommand({"-q"}), {{"Password for " + Path("a.twf") + ": ", "secret\n"}});
  EXPECT_EQ(restored.client.exitStatus, 0);
  ExpectClean(restored);
  EXPECT_EQ(ReadFile(Path("restored")), volume_);
}

TEST_F(PromptTest, AnIncrementAsksOnceForTheParentsPassword) {
  Volume changed = volume_;
  changed[0] ^= 1;
  Put("volume", changed);
  const PromptResult made =
      RunClientAtPrompts({"increment", "-q", Path("volume"), Path("a.twf")},
                         {{"Password for " + Path("a.twf") + ": ", "secret\n"}});
  EXPECT_EQ(made.client.exitStatus, 0) << made.client.err;
  ExpectClean(made);
  EXPECT_TRUE(Restore({Path("a-i001.twi")}, {"--password-file", Path("key")}) == changed);
}

TEST_F(PromptTest, ASlipIsNoticed) {
  const PromptResult differ = RunClientAtPrompts(
      CreateCommand(), {{First(), "secret\n"}, {"The same again: ", "secret2\n"}});
  EXPECT_EQ(differ.client.exitStatus, 1);
  ExpectClean(differ);
  EXPECT_NE(differ.client.err.find("kqimage: the two passwords differ"), std::string::npos);
  for (const char* nothing : {"\n", "\x04"}) {
    const PromptResult empty = RunClientAtPrompts(CreateCommand(), {{First(), nothing}});
    EXPECT_EQ(empty.client.exitStatus, 1);
    ExpectClean(empty);
    EXPECT_NE(empty.client.err.find("kqimage: the password is empty"), std::string::npos);
  }
  const PromptResult wrong = RunClientAtPrompts(
      RestoreCommand({}), {{"Password for " + Path("a.twf") + ": ", "secret!\n"}});
  EXPECT_EQ(wrong.client.exitStatus, 1);
  ExpectClean(wrong);
  EXPECT_NE(wrong.client.err.find("kqimage: the password is wrong"), std::string::npos);
  ExpectNothingMade();
}

TEST_F(PromptTest, AnInterruptPutsTheTerminalRight) {
  // The key at the first question and at the second, and signals from elsewhere.
  const PromptResult atFirst = RunClientAtPrompts(CreateCommand(), {{First(), "sec\x03"}});
  const PromptResult atSecond =
      RunClientAtPrompts(CreateCommand(), {{First(), "secret\n"}, {"The same again: ", "sec\x03"}});
  const PromptResult terminated =
      RunClientAtPrompts(CreateCommand(), {{First(), ""}}, {.signalAtTheLastPrompt = SIGTERM});
  const PromptResult hungUp =
      RunClientAtPrompts(CreateCommand(), {{First(), "secret\n"}, {"The same again: ", ""}},
                         {.signalAtTheLastPrompt = SIGHUP});
  for (const PromptResult* result : {&atFirst, &atSecond, &terminated, &hungUp}) {
    EXPECT_EQ(result->client.exitStatus, 1);
    ExpectClean(*result);
    EXPECT_TRUE(result->client.err.ends_with(
        "\r\nkqimage: interrupted; what was unfinished has been removed\r\n"))
        << result->client.err;
  }
  ExpectNothingMade();
}

// They would end or stop the process with the terminal left dumb.
TEST_F(PromptTest, KeysThatQuitOrStopHaveNoEffect) {
  const PromptResult result = RunClientAtPrompts(
      CreateCommand(), {{First(), "\x1c\x1asecret\n"}, {"The same again: ", "\x1c\x1asecret\n"}});
  EXPECT_EQ(result.client.exitStatus, 0) << result.client.err;
  ExpectClean(result);
}

TEST_F(PromptTest, StandardInputOnATerminalIsNotReadWithItsEcho) {
  const PromptResult result = RunClientAtPrompts(RestoreCommand({"--password-file", "-"}), {},
                                                 {.standardInputIsTerminal = true});
  EXPECT_EQ(result.client.exitStatus, 2);
  EXPECT_NE(result.client.err.find("standard input is a terminal"), std::string::npos);
}

}  // namespace
}  // namespace kqtest
