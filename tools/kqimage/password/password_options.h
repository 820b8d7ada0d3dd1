// The options that tell where a password comes from, and the way from there to the password.
//
// A password never stands on the command line or in the environment, which other users of the
// machine may see.
#ifndef KQIMAGE_PASSWORD_PASSWORD_OPTIONS_H
#define KQIMAGE_PASSWORD_PASSWORD_OPTIONS_H

#include <span>
#include <string>

#include "kqimage/image/image_file.h"
#include "kqimage/password/password.h"
#include "kqimage/password/terminal_prompt.h"

namespace CLI {
class App;
}

namespace kqimage {

struct PasswordOptions {
  std::string file;  // "-": standard input
  std::string command;

  bool IsGiven() const { return !file.empty() || !command.empty(); }
};

void AddPasswordOptions(CLI::App& command, PasswordOptions& options);

// Throws a UsageFailure if the password is to come from standard input and one of the files that
// the command reads is standard input too.
void RefuseSharedInput(const PasswordOptions& options, std::span<const std::string> files);

// Obtains the password that the options tell of, or asks for it on the terminal. Throws a Failure
// if there is none to be had, or one that no image can have. Purpose names the image.
void ObtainPassword(const PasswordOptions& options, const std::string& purpose, Asking asking,
                    Password& password);

// Prints what a user should know who has worked with a chain that takes any password.
void PrintPasswordDoubt();

// The first enciphered file of a chain; null if all are plain.
const ImageFile* FirstEnciphered(std::span<const ImageFile> files);

// Obtains the password of a chain with enciphered files, and checks that it opens each of them; for
// a plain chain there is none, and nothing is read or asked.
void ObtainChainPassword(const PasswordOptions& options, std::span<const ImageFile> chain,
                         Password& password);

// True if the enciphered part of a header makes no sense under the password, which then is wrong in
// all likelihood. This tells something of an encryption that takes any password.
bool IsPasswordDoubtful(const std::string& path, const Password& password);

// Throws a Failure that names the file unless the password opens it. An image whose encryption
// can't tell, and a plain one, take any password.
void CheckPasswordOpens(const ImageFile& file, const Password& password);

}  // namespace kqimage

#endif
