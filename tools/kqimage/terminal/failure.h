// What goes wrong, in words for the person at the terminal.
//
// Everything that ends a command early is thrown as one of these, and main turns it into one line
// on standard error and the exit status. Messages name the file and what was being done with it;
// those that come from the library end with its status number.
#ifndef KQIMAGE_TERMINAL_FAILURE_H
#define KQIMAGE_TERMINAL_FAILURE_H

#include <kqimageapi.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace kqimage {

// Exit status 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command line asks for something that makes no sense: exit status 2.
class UsageFailure : public Failure {
 public:
  using Failure::Failure;
};

// Thrown by a command that has done its work and printed what it found: main ends with its exit
// status and says nothing more.
struct Verdict {
  int exitStatus = 0;
};
inline constexpr int kExitUnknown = 1;
inline constexpr int kExitFound = 3;  // damage, or a difference

// Throws a Failure "cannot ACTION PATH: WORDS" for an errno value.
[[noreturn]] void FailErrno(int error, std::string_view action, std::string_view path);

// The same for a status of the library, unless it is a success.
void Check(const KQStatus& status, std::string_view action, std::string_view path);

// What a status means, with its number: "no space left on the device (status -112)".
std::string StatusText(const KQStatus& status);

}  // namespace kqimage

#endif
