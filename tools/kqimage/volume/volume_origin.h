// Where a volume comes from: its disk, its place in the disk's tables, its file system.
#ifndef KQIMAGE_VOLUME_VOLUME_ORIGIN_H
#define KQIMAGE_VOLUME_VOLUME_ORIGIN_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kqimage/volume/disk_tables.h"
#include "kqimage/volume/file_system_probe.h"
#include "kqimage/volume/volume_source.h"

namespace CLI {
class App;
}

namespace kqimage {

// The SOURCE of a command: a volume, or a disk and the number of its partition that is the volume.
struct SourceOptions {
  std::string path;
  std::optional<std::uint32_t> partition;
};

// Adds SOURCE and --partition.
void AddSourceOptions(CLI::App& command, SourceOptions& options);

// For messages: "disk.img", "partition 2 of disk.img".
std::string SourceName(const SourceOptions& options);

struct VolumeOrigin {
  // Empty if the volume is no partition of a known disk.
  std::string disk;
  // The disk's, if they could be read.
  std::optional<DiskTables> tables = {};
  // In the tables; without them only its number and offset.
  std::optional<DiskPartition> partition = {};
  FileSystem fileSystem = {};
};

struct Volume {
  VolumeSource source;
  VolumeOrigin origin;
};

// Opens the volume. With a partition's number, the disk's tables are read with sectors of
// sectorSize bytes, unless a GPT tells another size. Throws a Failure if the source can't be read
// or has no such partition.
Volume OpenVolume(const SourceOptions& options, std::uint32_t sectorSize);

// What a header keeps of the origin: sectors 1 onward for an image with sectors of this size. The
// disk's tables are in it only if the disk's sectors have the same size. Empty if nothing is known.
std::vector<std::byte> OriginSectors(const VolumeOrigin& origin, std::uint32_t sectorSize);

}  // namespace kqimage

#endif
