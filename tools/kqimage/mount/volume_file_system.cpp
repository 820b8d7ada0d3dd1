#define FUSE_USE_VERSION 312

#include "kqimage/mount/volume_file_system.h"

#include <fmt/format.h>
#include <fuse_lowlevel.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

constexpr fuse_ino_t kFileNode = FUSE_ROOT_ID + 1;
constexpr char kFileName[] = "volume";
constexpr double kTimeout = 86400;  // seconds; nothing changes behind the system's back
constexpr std::size_t kMaxRequest = std::size_t{1} << 20;
constexpr unsigned kMaxBackground = 64;
constexpr int kMaxFailuresTold = 20;

VolumeFileSystem& Of(fuse_req_t request) {
  return *static_cast<VolumeFileSystem*>(fuse_req_userdata(request));
}

// A disk that fails does so for many requests; the first ones tell all there is to know.
void TellFailure(VolumeFileSystem& system, const std::string& message) {
  const std::scoped_lock lock(system.mutex);
  if (system.failuresTold >= kMaxFailuresTold) return;
  system.tell(message);
  if (++system.failuresTold == kMaxFailuresTold) system.tell("further failures are not told");
}

struct stat Attributes(const VolumeFileSystem& system, fuse_ino_t node) {
  struct stat status = {};
  status.st_ino = node;
  status.st_uid = getuid();
  status.st_gid = getgid();
  status.st_mtime = status.st_ctime = status.st_atime = system.changed;
  const bool isWritable = system.volume.IsWritable();
  if (node == FUSE_ROOT_ID) {
    status.st_mode = S_IFDIR | (system.isForAll ? 0555 : 0500);
    status.st_nlink = 2;
  } else {
    status.st_mode = S_IFREG | (system.isForAll ? 0444 : 0400) | (isWritable ? 0200 : 0);
    status.st_nlink = 1;
    status.st_size = static_cast<off_t>(system.volume.Size());
    status.st_blocks = (status.st_size + 511) / 512;
    status.st_blksize = static_cast<blksize_t>(kMaxRequest);
  }
  return status;
}

void Init(void*, fuse_conn_info* connection) {
  // The pages that the system keeps stay good: what is written goes through them.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_AUTO_INVAL_DATA);
  connection->max_background = kMaxBackground;
  connection->congestion_threshold = kMaxBackground * 3 / 4;
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  if (parent != FUSE_ROOT_ID || std::strcmp(name, kFileName) != 0) {
    fuse_reply_err(request, ENOENT);
    return;
  }
  fuse_entry_param entry = {};
  entry.ino = kFileNode;
  entry.attr = Attributes(Of(request), kFileNode);
  entry.attr_timeout = kTimeout;
  entry.entry_timeout = kTimeout;
  fuse_reply_entry(request, &entry);
}

void GetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info*) {
  const struct stat status = Attributes(Of(request), node);
  fuse_reply_attr(request, &status, kTimeout);
}

void SetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int fields,
                   fuse_file_info*) {
  const struct stat status = Attributes(Of(request), node);
  constexpr int kFixed = FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID;
  const bool isOtherSize = (fields & FUSE_SET_ATTR_SIZE) != 0 && wanted->st_size != status.st_size;
  if (isOtherSize || (fields & kFixed) != 0) {
    fuse_reply_err(request, EPERM);
    return;
  }
  fuse_reply_attr(request, &status, kTimeout);
}

void Open(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  if (node != kFileNode) {
    fuse_reply_err(request, EISDIR);
  } else if ((info->flags & O_ACCMODE) != O_RDONLY && !Of(request).volume.IsWritable()) {
    fuse_reply_err(request, EROFS);
  } else {
    info->keep_cache = 1;
    info->noflush = 1;
    fuse_reply_open(request, info);
  }
}

// How many of size bytes at offset lie in the volume.
std::size_t WithinVolume(const MountedVolume& volume, off_t offset, std::size_t size) {
  const std::uint64_t start = static_cast<std::uint64_t>(offset);
  if (start >= volume.Size()) return 0;
  return static_cast<std::size_t>(std::min<std::uint64_t>(size, volume.Size() - start));
}

void Read(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info*) {
  VolumeFileSystem& system = Of(request);
  try {
    thread_local std::vector<std::byte> buffer;
    const std::size_t length = WithinVolume(system.volume, offset, size);
    if (buffer.size() < length) buffer.resize(std::max(length, kMaxRequest));
    if (length > 0) {
      system.volume.Read(static_cast<std::uint64_t>(offset), std::span(buffer).first(length));
    }
    fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), length);
  } catch (const Failure& failure) {
    TellFailure(system, failure.what());
    fuse_reply_err(request, EIO);
  } catch (const std::exception&) {
    fuse_reply_err(request, ENOMEM);
  }
}

int ErrnoOf(const KQStatus& status) {
  if (status.status == KQ_STATUS_DISK_FULL) return ENOSPC;
  return status.status == KQ_STATUS_NOT_ENOUGH_MEMORY ? ENOMEM : EIO;
}

void Write(fuse_req_t request, fuse_ino_t, const char* bytes, std::size_t size, off_t offset,
           fuse_file_info*) {
  VolumeFileSystem& system = Of(request);
  try {
    const std::size_t length = WithinVolume(system.volume, offset, size);
    if (length == 0) {
      fuse_reply_err(request, ENOSPC);
      return;
    }
    const KQStatus status = system.volume.Write(
        static_cast<std::uint64_t>(offset), {reinterpret_cast<const std::byte*>(bytes), length});
    system.changed = std::time(nullptr);
    if (status.status == KQ_STATUS_SUCCESS) {
      fuse_reply_write(request, length);
      return;
    }
    TellFailure(system, fmt::format("cannot write at byte {} of the volume: {}", offset,
                                    StatusText(status)));
    fuse_reply_err(request, ErrnoOf(status));
  } catch (const Failure& failure) {
    TellFailure(system, failure.what());
    fuse_reply_err(request, EIO);
  } catch (const std::exception&) {
    fuse_reply_err(request, ENOMEM);
  }
}

void ReadFolder(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t from,
                fuse_file_info*) {
  if (node != FUSE_ROOT_ID) {
    fuse_reply_err(request, ENOTDIR);
    return;
  }
  struct Name {
    const char* text;
    fuse_ino_t node;
  };
  constexpr std::array kNames = {Name{".", FUSE_ROOT_ID}, Name{"..", FUSE_ROOT_ID},
                                 Name{kFileName, kFileNode}};
  std::array<char, 512> entries = {};
  const std::size_t room = std::min(size, entries.size());
  std::size_t used = 0;
  for (std::size_t i = static_cast<std::size_t>(from); i < kNames.size(); ++i) {
    const struct stat status = Attributes(Of(request), kNames[i].node);
    const std::size_t needed = fuse_add_direntry(
        request, &entries[used], room - used, kNames[i].text, &status, static_cast<off_t>(i + 1));
    if (needed > room - used) break;
    used += needed;
  }
  fuse_reply_buf(request, entries.data(), used);
}

}  // namespace

const fuse_lowlevel_ops& VolumeOperations() {
  static const fuse_lowlevel_ops operations = [] {
    fuse_lowlevel_ops made = {};
    made.init = Init;
    made.lookup = Lookup;
    made.getattr = GetAttributes;
    made.setattr = SetAttributes;
    made.open = Open;
    made.read = Read;
    made.write = Write;
    made.readdir = ReadFolder;
    return made;
  }();
  return operations;
}

}  // namespace kqimage
