#include "kqimage/volume/volume_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "kqimage/pieces/block_compare.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

// Walks over the source; copied into the producer.
class SourcePieces {
 public:
  explicit SourcePieces(const VolumeSource& source) : source_(&source) {}

  bool operator()(Piece& piece) {
    if (next_ >= source_->size_) return false;
    piece.offset = next_;
    const std::uint64_t dataStart = NextData();
    if (dataStart - next_ >= kPieceBytes || dataStart >= source_->size_) {
      piece.isZero = true;
      piece.length = HoleLength(dataStart);
    } else {
      piece.length = std::min<std::uint64_t>(kPieceBytes, source_->size_ - next_);
      Fill(piece);
    }
    next_ += piece.length;
    return true;
  }

 private:
  // Whole cells of the hole that reaches from next_ to dataStart.
  std::uint64_t HoleLength(std::uint64_t dataStart) const {
    std::uint64_t length = dataStart - next_;
    if (dataStart < source_->size_) length -= length % kPieceBytes;
    return length;
  }

  // Where the first data at or behind next_ begin; the volume's size if there are none.
  std::uint64_t NextData() {
    if (!source_->hasHoles_ || next_ < knownDataStart_) {
      return std::max(next_, knownDataStart_);
    }
    const off_t found =
        lseek(source_->fd_.Get(), static_cast<off_t>(source_->start_ + next_), SEEK_DATA);
    if (found >= 0) {
      knownDataStart_ =
          std::min(static_cast<std::uint64_t>(found) - source_->start_, source_->size_);
    } else if (errno == ENXIO) {
      // Only zero from here to the end, or the file has become shorter. Reading its last byte tells
      // the two apart.
      char last = 0;
      const std::uint64_t lastAt = source_->start_ + source_->size_ - 1;
      if (pread(source_->fd_.Get(), &last, 1, static_cast<off_t>(lastAt)) != 1) {
        FailShort(source_->size_ - 1);
      }
      knownDataStart_ = source_->size_;
    } else {
      knownDataStart_ = next_;
    }
    return knownDataStart_;
  }

  void Fill(const Piece& piece) const {
    const std::size_t length = static_cast<std::size_t>(piece.length);
    std::size_t done = 0;
    while (done < length) {
      const std::uint64_t position = piece.offset + done;
      const ssize_t got = pread(source_->fd_.Get(), piece.buffer + done, length - done,
                                static_cast<off_t>(source_->start_ + position));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        throw Failure(fmt::format("cannot read {} at byte {}: {}", Printable(source_->path_),
                                  position, std::generic_category().message(errno)));
      }
      if (got == 0) FailShort(position);
      done += static_cast<std::size_t>(got);
    }
    const std::size_t padded = (length + kBlockBytes - 1) / kBlockBytes * kBlockBytes;
    std::memset(piece.buffer + length, 0, padded - length);
  }

  [[noreturn]] void FailShort(std::uint64_t position) const {
    throw Failure(fmt::format("{} ended at byte {} of {}: it became shorter while it was read",
                              Printable(source_->path_), position, source_->size_));
  }

  const VolumeSource* source_;
  std::uint64_t next_ = 0;
  std::uint64_t knownDataStart_ = 0;  // no data between next_ and here
};

VolumeSource::VolumeSource(const std::string& path, const std::optional<Extent>& part)
    : path_(path) {
  // O_NONBLOCK so that a pipe is refused below instead of waiting for its writer.
  fd_ = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd_) FailErrno(errno, "open", path);
  struct stat status = {};
  if (fstat(fd_.Get(), &status) != 0) FailErrno(errno, "examine", path);
  if (S_ISBLK(status.st_mode)) {
    if (ioctl(fd_.Get(), BLKGETSIZE64, &size_) != 0) FailErrno(errno, "get the size of", path);
  } else if (S_ISREG(status.st_mode)) {
    size_ = static_cast<std::uint64_t>(status.st_size);
    hasHoles_ = true;
  } else {
    throw Failure(fmt::format("{} is neither a regular file nor a block device", Printable(path)));
  }
  if (part) {
    if (part->start > size_ || part->length > size_ - part->start) {
      throw Failure(fmt::format("{} ends at byte {}, before the partition's end at byte {}",
                                Printable(path), size_, part->start + part->length));
    }
    start_ = part->start;
    size_ = part->length;
  }
  if (size_ == 0)
    throw Failure(fmt::format("{} is empty: there is nothing to image", Printable(path)));
  posix_fadvise(fd_.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

ReadAhead::Producer VolumeSource::Pieces() const { return SourcePieces(*this); }

DataCells VolumeSource::Cells(std::uint64_t size) const {
  DataCells cells(size);
  if (size == 0) return cells;
  cells.Mark(size - 1, 1);
  for (std::uint64_t at = 0; at < size;) {
    const off_t from = static_cast<off_t>(start_ + at);
    const off_t data = hasHoles_ ? lseek(fd_.Get(), from, SEEK_DATA) : from;
    if (data < 0 && errno == ENXIO) break;
    const off_t hole = hasHoles_ && data >= 0 ? lseek(fd_.Get(), data, SEEK_HOLE) : -1;
    if (hole < 0) {  // it can't be told
      cells.Mark(at, size - at);
      break;
    }
    const std::uint64_t begin = static_cast<std::uint64_t>(data) - start_;
    const std::uint64_t end = static_cast<std::uint64_t>(hole) - start_;
    cells.Mark(begin, end - begin);
    // What else the last cell has changes nothing.
    at = (end + kPieceBytes - 1) / kPieceBytes * kPieceBytes;
  }
  return cells;
}

}  // namespace kqimage
