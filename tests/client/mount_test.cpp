// Mounts: what the file shows, what is written to it, and what becomes of that.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "tests/client/mount_fixture.h"
#include "tests/support/image_builder.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;
using Arguments = std::vector<std::string>;

const NameSet kBefore = {"volume", "a.twf", "m"};
const NameSet kWithImage = {"volume", "a.twf", "m", "a-m001.twi"};
const NameSet kWithSparse = {"volume", "a.twf", "m", "a-m001.sparse"};

std::string Text(const Volume& bytes) { return {bytes.begin(), bytes.end()}; }

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(MountTest, AReadOnlyMountIsTheVolumeAndRefusesWrites) {
  RunningClient client(MountArguments("a.twf"));
  ExpectMounted(client);
  NameSet shown;
  for (const auto& entry : std::filesystem::directory_iterator(Path("m"))) {
    shown.insert(entry.path().filename().string());
  }
  EXPECT_EQ(shown, NameSet{"volume"});
  EXPECT_EQ(std::filesystem::file_size(VolumePath()), volume_.size());
  EXPECT_EQ(Mounted(), volume_);
  EXPECT_LT(open(VolumePath().c_str(), O_RDWR | O_CLOEXEC), 0);
  EXPECT_EQ(errno, EROFS);
  EXPECT_LT(open(Path("m/other").c_str(), O_RDONLY | O_CLOEXEC), 0);
  EXPECT_EQ(errno, ENOENT);
  Unmount();
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Names(), kBefore);
}

TEST_F(MountTest, ManyReadersAtOnceReadTheirOwnBytes) {
  RunningClient client(MountArguments("a.twf"));
  ExpectMounted(client);
  std::atomic<int> wrong = 0;
  std::vector<std::thread> readers;
  for (unsigned seed = 0; seed < 6; ++seed) {
    readers.emplace_back([&, seed] {
      // Without the system's cache, so that every read comes to the program.
      const int file = open(VolumePath().c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
      void* memory = nullptr;
      if (file < 0 || posix_memalign(&memory, 4096, 65536) != 0) {
        ++wrong;
        return;
      }
      std::minstd_rand random(seed + 1);
      for (int i = 0; i < 100; ++i) {
        const std::size_t offset = random() % (volume_.size() / 4096) * 4096;
        const std::size_t length = std::min<std::size_t>(volume_.size() - offset, 65536);
        const ssize_t got = pread(file, memory, 65536, static_cast<off_t>(offset));
        if (got != static_cast<ssize_t>(length) ||
            std::memcmp(memory, volume_.data() + offset, length) != 0) {
          ++wrong;
        }
      }
      std::free(memory);
      close(file);
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
}

TEST_F(MountTest, ChangesBecomeAnIncrementAtTheUnmount) {
  const Volume image = ReadFile(Path("a.twf"));
  RunningClient client(MountArguments("a.twf", {"--writable", "--comment", "mended"}));
  ExpectMounted(client);
  WriteHereAndThere(1);
  WriteHereAndThere(2);
  EXPECT_EQ(Mounted(), volume_);
  EXPECT_EQ(Names(), kWithSparse);
  Unmount();
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, Path("a-m001.twi") + ": increment of " + Path("a.twf")))
      << result.out;
  EXPECT_EQ(Names(), kWithImage);
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
  EXPECT_TRUE(HasTrueSum("a-m001.twi"));
  EXPECT_EQ(ReadFile(Path("a.twf")), image);
  EXPECT_LT(std::filesystem::file_size(Path("a-m001.twi")), 500'000u) << "more than what changed";
  const auto info = nlohmann::json::parse(RunClient({"info", "--json", Path("a-m001.twi")}).out);
  EXPECT_EQ(info["comment"], "mended");
}

TEST_F(MountTest, TheIncrementHasNoSumIfNoneIsWanted) {
  RunningClient client(MountArguments("a.twf", {"--writable", "--no-sha256"}));
  ExpectMounted(client);
  WriteHereAndThere(1);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Names(), kWithImage);
  EXPECT_FALSE(std::filesystem::exists(Path("a-m001.twi.sha256")));
}

TEST_F(MountTest, ChangesOfAnIncrementGoOnItsChain) {
  volume_[100] ^= 1;
  Put("volume", volume_);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  RunningClient client(
      {"mount", "--foreground", "--writable", Path("b.twi"), Path("a.twf"), Path("m")});
  ExpectMounted(client);
  EXPECT_EQ(Mounted(), volume_);
  WriteHereAndThere(3);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Restore({Path("b-m001.twi")}), volume_);
}

TEST_F(MountTest, LargeSectorsAreWrittenWhole) {
  Create(Path("volume"), Path("a.twf"), {"--sector-size", "4096", "--force"});
  RunningClient client(MountArguments("a.twf", {"--writable"}));
  ExpectMounted(client);
  WriteHereAndThere(4);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

TEST_F(MountTest, KeptChangesCanBeMountedAgain) {
  {
    RunningClient client(MountArguments("a.twf", {"--writable", "--on-unmount", "keep"}));
    ExpectMounted(client);
    WriteHereAndThere(1);
    Unmount();
    const ClientResult result = client.Finish();
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "the changes are kept in " + Path("a-m001.sparse")));
  }
  EXPECT_EQ(Names(), kWithSparse);

  // The name is taken, and what has it must not be mixed up with a new mount.
  const ClientResult taken = RunClient(MountArguments("a.twf", {"--writable"}));
  EXPECT_EQ(taken.exitStatus, 1);
  EXPECT_TRUE(Contains(taken.err, "holds what was written to an earlier mount")) << taken.err;
  EXPECT_EQ(Names(), kWithSparse);

  RunningClient client(MountArguments("a.twf", {"--writable", "--sparse", Path("a-m001.sparse")}));
  ExpectMounted(client);
  EXPECT_EQ(Mounted(), volume_);
  WriteHereAndThere(7);
  EXPECT_EQ(Mounted(), volume_);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Names(), kWithImage);
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

TEST_F(MountTest, DiscardedChangesLeaveNothing) {
  RunningClient client(MountArguments("a.twf", {"--writable", "--on-unmount", "discard"}));
  ExpectMounted(client);
  WriteHereAndThere(1);
  Unmount();
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, "the changes are discarded"));
  EXPECT_EQ(Names(), kBefore);
}

TEST_F(MountTest, WithoutChangesThereIsNoImage) {
  RunningClient client(MountArguments("a.twf", {"--writable"}));
  ExpectMounted(client);
  Unmount();
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, "nothing was written: no image made"));
  EXPECT_EQ(Names(), kBefore);
}

TEST_F(MountTest, TheVolumeKeepsItsSize) {
  RunningClient client(MountArguments("a.twf", {"--writable", "--on-unmount", "discard"}));
  ExpectMounted(client);
  EXPECT_NE(truncate(VolumePath().c_str(), 100), 0);
  EXPECT_EQ(errno, EPERM);
  const int file = open(VolumePath().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_LT(write(file, "x", 1), 0);
  EXPECT_EQ(errno, ENOSPC);
  close(file);
  EXPECT_EQ(Mounted(), volume_);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
}

class MountSignalTest : public MountTest, public testing::WithParamInterface<int> {};

TEST_P(MountSignalTest, UnmountsAndMakesTheIncrement) {
  RunningClient client(MountArguments("a.twf", {"--writable"}));
  ExpectMounted(client);
  WriteHereAndThere(1);
  client.Signal(GetParam());
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(Names(), kWithImage);
  EXPECT_FALSE(std::filesystem::exists(VolumePath()));
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

INSTANTIATE_TEST_SUITE_P(, MountSignalTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& tested) {
                           return tested.param == SIGINT    ? "SIGINT"
                                  : tested.param == SIGTERM ? "SIGTERM"
                                                            : "SIGHUP";
                         });

TEST_F(MountTest, ASignalWaitsForProgramsThatHaveTheVolumeOpen) {
  RunningClient client(MountArguments("a.twf", {"--writable"}));
  ExpectMounted(client);
  const int file = open(VolumePath().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  client.Signal(SIGTERM);
  ASSERT_TRUE(client.WaitForErrorLine());
  EXPECT_FALSE(std::filesystem::exists(VolumePath()));
  volume_[70000] ^= 0xFF;
  EXPECT_EQ(pwrite(file, &volume_[70000], 1, 70000), 1);
  close(file);
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_TRUE(Contains(result.err, "still has the volume open")) << result.err;
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

TEST_F(MountTest, ASecondSignalEndsTheMountAtOnce) {
  RunningClient client(MountArguments("a.twf", {"--writable"}));
  ExpectMounted(client);
  WriteHereAndThere(1);
  const int file = open(VolumePath().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  client.Signal(SIGTERM);
  ASSERT_TRUE(client.WaitForErrorLine());
  client.Signal(SIGTERM);
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_LT(pwrite(file, "x", 1, 0), 0) << "what can't be kept must not seem written";
  close(file);
  EXPECT_EQ(Names(), kWithImage);
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

TEST_F(MountTest, AKilledMountLeavesNoImageAndASparseFileThatIsRefused) {
  {
    RunningClient client(MountArguments("a.twf", {"--writable"}));
    ExpectMounted(client);
    WriteHereAndThere(1);
    client.Signal(SIGKILL);
    EXPECT_EQ(client.Finish().exitStatus, -1);
  }
  ASSERT_EQ(std::system(("fusermount3 -u -z " + Path("m")).c_str()), 0);
  EXPECT_EQ(Names(), kWithSparse);
  for (const Arguments& arguments :
       {MountArguments("a.twf", {"--writable", "--sparse", Path("a-m001.sparse")}),
        Arguments{"commit", Path("a-m001.sparse"), "--parent", Path("a.twf")}}) {
    const ClientResult result = RunClient(arguments);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_TRUE(Contains(result.err, "left by a mount that was cut short")) << result.err;
  }
  EXPECT_EQ(Names(), kWithSparse);
}

TEST_F(MountTest, ChangesThatCannotBecomeAnImageAreKept) {
  RunningClient client(MountArguments("a.twf", {"--writable"}));
  ExpectMounted(client);
  WriteHereAndThere(1);
  std::filesystem::rename(Path("a.twf"), Path("away"));
  Unmount();
  const ClientResult result = client.Finish();
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_TRUE(Contains(result.err, "the changes are kept in " + Path("a-m001.sparse")))
      << result.err;
  std::filesystem::rename(Path("away"), Path("a.twf"));
  EXPECT_EQ(Names(), kWithSparse);
  EXPECT_EQ(RunClient({"commit", Path("a-m001.sparse"), "--parent", Path("a.twf")}).exitStatus, 0);
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

// A child that goes on in the background becomes this process's when its parent has ended.
int ExitStatusOfBackground() {
  int status = -1;
  while (waitpid(-1, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(MountTest, InTheBackgroundTheLogTellsWhatBecameOfTheChanges) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const ClientResult result =
      RunClient({"mount", "--writable", "a.twf", "m"}, {.workFolder = folder_.Path()});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, Path("a-m001.sparse.log"))) << result.out;
  WriteHereAndThere(1);
  Unmount();
  EXPECT_EQ(ExitStatusOfBackground(), 0);
  const std::string log = Text(ReadFile(Path("a-m001.sparse.log")));
  EXPECT_TRUE(Contains(log, Path("a-m001.twi") + ": increment of " + Path("a.twf"))) << log;
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
}

TEST_F(MountTest, AReadOnlyMountInTheBackgroundLeavesNoFile) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  ASSERT_EQ(RunClient({"mount", Path("a.twf"), Path("m")}).exitStatus, 0);
  EXPECT_EQ(Mounted(), volume_);
  Unmount();
  EXPECT_EQ(ExitStatusOfBackground(), 0);
  EXPECT_EQ(Names(), kBefore);
}

TEST_F(MountTest, AnEncipheredChainNeedsItsPassword) {
  PutText("key", "open sesame");
  PutText("wrong", "guess");
  const Arguments key = {"--password-file", Path("key")};
  Create(Path("volume"), Path("s.twf"), Joined({"--encrypt", "aes256"}, key));
  const NameSet before = Names();
  const ClientResult wrong =
      RunClient(MountArguments("s.twf", {"--writable", "--password-file", Path("wrong")}));
  EXPECT_EQ(wrong.exitStatus, 1);
  EXPECT_TRUE(Contains(wrong.err, "the password is wrong")) << wrong.err;
  EXPECT_EQ(Names(), before);

  RunningClient client(MountArguments("s.twf", Joined({"--writable"}, key)));
  ExpectMounted(client);
  EXPECT_EQ(Mounted(), volume_);
  WriteHereAndThere(1);
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Restore({Path("s-m001.twi")}, key), volume_);
  const auto info = nlohmann::json::parse(RunClient({"info", "--json", Path("s-m001.twi")}).out);
  EXPECT_EQ(info["encryption"]["name"], "aes256");
}

TEST_F(MountTest, ASplitImageIsContinued) {
  volume_ = MakeNoise(64 * 512, 1);
  const auto half = volume_.begin() + 32 * 512;
  ImageSpec first;
  first.header.sourceSize = volume_.size();
  first.chunks = {RawChunk({{0, 32}}, Bytes(volume_.begin(), half))};
  first.index.lastPart = 0;
  ImageSpec second = first;
  second.header = NextPartOf(first.header);
  second.chunks = {RawChunk({{32 * 512, 32}}, Bytes(half, volume_.end()))};
  second.index.lastPart = 1;
  WriteFile(Path("split.twf"), BuildImage(first));
  WriteFile(Path("split.TW1"), BuildImage(second));
  RunningClient client(MountArguments("split.twf", {"--writable"}));
  ExpectMounted(client);
  EXPECT_EQ(Mounted(), volume_);
  WriteAt(1000, MakeNoise(3, 2));
  WriteAt(40 * 512, MakeNoise(5000, 3));
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Restore({Path("split-m001.twi")}), volume_);
}

TEST_F(MountTest, WrongUsageMountsNothing) {
  struct Case {
    Arguments arguments;
    int exitStatus;
  };
  for (const Case& wrong :
       {Case{{"mount", Path("a.twf")}, 2},
        Case{{"mount", "--on-unmount", "keep", Path("a.twf"), Path("m")}, 2},
        Case{{"mount", "--writable", "--on-unmount", "burn", Path("a.twf"), Path("m")}, 2},
        Case{{"mount", "--sparse", Path("x"), Path("a.twf"), Path("m")}, 2},
        Case{{"mount", "--writable", Path("a.twf"), Path("missing")}, 1},
        Case{{"mount", "--writable", Path("a.twf"), Path("volume")}, 1},
        Case{{"mount", "--writable", "--sparse", Path("volume"), Path("a.twf"), Path("m")}, 1}}) {
    const ClientResult result = RunClient(wrong.arguments);
    EXPECT_EQ(result.exitStatus, wrong.exitStatus) << result.err;
    EXPECT_TRUE(result.err.starts_with("kqimage: ")) << result.err;
    EXPECT_EQ(Names(), kBefore);
  }
  EXPECT_EQ(ReadFile(Path("volume")), volume_);
}

class CommitTest : public MountTest {
 protected:
  // a-m001.sparse holds changes of a.twf.
  void SetUp() override {
    MountTest::SetUp();
    RunningClient client(MountArguments("a.twf", {"--writable", "--on-unmount", "keep"}));
    ExpectMounted(client);
    WriteHereAndThere(1);
    Unmount();
    ASSERT_EQ(client.Finish().exitStatus, 0);
  }
};

TEST_F(CommitTest, MakesTheIncrementAndLeavesTheSparseFile) {
  const Volume sparse = ReadFile(Path("a-m001.sparse"));
  const ClientResult result = RunClient(
      {"commit", Path("a-m001.sparse"), "--parent", Path("a.twf"), "--comment", "repaired"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(Restore({Path("a-m001.twi")}), volume_);
  EXPECT_TRUE(HasTrueSum("a-m001.twi"));
  EXPECT_EQ(ReadFile(Path("a-m001.sparse")), sparse);
  const auto info = nlohmann::json::parse(RunClient({"info", "--json", Path("a-m001.twi")}).out);
  EXPECT_EQ(info["comment"], "repaired");
}

TEST_F(CommitTest, ANamedImageIsNeverReplacedUnasked) {
  const Arguments commit = {"commit", Path("a-m001.sparse"), "--parent", Path("a.twf"),
                            Path("out.twi")};
  Put("out.twi", {'x'});
  EXPECT_EQ(RunClient(commit).exitStatus, 1);
  EXPECT_EQ(ReadFile(Path("out.twi")), Volume{'x'});
  EXPECT_EQ(RunClient(Joined(commit, {"--force"})).exitStatus, 0);
  EXPECT_EQ(Restore({Path("out.twi")}), volume_);
  EXPECT_EQ(RunClient({"commit", Path("a-m001.sparse"), "--parent", Path("a.twf"), Path("x.twf")})
                .exitStatus,
            2);
}

TEST_F(CommitTest, TheSumOfAnotherFileIsNeverReplacedUnasked) {
  const Arguments commit = {"commit", Path("a-m001.sparse"), "--parent", Path("a.twf"),
                            Path("out.twi")};
  Put("out.twi.sha256", {'x'});
  const ClientResult refused = RunClient(commit);
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_TRUE(Contains(refused.err, "out.twi.sha256 exists already")) << refused.err;
  EXPECT_FALSE(std::filesystem::exists(Path("out.twi")));
  EXPECT_EQ(RunClient(Joined(commit, {"--no-sha256"})).exitStatus, 0);
  EXPECT_EQ(ReadFile(Path("out.twi.sha256")), Volume{'x'});
  EXPECT_EQ(RunClient(Joined(commit, {"--force"})).exitStatus, 0);
  EXPECT_TRUE(HasTrueSum("out.twi"));
}

TEST_F(CommitTest, AnImageOfAnotherSizeIsNotTakenForTheParent) {
  Put("small", MakeNoise(5000, 2));
  Create(Path("small"), Path("small.twf"));
  const NameSet before = Names();
  const ClientResult result =
      RunClient({"commit", Path("a-m001.sparse"), "--parent", Path("small.twf")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_TRUE(Contains(result.err, "belongs to another image")) << result.err;
  EXPECT_EQ(Names(), before);
}

TEST_F(CommitTest, ADamagedSparseFileMakesNoImage) {
  Volume sparse = ReadFile(Path("a-m001.sparse"));
  // The root node of a small file stands at 8192; its count of extents is at 8160 in it.
  ASSERT_GT(sparse[8192 + 8160], 1);
  --sparse[8192 + 8160];
  Put("a-m001.sparse", sparse);
  const ClientResult result =
      RunClient({"commit", Path("a-m001.sparse"), "--parent", Path("a.twf")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_TRUE(Contains(result.err, "it is damaged")) << result.err;
  EXPECT_EQ(Names(), kWithSparse);
}

TEST_F(CommitTest, AMountedSparseFileIsRefused) {
  RunningClient client(MountArguments(
      "a.twf", {"--writable", "--on-unmount", "keep", "--sparse", Path("a-m001.sparse")}));
  ExpectMounted(client);
  const ClientResult result =
      RunClient({"commit", Path("a-m001.sparse"), "--parent", Path("a.twf")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_TRUE(Contains(result.err, "is in use")) << result.err;
  Unmount();
  EXPECT_EQ(client.Finish().exitStatus, 0);
  EXPECT_EQ(Names(), kWithSparse);
}

}  // namespace
}  // namespace kqtest
