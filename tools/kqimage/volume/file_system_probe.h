// What file system a volume holds, and its label.
#ifndef KQIMAGE_VOLUME_FILE_SYSTEM_PROBE_H
#define KQIMAGE_VOLUME_FILE_SYSTEM_PROBE_H

#include <cstdint>
#include <string>

namespace kqimage {

struct FileSystem {
  std::string name;  // as mount knows it; empty if there is none, or none can be told for certain
  std::string label;
};

// Looks at length bytes of the open file or device from offset.
FileSystem ProbeFileSystem(int fd, std::uint64_t offset, std::uint64_t length);

}  // namespace kqimage

#endif
