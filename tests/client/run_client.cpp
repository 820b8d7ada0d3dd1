#include "tests/client/run_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "tests/support/temp_dir.h"

namespace kqtest {
namespace {

// The child's output goes to files: they take any amount without a reader.
struct Outputs {
  TempDir folder;
  std::string out = folder.Path("out");
  std::string err = folder.Path("err");
};

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void Redirect(int target, const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || dup2(fd, target) < 0) _exit(120);
}

// Forks and runs the program. inChild runs between the two, in the child. descriptor 2 is left as
// it is if err is empty.
pid_t Start(const std::vector<std::string>& arguments, const std::string& out,
            const std::string& err, const std::function<void()>& inChild) {
  std::vector<char*> argv = {const_cast<char*>(KQIMAGE_PROGRAM)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  Redirect(STDOUT_FILENO, out.c_str());
  if (!err.empty()) Redirect(STDERR_FILENO, err.c_str());
  inChild();
  execv(argv[0], argv.data());
  _exit(121);
}

int WaitForExit(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ClientResult Collect(int exitStatus, const Outputs& outputs) {
  return {exitStatus, ReadText(outputs.out), ReadText(outputs.err)};
}

}  // namespace

ClientResult RunClient(const std::vector<std::string>& arguments, const ClientOptions& options) {
  const Outputs outputs;
  const pid_t pid = Start(arguments, outputs.out, outputs.err, [&] {
    if (options.fileSizeLimit != 0) {
      const rlimit limit = {options.fileSizeLimit, options.fileSizeLimit};
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(122);
    }
    if (!options.timeZone.empty()) setenv("TZ", options.timeZone.c_str(), 1);
    if (!options.workFolder.empty() && chdir(options.workFolder.c_str()) != 0) _exit(123);
  });
  return Collect(WaitForExit(pid), outputs);
}

ClientResult RunClientUntil(const std::vector<std::string>& arguments,
                            const std::function<bool()>& isReached, int signal,
                            const std::function<void()>& atStop) {
  const Outputs outputs;
  const pid_t pid = Start(arguments, outputs.out, outputs.err, [] {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(124);
  });
  while (true) {
    int status = 0;
    if (waitpid(pid, &status, 0) < 0) {
      if (errno == EINTR) continue;
      ADD_FAILURE() << "no child to wait for";
      return {};
    }
    if (!WIFSTOPPED(status)) {
      ADD_FAILURE() << "the program ended before the moment it was to be stopped at";
      return Collect(WIFEXITED(status) ? WEXITSTATUS(status) : -1, outputs);
    }
    if (isReached()) break;
    // SIGTRAP comes from the tracing itself; anything else is the program's own.
    const int received = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
    if (ptrace(PTRACE_SYSCALL, pid, nullptr, received) != 0) {
      ADD_FAILURE() << "tracing failed";
      break;
    }
  }
  atStop();
  ptrace(PTRACE_DETACH, pid, nullptr, signal);
  return Collect(WaitForExit(pid), outputs);
}

ClientResult RunClientOnTerminal(const std::vector<std::string>& arguments) {
  const Outputs outputs;
  int terminal = -1;
  int childSide = -1;
  const winsize size = {.ws_row = 25, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
  if (openpty(&terminal, &childSide, nullptr, nullptr, &size) != 0) {
    ADD_FAILURE() << "no terminal";
    return {};
  }
  const pid_t pid = Start(arguments, outputs.out, "", [&] {
    if (dup2(childSide, STDERR_FILENO) < 0) _exit(125);
  });
  close(childSide);
  std::string shown;
  std::array<char, 4096> buffer = {};
  // The read fails with EIO when the program has ended and let go of its side.
  for (ssize_t got = 0; (got = read(terminal, buffer.data(), buffer.size())) > 0;) {
    shown.append(buffer.data(), static_cast<std::size_t>(got));
  }
  close(terminal);
  ClientResult result = Collect(WaitForExit(pid), outputs);
  result.err = std::move(shown);
  return result;
}

}  // namespace kqtest
