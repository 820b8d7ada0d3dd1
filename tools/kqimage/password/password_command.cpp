#include "kqimage/password/password_command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"

namespace kqimage {
namespace {

constexpr char kShell[] = "/bin/sh";

// A command that prints more than this behind its first line is none that prints a password.
constexpr std::size_t kMaxRestBytes = std::size_t{1} << 20;

// The running command. One that is not waited for to its end is told to end when the object goes.
class Command {
 public:
  Command(const std::string& command, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    // This process ignores SIGXFSZ for itself alone.
    sigset_t reset;
    sigemptyset(&reset);
    sigaddset(&reset, SIGXFSZ);
    posix_spawnattr_setsigdefault(&attributes, &reset);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const std::array<const char*, 4> arguments = {"sh", "-c", command.c_str(), nullptr};
    const int error = posix_spawn(&pid_, kShell, &actions, &attributes,
                                  const_cast<char* const*>(arguments.data()), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) FailErrno(error, "run", kShell);
  }

  ~Command() {
    if (hasEnded_) return;
    kill(pid_, SIGTERM);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Throws a Failure unless it ends in success.
  void WaitForSuccess() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0) {
      if (errno != EINTR) FailErrno(errno, "wait for", "the password command");
      ThrowIfInterrupted();
    }
    hasEnded_ = true;
    if (WIFSIGNALED(status)) {
      throw Failure(fmt::format("the password command was ended by signal {} ({})",
                                WTERMSIG(status), strsignal(WTERMSIG(status))));
    }
    if (WEXITSTATUS(status) != 0) {
      throw Failure(
          fmt::format("the password command failed with exit status {}", WEXITSTATUS(status)));
    }
  }

 private:
  pid_t pid_ = -1;
  bool hasEnded_ = false;
};

// What follows a password in a store's entry may be as secret as the password itself.
class Scratch {
 public:
  ~Scratch() { explicit_bzero(bytes_.data(), bytes_.size()); }
  std::span<char> Bytes() { return bytes_; }

 private:
  std::array<char, 4096> bytes_;
};

void DropTheRest(int fd) {
  Scratch scratch;
  std::size_t dropped = 0;
  while (dropped <= kMaxRestBytes) {
    const ssize_t got = ReadInterruptibly(fd, scratch.Bytes());
    if (got < 0) FailErrno(errno, "read", kCommandOrigin);
    if (got == 0) return;
    dropped += static_cast<std::size_t>(got);
  }
  throw Failure("the password command prints more than a password: its output has no end in sight");
}

}  // namespace

void ReadPasswordOfCommand(const std::string& command, Password& password) {
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC) != 0) FailErrno(errno, "make", "a pipe");
  UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);
  Command running(command, input.Get());
  input.Reset();
  password.ReadLine(output.Get(), kCommandOrigin);
  DropTheRest(output.Get());
  running.WaitForSuccess();
}

}  // namespace kqimage
