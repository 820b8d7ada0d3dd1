#include "kqimage/interrupt.h"

#include <csignal>
#include <initializer_list>

namespace kqimage {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void OnSignal(int) { interrupted = 1; }

}  // namespace

void CatchInterrupts() {
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
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

BlockSignals::BlockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before_);
}

BlockSignals::~BlockSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

}  // namespace kqimage
