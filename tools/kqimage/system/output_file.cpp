#include "kqimage/system/output_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr unsigned kNewFileMode = 0666;
constexpr unsigned kNewImageMode = 0644;  // the mode that the library gives an image
constexpr std::size_t kMaxNameBytes = 255;

std::string FolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

[[noreturn]] void FailExists(const std::string& path) {
  throw Failure(fmt::format("{} exists already; --force replaces it", Printable(path)));
}

unsigned CurrentUmask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

FileIdentity IdentityOfOpen(const UniqueFd& fd, const std::string& path) {
  struct stat status = {};
  if (fstat(fd.Get(), &status) != 0) FailErrno(errno, "examine", path);
  return {status.st_dev, status.st_ino};
}

void FlushFolder(const std::string& folder) {
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems can't flush a folder, and a folder may be writable but not readable.
  if (fd && fsync(fd.Get()) != 0 && errno != EINVAL) FailErrno(errno, "flush the folder", folder);
}

}  // namespace

OutputFile::OutputFile(const std::string& path, Existing existing, Growth growth)
    : finalPath_(path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) FailErrno(errno, "create", path);
    if (growth == Growth::kUnderFinalName) {
      CreateExclusively();
    } else {
      CreatePartial(kNewFileMode & ~CurrentUmask());
    }
    return;
  }
  if (existing == Existing::kRefuse) FailExists(path);
  if (stat(path.c_str(), &status) != 0) FailErrno(errno, "replace", path);
  if (!S_ISREG(status.st_mode)) {
    throw Failure(fmt::format("{} is not a regular file and can't be replaced", Printable(path)));
  }
  // Behind a symbolic link, its target is what gets replaced.
  std::error_code error;
  finalPath_ = std::filesystem::canonical(path, error).string();
  if (error) FailErrno(error.value(), "replace", path);
  replaces_ = true;
  CreatePartial(status.st_mode & 0777);
}

OutputFile::~OutputFile() {
  // Only what this object made: a file that has taken the name since then is not ours.
  if (!isCommitted_ && IdentityOf(writePath_) == identity_) unlink(writePath_.c_str());
}

void OutputFile::CreateExclusively() {
  writePath_ = finalPath_;
  const UniqueFd fd(
      open(writePath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewImageMode));
  if (!fd && errno == EEXIST) FailExists(finalPath_);
  if (!fd) FailErrno(errno, "create", finalPath_);
  identity_ = IdentityOfOpen(fd, finalPath_);
}

void OutputFile::CreatePartial(unsigned mode) {
  constexpr std::string_view kSuffix = ".partial";
  const std::string name = std::filesystem::path(finalPath_).filename().string();
  writePath_ =
      FolderOf(finalPath_) + "/" + name.substr(0, kMaxNameBytes - kSuffix.size() - 7) + ".XXXXXX";
  writePath_ += kSuffix;
  const UniqueFd fd(mkostemps(writePath_.data(), static_cast<int>(kSuffix.size()), O_CLOEXEC));
  if (!fd) FailErrno(errno, "create a file beside", finalPath_);
  identity_ = IdentityOfOpen(fd, writePath_);
  if (fchmod(fd.Get(), mode) != 0) {
    const int error = errno;
    unlink(writePath_.c_str());
    FailErrno(error, "set the mode of", writePath_);
  }
}

void OutputFile::Commit() {
  {
    const UniqueFd fd(open(writePath_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || fsync(fd.Get()) != 0) FailErrno(errno, "flush", writePath_);
  }
  if (replaces_) {
    if (rename(writePath_.c_str(), finalPath_.c_str()) != 0)
      FailErrno(errno, "replace", finalPath_);
  } else if (writePath_ != finalPath_) {
    // A link never replaces anything. Where the file system has no links, a rename after a look
    // must do.
    if (link(writePath_.c_str(), finalPath_.c_str()) == 0) {
      unlink(writePath_.c_str());
    } else if (errno == EEXIST || IdentityOf(finalPath_)) {
      FailExists(finalPath_);
    } else if (rename(writePath_.c_str(), finalPath_.c_str()) != 0) {
      FailErrno(errno, "create", finalPath_);
    }
  }
  isCommitted_ = true;
  FlushFolder(FolderOf(finalPath_));
}

}  // namespace kqimage
