// SIGINT, SIGTERM and SIGHUP end a command in good order.
//
// The handler only sets a flag. The loops of the commands ask it after every piece, and the
// exception thrown there unwinds the stack, whose owners remove what was not finished. A second
// signal of the same kind ends the process at once, for a device that doesn't answer any more.
#ifndef KQIMAGE_TERMINAL_INTERRUPT_H
#define KQIMAGE_TERMINAL_INTERRUPT_H

#include <signal.h>
#include <sys/types.h>

#include <span>

namespace kqimage {

class Interrupted {};

// To be called once, before any other thread runs.
void CatchInterrupts();

// Throws Interrupted if one of the signals has come.
void ThrowIfInterrupted();

// As read(2), for input that may keep the command waiting. Throws Interrupted if one of the signals
// has come or comes meanwhile; there is no moment at which one would be missed.
ssize_t ReadInterruptibly(int fd, std::span<char> bytes);

// Blocks every signal in the calling thread while it lives. A thread that is started meanwhile
// keeps them blocked, so that signals reach the main thread alone.
class BlockSignals {
 public:
  BlockSignals();
  ~BlockSignals();
  BlockSignals(const BlockSignals&) = delete;
  BlockSignals& operator=(const BlockSignals&) = delete;

 private:
  sigset_t before_;
};

}  // namespace kqimage

#endif
