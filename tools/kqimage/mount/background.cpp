#include "kqimage/mount/background.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {

void ContinueInBackground(const std::string& outputPath) {
  const UniqueFd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!input) FailErrno(errno, "open", "/dev/null");
  const UniqueFd output(
      open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644));
  if (!output) FailErrno(errno, "open", outputPath);
  if (std::fflush(stdout) != 0) throw Failure("cannot write to standard output");
  const pid_t child = fork();
  if (child < 0) FailErrno(errno, "start a process for", outputPath);
  // What this process owns is the child's now.
  if (child > 0) _exit(0);
  setsid();
  dup2(input.Get(), STDIN_FILENO);
  dup2(output.Get(), STDOUT_FILENO);
  dup2(output.Get(), STDERR_FILENO);
  if (chdir("/") != 0) FailErrno(errno, "go to", "/");
}

}  // namespace kqimage
