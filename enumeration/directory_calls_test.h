// What the tests of the directory walk use to make calls of the system fail. The test program is
// linked so that these calls pass through here (CMakeLists.txt). Everything is per thread.
#ifndef KQ_ENUMERATION_DIRECTORY_CALLS_TEST_H
#define KQ_ENUMERATION_DIRECTORY_CALLS_TEST_H

#include <sys/types.h>

#include <string>

namespace kqtest {

enum class DirectoryCall { kOpendir, kReaddir, kStat, kMalloc };

// While it lives, one call of that kind fails with that error, after a number of them has gone
// through.
class FailingDirectoryCall {
 public:
  FailingDirectoryCall(DirectoryCall call, int error, int after = 0);
  ~FailingDirectoryCall();
  FailingDirectoryCall(const FailingDirectoryCall&) = delete;
  FailingDirectoryCall& operator=(const FailingDirectoryCall&) = delete;

  bool HasFailed() const;
};

// While it lives, every readdir gives this name, and stat finds an ordinary file there.
class NameFromReaddir {
 public:
  explicit NameFromReaddir(const std::string& name);
  ~NameFromReaddir();
  NameFromReaddir(const NameFromReaddir&) = delete;
  NameFromReaddir& operator=(const NameFromReaddir&) = delete;
};

// While it lives, stat finds a file of that kind (S_IFREG and the like) at the path, whatever is
// there.
class FileOfKind {
 public:
  FileOfKind(const std::string& path, mode_t kind);
  ~FileOfKind();
  FileOfKind(const FileOfKind&) = delete;
  FileOfKind& operator=(const FileOfKind&) = delete;
};

// While it lives, every path resolves to this one.
class ResolvedPath {
 public:
  explicit ResolvedPath(const std::string& path);
  ~ResolvedPath();
  ResolvedPath(const ResolvedPath&) = delete;
  ResolvedPath& operator=(const ResolvedPath&) = delete;
};

// Directories that are open in this thread.
int OpenDirectories();

}  // namespace kqtest

#endif
