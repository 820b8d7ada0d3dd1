#include "kqimage/volume/volume_origin.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>

#include "kqimage/system/read_at.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"
#include "kqimage/volume/disk_of_partition.h"

namespace kqimage {
namespace {

UniqueFd OpenDisk(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

ReadDisk ReaderOf(const UniqueFd& fd, const std::string& path) {
  return [&fd, &path](std::uint64_t offset, std::span<std::byte> bytes) {
    return ReadAt(fd.Get(), offset, bytes, path) == bytes.size();
  };
}

// A block device knows its sectors; of a file, a GPT tells them.
std::uint32_t SectorSizeOf(const UniqueFd& fd, const ReadDisk& read, std::uint32_t otherwise) {
  int size = 0;
  if (ioctl(fd.Get(), BLKSSZGET, &size) == 0 && size >= 512) {
    return static_cast<std::uint32_t>(size);
  }
  return SectorSizeOfGpt(read).value_or(otherwise);
}

const DiskPartition& FindPartition(const DiskTables& tables, std::uint32_t number,
                                   const std::string& disk) {
  std::string others;
  for (const DiskPartition& partition : tables.partitions) {
    if (partition.number == number) return partition;
    others += fmt::format("{}{}", others.empty() ? "" : ", ", partition.number);
  }
  throw Failure(fmt::format("{} has no partition {}; {}", Printable(disk), number,
                            others.empty() ? "it has none" : "there are " + others));
}

Volume OpenPartition(const SourceOptions& options, std::uint32_t sectorSize) {
  const UniqueFd disk = OpenDisk(options.path);
  if (!disk) FailErrno(errno, "open", options.path);
  VolumeOrigin origin = {.disk = options.path};
  const ReadDisk read = ReaderOf(disk, options.path);
  origin.tables = ReadDiskTables(read, SectorSizeOf(disk, read, sectorSize));
  if (!origin.tables) {
    throw Failure(
        fmt::format("{} has no partition table that makes sense", Printable(options.path)));
  }
  origin.partition = FindPartition(*origin.tables, *options.partition, options.path);
  const Extent part = {origin.partition->offset, origin.partition->length};
  return {.source = VolumeSource(options.path, part), .origin = std::move(origin)};
}

// Completes the origin of a block device that is a partition. What can't be found out stays open:
// the volume can be imaged without.
void FindDisk(const VolumeSource& source, VolumeOrigin& origin) {
  struct stat status = {};
  if (fstat(source.Fd(), &status) != 0 || !S_ISBLK(status.st_mode)) return;
  const auto place = FindPartitionPlace(status.st_rdev);
  if (!place) return;
  origin.disk = place->disk;
  origin.partition = DiskPartition{.number = place->number, .offset = place->offset};
  const UniqueFd disk = OpenDisk(place->disk);
  if (!disk) return;
  const ReadDisk read = ReaderOf(disk, place->disk);
  std::optional<DiskTables> tables = ReadDiskTables(read, SectorSizeOf(disk, read, 512));
  if (!tables) return;
  // The device's place counts, not its number: a table may have changed under a running system.
  const auto found =
      std::find_if(tables->partitions.begin(), tables->partitions.end(),
                   [&](const DiskPartition& entry) { return entry.offset == place->offset; });
  if (found == tables->partitions.end()) return;
  origin.partition = *found;
  origin.tables = std::move(tables);
}

}  // namespace

void AddSourceOptions(CLI::App& command, SourceOptions& options) {
  command
      .add_option("SOURCE", options.path,
                  "The volume: a block device or a regular file; with --partition the disk")
      ->required()
      ->type_name("");
  command
      .add_option("--partition", options.partition,
                  "SOURCE is a whole disk, and its partition N is the volume")
      ->check(CLI::Range(1, 1 << 20).description(""))
      ->type_name("N");
}

std::string SourceName(const SourceOptions& options) {
  if (!options.partition) return Printable(options.path);
  return fmt::format("partition {} of {}", *options.partition, Printable(options.path));
}

Volume OpenVolume(const SourceOptions& options, std::uint32_t sectorSize) {
  Volume volume = options.partition ? OpenPartition(options, sectorSize)
                                    : Volume{VolumeSource(options.path), {}};
  if (!options.partition) FindDisk(volume.source, volume.origin);
  volume.origin.fileSystem =
      ProbeFileSystem(volume.source.Fd(), volume.source.Start(), volume.source.Size());
  return volume;
}

}  // namespace kqimage
