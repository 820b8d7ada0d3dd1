#include "kqimage/image/chunk_count_check.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageformat.h>
#include <sys/stat.h>

#include <cerrno>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

template <typename Record>
Record ReadRecord(const UniqueFd& file, std::uint64_t offset, const std::string& name) {
  Record record = {};
  const ssize_t got = pread(file.Get(), &record, sizeof record, static_cast<off_t>(offset));
  if (got < 0) FailErrno(errno, "read the image", name);
  if (got != sizeof record) throw Failure(fmt::format("{} ends too early", Printable(name)));
  return record;
}

}  // namespace

void CheckChunkCount(const std::string& path, const std::string& name, std::uint64_t storedBytes) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) FailErrno(errno, "open", name);
  struct stat status = {};
  if (fstat(file.Get(), &status) != 0) FailErrno(errno, "examine", name);
  const auto header = ReadRecord<ImageHeader>(file, 0, name);
  const std::uint64_t sector = header.SectorSize;
  const auto index = ReadRecord<IndexPointerSector>(
      file, static_cast<std::uint64_t>(status.st_size) - sector, name);
  std::uint64_t offset = sector * header.HeaderSectors;
  std::uint64_t held = 0;
  while (offset < index.IndexOffset) {
    const auto chunk = ReadRecord<ChunkHead>(file, offset, name);
    if (chunk.StoredSectors == 0 || chunk.ExpandedSectors == 0) break;
    offset += sector * chunk.StoredSectors;
    held += sector * (chunk.ExpandedSectors - 1);
  }
  if (offset != index.IndexOffset || held != storedBytes) {
    throw Failure(fmt::format("{} does not hold all that was written", Printable(name)));
  }
}

}  // namespace kqimage
