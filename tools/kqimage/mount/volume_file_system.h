// The file system of a mount: one folder with one file, "volume", of the volume's size.
//
// The file keeps its size, as a device does: what goes beyond its end finds no space, and it can't
// be cut. Mode and owner stay too.
#ifndef KQIMAGE_MOUNT_VOLUME_FILE_SYSTEM_H
#define KQIMAGE_MOUNT_VOLUME_FILE_SYSTEM_H

#include <atomic>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>

#include "kqimage/mount/mounted_volume.h"

struct fuse_lowlevel_ops;

namespace kqimage {

struct VolumeFileSystem {
  MountedVolume& volume;
  bool isForAll;                                 // for other users than this one, too
  std::atomic<std::time_t> changed;              // the file's modification time
  std::function<void(const std::string&)> tell;  // where failures are told; any thread calls it

  std::mutex mutex = {};
  int failuresTold = 0;  // guarded by mutex
};

// The operations; the session's user data is a VolumeFileSystem.
const fuse_lowlevel_ops& VolumeOperations();

}  // namespace kqimage

#endif
