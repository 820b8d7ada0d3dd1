// A mount from its beginning to its end.
//
// The volume is served by several threads until it is unmounted: by umount or fusermount3, or by
// SIGINT, SIGTERM or SIGHUP. The first such signal takes the mount away from its folder; programs
// that have the file open go on, and the mount ends with the last of them. The second one ends it
// at once.
#ifndef KQIMAGE_MOUNT_MOUNT_SESSION_H
#define KQIMAGE_MOUNT_MOUNT_SESSION_H

#include <signal.h>

#include <string>

#include "kqimage/mount/volume_file_system.h"

struct fuse_session;

namespace kqimage {

class MountSession {
 public:
  // Mounts. From now on the signals wait for Serve. Throws a Failure, and Interrupted if a signal
  // came before.
  MountSession(VolumeFileSystem& system, const std::string& folder, const std::string& source);
  // Unmounts if nobody has.
  ~MountSession();
  MountSession(const MountSession&) = delete;
  MountSession& operator=(const MountSession&) = delete;

  // Returns when the volume is unmounted and no request is left.
  void Serve();

 private:
  void Detach();

  VolumeFileSystem& system_;
  std::string folder_;  // absolute
  sigset_t signals_;    // those that end the mount
  sigset_t before_;     // the mask to go back to
  fuse_session* session_ = nullptr;
  bool isDetached_ = false;
};

}  // namespace kqimage

#endif
