#include "tests/client/running_client.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "tests/client/run_client.h"

namespace kqtest {

RunningClient::RunningClient(const std::vector<std::string>& arguments) {
  std::vector<char*> argv = {const_cast<char*>(KQIMAGE_PROGRAM)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::array<int, 2> out = {};
  std::array<int, 2> err = {};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    BeginOwnSession();
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(121);
  }
  close(out[1]);
  close(err[1]);
  out_ = out[0];
  err_ = err[0];
}

RunningClient::~RunningClient() {
  if (pid_ > 0) {
    Signal(SIGKILL);
    Finish();
  }
  close(out_);
  close(err_);
}

void RunningClient::Signal(int signal) const { kill(pid_, signal); }

bool RunningClient::ReadLine(int fd, std::string& text) {
  char c = 0;
  while (c != '\n' && read(fd, &c, 1) == 1) text += c;
  return c == '\n';
}

ClientResult RunningClient::Finish() {
  while (WaitForOutputLine()) {
  }
  while (WaitForErrorLine()) {
  }
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  result_.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result_;
}

}  // namespace kqtest
