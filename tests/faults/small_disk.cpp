#include "tests/faults/small_disk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace kqtest {
namespace {

void WriteText(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  [[maybe_unused]] const ssize_t written = write(fd, text.data(), text.size());
  close(fd);
}

// A view of the mounted file systems that nobody else shares. Who is not root becomes root of a
// user namespace first.
void HideMounts() {
  const std::string user = std::to_string(getuid());
  const std::string group = std::to_string(getgid());
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return;
    WriteText("/proc/self/setgroups", "deny");
    WriteText("/proc/self/uid_map", "0 " + user + " 1");
    WriteText("/proc/self/gid_map", "0 " + group + " 1");
  }
  mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

}  // namespace

void InOwnProcess(const std::function<void()>& checks) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    HideMounts();
    checks();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "see the failures above";
}

SmallDisk::SmallDisk(const std::string& folder, std::uint64_t bytes) : folder_(folder) {
  const std::string options = "size=" + std::to_string(bytes);
  mounted_ = mount("none", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
  if (mounted_) return;
  signal(SIGXFSZ, SIG_IGN);
  getrlimit(RLIMIT_FSIZE, &oldLimit_);
  rlimit lowered = oldLimit_;
  lowered.rlim_cur = bytes;
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &lowered), 0);
}

SmallDisk::~SmallDisk() {
  if (mounted_) {
    // An image whose close has failed keeps its file open.
    EXPECT_EQ(umount2(folder_.c_str(), MNT_DETACH), 0);
  } else {
    setrlimit(RLIMIT_FSIZE, &oldLimit_);
  }
}

int SmallDisk::errnoWhenFull() const { return mounted_ ? ENOSPC : EFBIG; }

}  // namespace kqtest
