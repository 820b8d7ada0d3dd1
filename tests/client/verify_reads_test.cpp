// How often a verification reads what it looks at.

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/client/client_fixture.h"

namespace kqtest {
namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

// Runs the program and gives the bytes that it has read from files, its libraries included.
std::uint64_t BytesRead(const std::vector<std::string>& arguments, int expectedStatus) {
  std::vector<char*> argv = {const_cast<char*>(KQIMAGE_PROGRAM)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    BeginOwnSession();
    execv(argv[0], argv.data());
    _exit(121);
  }
  siginfo_t ended = {};
  while (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  EXPECT_EQ(ended.si_status, expectedStatus);
  std::ifstream counts("/proc/" + std::to_string(pid) + "/io");
  std::string name;
  std::uint64_t bytes = 0;
  counts >> name >> bytes;
  EXPECT_EQ(name, "rchar:");
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
  return bytes;
}

class VerifyReadsTest : public ClientTest,
                        public testing::WithParamInterface<std::vector<std::string>> {
 protected:
  void SetUp() override {
    Put("volume", MakeVolume(24 * kMebibyte, 1));
    PutText("key", "secret\n");
    Create(Path("volume"), Path("a.twf"), Joined(GetParam(), Password()));
  }

  std::vector<std::string> Password() const {
    for (const std::string& option : GetParam()) {
      if (option == "--encrypt") return {"--password-file", Path("key")};
    }
    return {};
  }
  std::vector<std::string> Verify() const {
    return Joined({"verify", "--quiet", Path("a.twf")}, Password());
  }
};

// Chunks and sum, whatever is in the page cache: an image may be larger than memory.
TEST_P(VerifyReadsTest, AnImageWithASumIsReadOnce) {
  const std::uintmax_t size = std::filesystem::file_size(Path("a.twf"));
  ASSERT_GT(size, 8 * kMebibyte);
  const std::uint64_t read = BytesRead(Verify(), 0);
  EXPECT_GE(read, size);
  EXPECT_LT(read, size + kMebibyte);
}

// No byte is left out: of the header, of heads and bodies, between and behind chunks.
TEST_P(VerifyReadsTest, AFlippedByteAnywhereIsFound) {
  const Volume image = ReadFile(Path("a.twf"));
  for (const std::size_t at :
       {std::size_t{300}, std::size_t{600}, std::size_t{2000}, image.size() / 2,
        image.size() / 3 * 2, image.size() - 600, image.size() - 1}) {
    SCOPED_TRACE(at);
    Volume changed = image;
    changed[at] ^= 0x20;
    WriteFile(Path("a.twf"), changed);
    const ClientResult result = RunClient(Verify());
    EXPECT_NE(result.exitStatus, 0) << result.out;
    if (result.exitStatus == 3) {
      EXPECT_NE(result.out.find("its bytes are not those that its .sha256 file was made of"),
                std::string::npos)
          << result.out;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    , VerifyReadsTest,
    testing::Values(std::vector<std::string>{"--compress", "lzo"},
                    std::vector<std::string>{"--compress", "none"},
                    std::vector<std::string>{"--compress", "lzo", "--encrypt", "aes256"},
                    std::vector<std::string>{"--compress", "none", "--encrypt", "aes256"}),
    [](const auto& tested) {
      return tested.param[1] + (tested.param.size() > 2 ? "_aes256" : "");
    });

}  // namespace
}  // namespace kqtest
