// A password that another program prints.
#ifndef KQIMAGE_PASSWORD_PASSWORD_COMMAND_H
#define KQIMAGE_PASSWORD_PASSWORD_COMMAND_H

#include <string>

#include "kqimage/password/password.h"

namespace kqimage {

inline constexpr char kCommandOrigin[] = "the password that --password-command gave";

// Runs the command through the shell and takes the first line of what it prints. What comes behind
// it is read and dropped, so that the command isn't cut short. Throws a Failure if the command
// can't be run or fails; it has ended when the call returns.
void ReadPasswordOfCommand(const std::string& command, Password& password);

}  // namespace kqimage

#endif
