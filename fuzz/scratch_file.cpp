#include "fuzz/scratch_file.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz/fuzz_input.h"

namespace kqfuzz {

ScratchFile::ScratchFile() : fd_(memfd_create("kqfuzz", 0)) {
  FUZZ_CHECK(fd_ >= 0);
  path_ = "/proc/self/fd/" + std::to_string(fd_);
}

ScratchFile::~ScratchFile() { close(fd_); }

void ScratchFile::Write(std::span<const std::uint8_t> bytes) const {
  FUZZ_CHECK(ftruncate(fd_, 0) == 0);
  FUZZ_CHECK(pwrite(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
}

kqtest::Bytes ScratchFile::Read() const {
  struct stat status = {};
  FUZZ_CHECK(fstat(fd_, &status) == 0);
  kqtest::Bytes bytes(static_cast<std::size_t>(status.st_size));
  FUZZ_CHECK(pread(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
  return bytes;
}

bool ScratchFile::Holds(std::span<const std::uint8_t> bytes) const {
  return std::ranges::equal(Read(), bytes);
}

}  // namespace kqfuzz
