#include "kqimage/password/terminal_prompt.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr char kTerminal[] = "the terminal";
constexpr char kOrigin[] = "the password";

// Keeps the terminal from showing what is typed while it lives. Keys that would end or stop the
// process without a chance to put the terminal right have no effect meanwhile; an interrupt has.
class HiddenTyping {
 public:
  explicit HiddenTyping(int terminal) : terminal_(terminal) {
    if (tcgetattr(terminal_, &before_) != 0) FailErrno(errno, "use", kTerminal);
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    hidden.c_lflag |= ICANON;
    hidden.c_cc[VQUIT] = _POSIX_VDISABLE;
    hidden.c_cc[VSUSP] = _POSIX_VDISABLE;
    // What was typed before the question, and shown, is no answer to it.
    if (tcsetattr(terminal_, TCSAFLUSH, &hidden) != 0) FailErrno(errno, "use", kTerminal);
  }

  ~HiddenTyping() { tcsetattr(terminal_, TCSAFLUSH, &before_); }

  HiddenTyping(const HiddenTyping&) = delete;
  HiddenTyping& operator=(const HiddenTyping&) = delete;

 private:
  int terminal_;
  termios before_ = {};
};

void Show(int terminal, std::string_view text) {
  while (!text.empty()) {
    const ssize_t done = write(terminal, text.data(), text.size());
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) FailErrno(errno, "write to", kTerminal);
    text.remove_prefix(static_cast<std::size_t>(done));
  }
}

void Ask(int terminal, const std::string& question, Password& password) {
  Show(terminal, question);
  try {
    password.ReadLine(terminal, kOrigin);
  } catch (...) {
    Show(terminal, "\n");
    throw;
  }
  Show(terminal, "\n");  // for the line end that was not shown
  password.Check(kOrigin);
}

}  // namespace

bool AskForPassword(const std::string& purpose, Asking asking, Password& password) {
  const UniqueFd terminal(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal) return false;
  const HiddenTyping hidden(terminal.Get());
  Ask(terminal.Get(), fmt::format("Password for {}: ", Printable(purpose)), password);
  if (asking == Asking::kTwice) {
    Password again;
    Ask(terminal.Get(), "The same again: ", again);
    if (!(again == password)) throw Failure("the two passwords differ");
  }
  return true;
}

}  // namespace kqimage
