#include "kqimage/volume/volume_target.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include "kqimage/pieces/block_compare.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

VolumeTarget::VolumeTarget(const std::string& path, std::uint64_t size, bool force) : path_(path) {
  struct stat status = {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (exists && !S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
    throw Failure(fmt::format("{} is neither a regular file nor a block device", Printable(path)));
  }
  if (exists && S_ISBLK(status.st_mode)) {
    if (!force) {
      throw Failure(
          fmt::format("{} is a block device; --force overwrites what is on it", Printable(path)));
    }
    OpenDevice(size);
    return;
  }
  file_.emplace(path, force ? OutputFile::Existing::kReplace : OutputFile::Existing::kRefuse,
                OutputFile::Growth::kUnderPartialName);
  fd_ = UniqueFd(open(file_->WritePath().c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd_) FailErrno(errno, "open", file_->WritePath());
  if (ftruncate(fd_.Get(), static_cast<off_t>(size)) != 0) {
    const int error = errno;
    FailErrno(error, fmt::format("make room for {} in", ExactSizeText(size)), path);
  }
}

void VolumeTarget::OpenDevice(std::uint64_t size) {
  // O_EXCL fails on a device that is mounted or in use otherwise.
  fd_ = UniqueFd(open(path_.c_str(), O_WRONLY | O_EXCL | O_CLOEXEC));
  if (!fd_) FailErrno(errno, "open", path_);
  std::uint64_t room = 0;
  if (ioctl(fd_.Get(), BLKGETSIZE64, &room) != 0) FailErrno(errno, "get the size of", path_);
  if (room < size) {
    throw Failure(fmt::format("{} is too small: it has {}, the volume takes {}", Printable(path_),
                              ExactSizeText(room), ExactSizeText(size)));
  }
}

void VolumeTarget::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
  if (IsDevice()) {
    WriteFully(offset, bytes);
    return;
  }
  const std::vector<Stretch> stretches = NonZeroStretches(bytes);
  const std::lock_guard lock(fileTurn_);
  for (const Stretch& stretch : stretches) {
    WriteFully(offset + stretch.offset, bytes.subspan(stretch.offset, stretch.length));
  }
}

void VolumeTarget::WriteFully(std::uint64_t offset, std::span<const std::byte> bytes) const {
  while (!bytes.empty()) {
    const ssize_t put = pwrite(fd_.Get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      const std::string why = std::generic_category().message(put < 0 ? errno : ENOSPC);
      throw Failure(fmt::format("cannot write {} at byte {}: {}", Printable(path_), offset, why));
    }
    offset += static_cast<std::uint64_t>(put);
    bytes = bytes.subspan(static_cast<std::size_t>(put));
  }
}

void VolumeTarget::Finish() {
  if (fsync(fd_.Get()) != 0) FailErrno(errno, "flush", path_);
  if (close(fd_.Release()) != 0) FailErrno(errno, "close", path_);
  if (file_) file_->Commit();
}

}  // namespace kqimage
