// Where a volume is restored to: a new file, a file that is replaced, or a block device.
//
// A file grows under a partial name and gets holes where the volume reads as zero; it appears under
// its own name when it is complete. A device is written in place.
#ifndef KQIMAGE_VOLUME_VOLUME_TARGET_H
#define KQIMAGE_VOLUME_VOLUME_TARGET_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "kqimage/system/output_file.h"
#include "kqimage/system/unique_fd.h"

namespace kqimage {

class VolumeTarget {
 public:
  // Throws a Failure if the path can't take size bytes, or exists and force is not given.
  VolumeTarget(const std::string& path, std::uint64_t size, bool force);

  // Writes a piece of the volume, from a multiple of kBlockBytes. Several threads may do so at
  // once, each its own pieces.
  void Write(std::uint64_t offset, std::span<const std::byte> bytes);

  // Makes all durable and, for a file, gives it its name.
  void Finish();

  bool IsDevice() const { return !file_; }

 private:
  void OpenDevice(std::uint64_t size);
  void WriteFully(std::uint64_t offset, std::span<const std::byte> bytes) const;

  std::string path_;
  std::optional<OutputFile> file_;
  UniqueFd fd_;
  // The system lets one thread at a time write to a file. Others wait here, asleep: there they
  // would spin, a quarter of all processor time where nothing has to be decoded.
  std::mutex fileTurn_;
};

}  // namespace kqimage

#endif
