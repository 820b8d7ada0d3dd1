#include "tests/client/run_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
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

void RedirectInput(const char* path) {
  const int fd = open(path, O_RDONLY);
  if (fd < 0 || dup2(fd, STDIN_FILENO) < 0) _exit(119);
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
  BeginOwnSession();
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

void BeginOwnSession() {
  setsid();
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) std::signal(signal, SIG_DFL);
}

ClientResult RunClient(const std::vector<std::string>& arguments, const ClientOptions& options) {
  const Outputs outputs;
  const pid_t pid = Start(arguments, outputs.out, outputs.err, [&] {
    if (options.fileSizeLimit != 0) {
      const rlimit limit = {options.fileSizeLimit, options.fileSizeLimit};
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(122);
    }
    if (!options.standardInput.empty()) RedirectInput(options.standardInput.c_str());
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

namespace {

// Reads what the terminal shows until text appears in it from the given position on; false if the
// program ends before, or nothing comes for a minute.
bool ReadUntil(int terminal, const std::string& text, std::size_t from, std::string& shown) {
  std::array<char, 4096> buffer = {};
  while (shown.find(text, from) == std::string::npos) {
    pollfd output = {.fd = terminal, .events = POLLIN, .revents = 0};
    if (poll(&output, 1, 60'000) <= 0) return false;
    const ssize_t got = read(terminal, buffer.data(), buffer.size());
    if (got <= 0) return false;
    shown.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return true;
}

// The settings of a terminal can be asked for at either side.
bool IsEchoOn(int terminal) {
  termios settings = {};
  EXPECT_EQ(tcgetattr(terminal, &settings), 0);
  return (settings.c_lflag & ECHO) != 0;
}

}  // namespace

PromptResult RunClientAtPrompts(const std::vector<std::string>& arguments,
                                const std::vector<Answer>& answers, const PromptOptions& options) {
  const Outputs outputs;
  PromptResult result;
  int terminal = -1;
  int childSide = -1;
  const winsize size = {.ws_row = 25, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
  if (openpty(&terminal, &childSide, nullptr, nullptr, &size) != 0) {
    ADD_FAILURE() << "no terminal";
    return result;
  }
  const pid_t pid = Start(arguments, outputs.out, "", [&] {
    close(terminal);
    if (ioctl(childSide, TIOCSCTTY, 0) != 0 || dup2(childSide, STDERR_FILENO) < 0) _exit(125);
    if (options.standardInputIsTerminal && dup2(childSide, STDIN_FILENO) < 0) _exit(125);
    close(childSide);
  });
  close(childSide);
  std::string shown;
  std::size_t from = 0;
  for (const Answer& answer : answers) {
    if (!ReadUntil(terminal, answer.prompt, from, shown)) {
      ADD_FAILURE() << "no prompt \"" << answer.prompt << "\" in: " << shown;
      kill(pid, SIGKILL);
      break;
    }
    from = shown.size();
    if (IsEchoOn(terminal)) result.isEchoOffAtPrompts = false;
    if (options.signalAtTheLastPrompt != 0 && &answer == &answers.back()) {
      kill(pid, options.signalAtTheLastPrompt);
    } else if (write(terminal, answer.text.data(), answer.text.size()) < 0) {
      ADD_FAILURE() << "nothing can be typed";
    }
  }
  const std::string never(1, '\0');
  ReadUntil(terminal, never, 0, shown);  // to the end
  const int exitStatus = WaitForExit(pid);
  result.isEchoOnAtTheEnd = IsEchoOn(terminal);
  close(terminal);
  result.client = Collect(exitStatus, outputs);
  result.client.err = std::move(shown);
  return result;
}

}  // namespace kqtest
