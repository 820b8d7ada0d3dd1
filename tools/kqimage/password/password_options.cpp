#include "kqimage/password/password_options.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageformat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>

#include "kqimage/password/password_command.h"
#include "kqimage/system/file_identity.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr char kStandardInput[] = "-";

void ReadPasswordFile(const std::string& path, Password& password) {
  if (path == kStandardInput) {
    if (isatty(STDIN_FILENO) != 0) {
      throw UsageFailure(
          "standard input is a terminal, which would show the password: leave out "
          "--password-file to be asked for it");
    }
    const std::string origin = "the password on standard input";
    password.ReadLine(STDIN_FILENO, origin);
    password.Check(origin);
    return;
  }
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file) {
    const int error = errno;
    ThrowIfInterrupted();  // while it waited for the other end of a pipe
    FailErrno(error, "open the password file", path);
  }
  const std::string origin = "the password in " + path;
  password.ReadLine(file.Get(), origin);
  password.Check(origin);
}

bool IsHeaderDamaged(const std::string& path) {
  ImageFileInfo2 info = {};
  return KQImageFileGetInfo2(path.c_str(), &info).status == KQ_STATUS_SUCCESS &&
         info.recordPresent != 0 && info.headerChecksumGood == 0;
}

}  // namespace

void AddPasswordOptions(CLI::App& command, PasswordOptions& options) {
  CLI::Option* file =
      command
          .add_option("--password-file", options.file,
                      "Take the password from the first line of FILE; - for standard input")
          ->type_name("FILE");
  command
      .add_option("--password-command", options.command,
                  "Take the password from the first line that CMD prints, a command for the shell")
      ->type_name("CMD")
      ->excludes(file);
}

void RefuseSharedInput(const PasswordOptions& options, std::span<const std::string> files) {
  if (options.file != kStandardInput) return;
  const auto input = IdentityOf("/dev/stdin");
  for (const std::string& file : files) {
    if (!input || input != IdentityOf(file)) continue;
    throw UsageFailure(
        fmt::format("standard input is {}, and can't give the password as well", Printable(file)));
  }
}

void ObtainPassword(const PasswordOptions& options, const std::string& purpose, Asking asking,
                    Password& password) {
  if (!options.command.empty()) {
    ReadPasswordOfCommand(options.command, password);
    password.Check(kCommandOrigin);
  } else if (!options.file.empty()) {
    ReadPasswordFile(options.file, password);
  } else if (!AskForPassword(purpose, asking, password)) {
    throw Failure(
        fmt::format("{} needs a password, and there is no terminal to ask for it: give "
                    "--password-file or --password-command",
                    Printable(purpose)));
  }
}

void PrintPasswordDoubt() {
  fmt::print(
      "{} can't tell whether the password was right: with a wrong one, all of this is noise\n",
      EncryptionText(KQ_ENCRYPTION_AES128_UNCHECKED));
}

const ImageFile* FirstEnciphered(std::span<const ImageFile> files) {
  const auto found = std::find_if(files.begin(), files.end(), [](const ImageFile& file) {
    return file.info.encryptionType != KQ_ENCRYPTION_NONE;
  });
  return found == files.end() ? nullptr : &*found;
}

void ObtainChainPassword(const PasswordOptions& options, std::span<const ImageFile> chain,
                         Password& password) {
  std::vector<std::string> paths;
  for (const ImageFile& file : chain) paths.push_back(file.path);
  RefuseSharedInput(options, paths);
  if (FirstEnciphered(chain) == nullptr) return;
  ObtainPassword(options, chain.back().path, Asking::kOnce, password);
  for (const ImageFile& file : chain) CheckPasswordOpens(file, password);
}

bool IsPasswordDoubtful(const std::string& path, const Password& password) {
  bool isDoubtful = false;
  std::uint64_t issues = 0;
  KQImageFileFixHeader(
      path.c_str(), password.CString(), &issues, 1,
      [](void* argument, const HeaderIssueReport* report) {
        if (report->skipped != 0 && report->status.status == KQ_STATUS_FILE_CORRUPT) {
          *static_cast<bool*>(argument) = true;
        }
        return true;
      },
      &isDoubtful);
  return isDoubtful;
}

void CheckPasswordOpens(const ImageFile& file, const Password& password) {
  bool opens = false;
  Check(KQImageFileTestPassword(file.path.c_str(), password.CString(), &opens),
        "try the password on", file.path);
  if (opens) return;
  if (IsHeaderDamaged(file.path)) {
    throw Failure(fmt::format("the password does not open {}, whose header is damaged",
                              Printable(file.path)));
  }
  throw Failure(fmt::format("the password is wrong: it does not open {}", Printable(file.path)));
}

}  // namespace kqimage
