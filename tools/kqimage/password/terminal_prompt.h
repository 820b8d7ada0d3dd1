// Asks for a password on the terminal that controls the process, whatever standard input and
// standard error are. What is typed is not shown.
#ifndef KQIMAGE_PASSWORD_TERMINAL_PROMPT_H
#define KQIMAGE_PASSWORD_TERMINAL_PROMPT_H

#include <string>

#include "kqimage/password/password.h"

namespace kqimage {

// A new password is asked for twice, since a slip that nobody saw would lock its image for ever.
enum class Asking { kOnce, kTwice };

// Returns false if the process has no terminal. Purpose completes the question "Password for ...".
// Throws a Failure if the password can't be used or the two differ, and Interrupted. The terminal
// is as before on every path.
bool AskForPassword(const std::string& purpose, Asking asking, Password& password);

}  // namespace kqimage

#endif
