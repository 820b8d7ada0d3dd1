// A general directory walk: every entry goes to a callback, and subdirectories are read depth
// first. The scan of an enumeration uses a small piece of it: one level, one callback.
//
// The walk owns every entry, from before onEntry until it is freed behind onRelease; a callback may
// look at an entry during the call and keeps none. Nothing here throws, and no callback may. One
// thread at a time may use a context.
//
// Failures are of this module, with errno in detail1 where a call of the system failed. A walk ends
// at the first one; what was queued is freed with the context.
#ifndef KQ_ENUMERATION_UDIRWALK_LINUX_H
#define KQ_ENUMERATION_UDIRWALK_LINUX_H

#include <cstdint>
#include <memory>

#include "foundation/status.h"

namespace kq {

// One allocation: the record and behind it the path's text.
struct DirWalkEntry {
  const char* path;          // the parent's path, a slash, the name
  const char* relativePath;  // in path, behind the root and its slash
  const char* entryName;     // in path, the last component
  bool isDirectory;          // links are followed
  // Size and times are known of what is no directory, and 0 otherwise. Times are in ticks of 100 ns
  // since 1601-01-01, in whole seconds.
  std::uint64_t fileSize;
  std::uint64_t creationTicks;
  std::uint64_t accessTicks;
  std::uint64_t writeTicks;
  std::uint64_t reserved;  // 0
  std::uint32_t pathLength;
  DirWalkEntry* next;  // in a queue
};

struct DirWalkQueue {
  DirWalkEntry* first = nullptr;
  DirWalkEntry* last = nullptr;
};

// What went wrong, as onError is told.
enum class DirWalkError : std::uint32_t {
  kNoMemory = 1,
  kOpen = 2,         // the directory could not be opened
  kRead = 3,         // it could not be read on, or an entry could not be looked at
  kDetails = 4,      // the size and times of an entry could not be had
  kNameTooLong = 6,  // an entry's name of 256 bytes or more
};

// Each may be null.
struct DirWalkCallbacks {
  // Every entry but "." and "..", in the system's order. parent is null in the root. A failure ends
  // the walk with that status; the entry is not taken then, and onRelease does not see it.
  KQStatus (*onEntry)(void* cookie, const DirWalkEntry* parent, const DirWalkEntry* entry);
  // Just before an entry that onEntry has taken is freed.
  void (*onRelease)(void* cookie, const DirWalkEntry* entry);
  // If set, files are kept, and each comes here after the whole walk, until one call fails.
  KQStatus (*onDeferredFile)(void* cookie, const DirWalkEntry* entry);
  // path: what was concerned, or null.
  void (*onError)(void* cookie, const char* path, DirWalkError kind, KQStatus status);
  void* cookie;
};

// Subdirectories are not queued. Other bits mean nothing.
inline constexpr std::uint32_t kDirWalkOneLevel = 1;

// One block with its root's text. Made by DirWalkCreate.
struct DirWalkContext {
  DirWalkCallbacks callbacks;
  std::uint32_t flags;
  const char* rootPath;  // without trailing slashes, but never empty: the root directory is "/"
  std::uint32_t rootLength;
  DirWalkQueue pendingDirectories;  // still to be read
  DirWalkQueue deferredFiles;
};

// Frees all that is queued, through onRelease, and the context. Null is allowed.
void DirWalkFree(DirWalkContext* context);

struct DirWalkDeleter {
  void operator()(DirWalkContext* context) const { DirWalkFree(context); }
};
using DirWalkOwner = std::unique_ptr<DirWalkContext, DirWalkDeleter>;

// Trailing slashes of the root are cut. Empty if the memory could not be had.
DirWalkOwner DirWalkCreate(const char* rootPath, std::uint32_t flags,
                           const DirWalkCallbacks& callbacks);

// Reads one directory: an entry's, or the root with null. If all goes well, its subdirectories are
// put in front of the pending ones, which makes the walk depth first; otherwise they are freed.
//
// -8; -1392 a name too long; what onEntry reports; or errno mapped.
KQStatus DirWalkList(DirWalkContext* context, const DirWalkEntry* directory);

// Runs a whole walk: the root, all that is pending, and then the deferred files.
KQStatus DirWalkRun(DirWalkContext* context);

}  // namespace kq

#endif
