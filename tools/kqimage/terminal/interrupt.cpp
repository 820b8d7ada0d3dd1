#include "kqimage/terminal/interrupt.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace kqimage {
namespace {

constexpr std::array kCaught = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t interrupted = 0;

void OnSignal(int) { interrupted = 1; }

// Holds the caught signals back while it lives.
class HoldInterrupts {
 public:
  HoldInterrupts() {
    sigset_t caught;
    sigemptyset(&caught);
    for (const int signal : kCaught) sigaddset(&caught, signal);
    pthread_sigmask(SIG_BLOCK, &caught, &before_);
  }
  ~HoldInterrupts() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  HoldInterrupts(const HoldInterrupts&) = delete;
  HoldInterrupts& operator=(const HoldInterrupts&) = delete;

  const sigset_t& Before() const { return before_; }

 private:
  sigset_t before_;
};

}  // namespace

void CatchInterrupts() {
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  for (const int signal : kCaught) {
    struct sigaction before = {};
    sigaction(signal, nullptr, &before);
    // A caller such as nohup has decided that the signal is not for us.
    if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
  }
  // A file that grows beyond the limit of its size fails the write instead of ending the process,
  // which would leave the file behind.
  std::signal(SIGXFSZ, SIG_IGN);
}

void ThrowIfInterrupted() {
  if (interrupted != 0) throw Interrupted();
}

ssize_t ReadInterruptibly(int fd, std::span<char> bytes) {
  const HoldInterrupts held;
  pollfd input = {.fd = fd, .events = POLLIN, .revents = 0};
  while (true) {
    ThrowIfInterrupted();
    // The signals get through here and nowhere else.
    const int ready = ppoll(&input, 1, nullptr, &held.Before());
    if (ready > 0) return read(fd, bytes.data(), bytes.size());
    if (ready < 0 && errno != EINTR) return -1;
  }
}

BlockSignals::BlockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before_);
}

BlockSignals::~BlockSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

}  // namespace kqimage
