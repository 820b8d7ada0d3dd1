// The calls that concern files, as this program and every library in it make them. They are named
// apart from their declarations, with which these definitions would be at odds.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

#include "tests/faults/call_faults.h"

namespace kqtest {
namespace {

template <class Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Looked up before anything is watched, since a look-up may allocate.
struct FolderCalls {
  DIR* (*open)(const char*) = Next<DIR*(const char*)>("opendir");
  dirent64* (*read)(DIR*) = Next<dirent64*(DIR*)>("readdir64");
  int (*close)(DIR*) = Next<int(DIR*)>("closedir");
  char* (*fullPath)(const char*, char*) = Next<char*(const char*, char*)>("realpath");
};
const FolderCalls& Folders() {
  static const FolderCalls calls;
  return calls;
}
[[maybe_unused]] const FolderCalls& lookedUpAtStart = Folders();

bool IsRandomDevice(int fd) {
  struct stat found {};
  return syscall(SYS_fstat, fd, &found) == 0 && S_ISCHR(found.st_mode) &&
         found.st_rdev == makedev(1, 9);
}

MadeCall Made(Call call, std::int64_t length = 0, std::int64_t offset = 0) {
  MadeCall made;
  made.call = call;
  made.length = length;
  made.offset = offset;
  return made;
}

}  // namespace
}  // namespace kqtest

#define KQ_TAKES_THE_PLACE_OF(name) __asm__(#name) __attribute__((visibility("default"), used))

extern "C" {

int FaultyOpen(const char* path, int flags, ...) KQ_TAKES_THE_PLACE_OF(open64);
int FaultyClose(int fd) KQ_TAKES_THE_PLACE_OF(close);
int FaultyFlock(int fd, int operation) KQ_TAKES_THE_PLACE_OF(flock);
ssize_t FaultyRead(int fd, void* buffer, std::size_t length) KQ_TAKES_THE_PLACE_OF(read);
ssize_t FaultyReadAt(int fd, void* buffer, std::size_t length, off64_t offset)
    KQ_TAKES_THE_PLACE_OF(pread64);
ssize_t FaultyWrite(int fd, const void* data, std::size_t length) KQ_TAKES_THE_PLACE_OF(write);
off64_t FaultySeek(int fd, off64_t offset, int from) KQ_TAKES_THE_PLACE_OF(lseek64);
int FaultyFstat(int fd, struct stat* found) KQ_TAKES_THE_PLACE_OF(fstat64);
int FaultyStat(const char* path, struct stat* found) KQ_TAKES_THE_PLACE_OF(stat64);
int FaultyFsync(int fd) KQ_TAKES_THE_PLACE_OF(fsync);
int FaultyUnlink(const char* path) KQ_TAKES_THE_PLACE_OF(unlink);
DIR* FaultyOpendir(const char* path) KQ_TAKES_THE_PLACE_OF(opendir);
dirent64* FaultyReaddir(DIR* folder) KQ_TAKES_THE_PLACE_OF(readdir64);
int FaultyClosedir(DIR* folder) KQ_TAKES_THE_PLACE_OF(closedir);
char* FaultyRealpath(const char* path, char* resolved) KQ_TAKES_THE_PLACE_OF(realpath);

int FaultyOpen(const char* path, int flags, ...) {
  std::va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  kqtest::MadeCall made = kqtest::Made(kqtest::Call::kOpen);
  made.flags = flags;
  made.isRandomDevice = std::strcmp(path, "/dev/urandom") == 0;
  if (kqtest::FileCallFails(made)) return -1;
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

// The descriptor is gone also where the close fails, as the system has it.
int FaultyClose(int fd) {
  const auto result = static_cast<int>(syscall(SYS_close, fd));
  return kqtest::FileCallFails(kqtest::Made(kqtest::Call::kClose)) ? -1 : result;
}

int FaultyFlock(int fd, int operation) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kFlock))) return -1;
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

ssize_t FaultyRead(int fd, void* buffer, std::size_t length) {
  kqtest::MadeCall made = kqtest::Made(kqtest::Call::kRead, static_cast<std::int64_t>(length));
  made.isRandomDevice = kqtest::IsRandomDevice(fd);
  if (kqtest::FileCallFails(made, &length)) return -1;
  return syscall(SYS_read, fd, buffer, length);
}

ssize_t FaultyReadAt(int fd, void* buffer, std::size_t length, off64_t offset) {
  const kqtest::MadeCall made =
      kqtest::Made(kqtest::Call::kReadAt, static_cast<std::int64_t>(length), offset);
  if (kqtest::FileCallFails(made, &length)) return -1;
  return syscall(SYS_pread64, fd, buffer, length, offset);
}

ssize_t FaultyWrite(int fd, const void* data, std::size_t length) {
  const kqtest::MadeCall made =
      kqtest::Made(kqtest::Call::kWrite, static_cast<std::int64_t>(length));
  if (kqtest::FileCallFails(made, &length)) return -1;
  return syscall(SYS_write, fd, data, length);
}

off64_t FaultySeek(int fd, off64_t offset, int from) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kSeek, 0, offset))) return -1;
  return syscall(SYS_lseek, fd, offset, from);
}

int FaultyFstat(int fd, struct stat* found) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kFstat))) return -1;
  return static_cast<int>(syscall(SYS_fstat, fd, found));
}

int FaultyStat(const char* path, struct stat* found) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kStat))) return -1;
  return static_cast<int>(syscall(SYS_stat, path, found));
}

int FaultyFsync(int fd) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kFsync))) return -1;
  return static_cast<int>(syscall(SYS_fsync, fd));
}

int FaultyUnlink(const char* path) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kUnlink))) return -1;
  return static_cast<int>(syscall(SYS_unlink, path));
}

DIR* FaultyOpendir(const char* path) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kOpenFolder))) return nullptr;
  return kqtest::Folders().open(path);
}

dirent64* FaultyReaddir(DIR* folder) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kReadFolder))) return nullptr;
  return kqtest::Folders().read(folder);
}

int FaultyClosedir(DIR* folder) {
  const int result = kqtest::Folders().close(folder);
  return kqtest::FileCallFails(kqtest::Made(kqtest::Call::kCloseFolder)) ? -1 : result;
}

char* FaultyRealpath(const char* path, char* resolved) {
  if (kqtest::FileCallFails(kqtest::Made(kqtest::Call::kFullPath))) return nullptr;
  return kqtest::Folders().fullPath(path, resolved);
}

}  // extern "C"
