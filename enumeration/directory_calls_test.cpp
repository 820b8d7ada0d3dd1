#include "enumeration/directory_calls_test.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kqtest {
namespace {

struct Plan {
  bool isSet;
  bool hasFailed;
  DirectoryCall call;
  int error;
  int passesLeft;
};

thread_local constinit Plan plan{};
thread_local constinit const std::string* forcedName = nullptr;
thread_local constinit const std::string* forcedKindPath = nullptr;
thread_local constinit mode_t forcedKind = 0;
thread_local constinit const std::string* forcedResolved = nullptr;
thread_local constinit int openDirectories = 0;

bool FailsNow(DirectoryCall call) {
  if (!plan.isSet || plan.hasFailed || plan.call != call || plan.passesLeft-- > 0) return false;
  plan.hasFailed = true;
  errno = plan.error;
  return true;
}

}  // namespace

FailingDirectoryCall::FailingDirectoryCall(DirectoryCall call, int error, int after) {
  plan = {true, false, call, error, after};
}
FailingDirectoryCall::~FailingDirectoryCall() { plan.isSet = false; }
bool FailingDirectoryCall::HasFailed() const { return plan.hasFailed; }

NameFromReaddir::NameFromReaddir(const std::string& name) { forcedName = new std::string(name); }
NameFromReaddir::~NameFromReaddir() {
  delete forcedName;
  forcedName = nullptr;
}

FileOfKind::FileOfKind(const std::string& path, mode_t kind) {
  forcedKindPath = new std::string(path);
  forcedKind = kind;
}
FileOfKind::~FileOfKind() {
  delete forcedKindPath;
  forcedKindPath = nullptr;
}

ResolvedPath::ResolvedPath(const std::string& path) { forcedResolved = new std::string(path); }
ResolvedPath::~ResolvedPath() {
  delete forcedResolved;
  forcedResolved = nullptr;
}

int OpenDirectories() { return openDirectories; }

}  // namespace kqtest

using kqtest::DirectoryCall;
using kqtest::FailsNow;

// The linker sends the program's calls to the __wrap_ names, and __real_ ones to the system.
extern "C" {

DIR* __real_opendir(const char* path);
DIR* __wrap_opendir(const char* path);
DIR* __wrap_opendir(const char* path) {
  DIR* directory = FailsNow(DirectoryCall::kOpendir) ? nullptr : __real_opendir(path);
  if (directory != nullptr) ++kqtest::openDirectories;
  return directory;
}

int __real_closedir(DIR* directory);
int __wrap_closedir(DIR* directory);
int __wrap_closedir(DIR* directory) {
  --kqtest::openDirectories;
  return __real_closedir(directory);
}

dirent64* __real_readdir64(DIR* directory);
dirent64* __wrap_readdir64(DIR* directory);
dirent64* __wrap_readdir64(DIR* directory) {
  if (FailsNow(DirectoryCall::kReaddir)) return nullptr;
  if (kqtest::forcedName == nullptr) return __real_readdir64(directory);
  // Some file systems give names that are longer than the record's declaration.
  static thread_local std::vector<char> bytes;
  bytes.assign(offsetof(dirent64, d_name) + kqtest::forcedName->size() + sizeof(dirent64), '\0');
  std::memcpy(bytes.data() + offsetof(dirent64, d_name), kqtest::forcedName->c_str(),
              kqtest::forcedName->size() + 1);
  return reinterpret_cast<dirent64*>(bytes.data());
}

int __real_stat64(const char* path, struct stat64* found);
int __wrap_stat64(const char* path, struct stat64* found);
int __wrap_stat64(const char* path, struct stat64* found) {
  if (FailsNow(DirectoryCall::kStat)) return -1;
  const bool isForced = kqtest::forcedKindPath != nullptr && *kqtest::forcedKindPath == path;
  if (kqtest::forcedName == nullptr && !isForced) return __real_stat64(path, found);
  *found = {};
  found->st_mode = isForced ? kqtest::forcedKind : S_IFREG;
  return 0;
}

char* __real_realpath(const char* path, char* resolved);
char* __wrap_realpath(const char* path, char* resolved);
char* __wrap_realpath(const char* path, char* resolved) {
  if (kqtest::forcedResolved == nullptr) return __real_realpath(path, resolved);
  return strdup(kqtest::forcedResolved->c_str());
}

void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
  return FailsNow(DirectoryCall::kMalloc) ? nullptr : __real_malloc(size);
}

}  // extern "C"
