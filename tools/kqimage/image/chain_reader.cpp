#include "kqimage/image/chain_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageformat.h>

#include <cerrno>
#include <utility>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kMaxListedPath = 4095;  // the library cuts a path behind this

// A chain's sectors are at least 512 bytes for its reader, whatever a file says.
constexpr std::uint32_t kSmallestReadableSector = 512;

}  // namespace

void RefuseUnreadable(const Chain& chain) {
  for (const ImageFile& file : chain) {
    if (file.info.sectorSize < kSmallestReadableSector) {
      throw Failure(
          fmt::format("{} has sectors of {} bytes; below {} bytes its data can't be read "
                      "back as they were written",
                      Printable(file.path), file.info.sectorSize, kSmallestReadableSector));
    }
    if (!IsReadable(file.info.compressionType)) {
      throw Failure(fmt::format(
          "{} is compressed as {}, which can't be read back: nothing can be restored from it or "
          "compared with it",
          Printable(file.path), CompressionText(file.info.compressionType)));
    }
  }
}

ChainReader::ChainReader(const Chain& chain, const char* password, std::uint64_t sparse)
    : newestPath_(chain.back().path), volumeSize_(chain.back().info.sourceSize) {
  std::string list;
  for (const ImageFile& file : chain) {
    if (file.info.encryptionType == KQ_ENCRYPTION_AES128_UNCHECKED) takesAnyPassword_ = true;
    if (!list.empty()) list += '|';
    if (file.path.find('|') == std::string::npos && file.path.size() <= kMaxListedPath) {
      list += file.path;
      continue;
    }
    UniqueFd fd(open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) FailErrno(errno, "open", file.path);
    list += fmt::format("/proc/self/fd/{}", fd.Get());
    opened_.push_back(std::move(fd));
  }
  Check(KQImageFilesOpen(list.c_str(), password, sparse, &handle_), "open the image", newestPath_);
}

ChainReader::~ChainReader() {
  if (handle_ != 0) Close();
}

KQStatus ChainReader::Close() {
  return KQImageFilesClose(std::exchange(handle_, 0), nullptr, nullptr, 0);
}

KQStatus ChainReader::Write(std::uint64_t offset, std::span<const std::byte> bytes) const {
  return KQImageFilesWrite(handle_, offset, bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                           nullptr);
}

void ChainReader::Read(std::uint64_t offset, std::span<std::byte> bytes) const {
  const KQStatus status = KQImageFilesRead(handle_, offset, bytes.data(),
                                           static_cast<std::uint32_t>(bytes.size()), nullptr);
  if (status.status == KQ_STATUS_SUCCESS) return;
  throw Failure(fmt::format("cannot read the image {} at byte {} of the volume: {}{}",
                            Printable(newestPath_), offset, StatusText(status), PasswordDoubt()));
}

std::string ChainReader::PasswordDoubt() const {
  if (!takesAnyPassword_) return {};
  return "; the password may be wrong, which this image's encryption can't tell";
}

}  // namespace kqimage
