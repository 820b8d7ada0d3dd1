#include "enumeration/udirwalk_linux.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "foundation/memory.h"

namespace kq {
namespace {

constexpr char kModule[] = "udirwalk_linux";

constexpr std::size_t kPathBufferBytes = 4096;
constexpr std::size_t kLongestName = 255;
constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr std::uint64_t kTicksAt1970 = 116'444'736'000'000'000;
constexpr std::uint32_t kDetailIsErrno = 2;

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryOwner = std::unique_ptr<DIR, DirectoryCloser>;
using EntryOwner = std::unique_ptr<DirWalkEntry, FreeDeleter>;

// As KQ_FAIL_ERRNO, but of this module.
KQStatus FailErrno(int errnoValue, int line = __builtin_LINE()) {
  KQStatus status =
      MakeStatus(static_cast<StatusCode>(StatusCodeFromErrno(errnoValue)), line, kModule);
  if (!Failed(status)) return Success(line);
  status.detail1 = static_cast<std::uint32_t>(errnoValue);
  status.detail2 = kDetailIsErrno;
  return status;
}

KQStatus Report(const DirWalkContext& context, const char* path, DirWalkError kind,
                const KQStatus& status) {
  const DirWalkCallbacks& callbacks = context.callbacks;
  if (callbacks.onError != nullptr) callbacks.onError(callbacks.cookie, path, kind, status);
  return status;
}

void Append(DirWalkQueue* queue, EntryOwner owned) {
  DirWalkEntry* entry = owned.release();
  entry->next = nullptr;
  (queue->last != nullptr ? queue->last->next : queue->first) = entry;
  queue->last = entry;
}

EntryOwner TakeFirst(DirWalkQueue* queue) {
  DirWalkEntry* entry = queue->first;
  if (entry == nullptr) return nullptr;
  queue->first = entry->next;
  if (queue->first == nullptr) queue->last = nullptr;
  return EntryOwner(entry);
}

void PutInFront(DirWalkQueue* queue, const DirWalkQueue& added) {
  if (added.first == nullptr) return;
  added.last->next = queue->first;
  if (queue->last == nullptr) queue->last = added.last;
  queue->first = added.first;
}

void Release(const DirWalkContext& context, EntryOwner entry) {
  const DirWalkCallbacks& callbacks = context.callbacks;
  if (callbacks.onRelease != nullptr) callbacks.onRelease(callbacks.cookie, entry.get());
}

void ReleaseAll(const DirWalkContext& context, DirWalkQueue* queue) {
  while (EntryOwner entry = TakeFirst(queue)) Release(context, std::move(entry));
}

std::uint64_t TicksOf(time_t seconds) {
  return static_cast<std::uint64_t>(seconds) * kTicksPerSecond + kTicksAt1970;
}

EntryOwner MakeEntry(const DirWalkContext& context, const char* directory, const char* name) {
  const std::size_t directoryLength = std::strlen(directory);
  const std::size_t nameLength = std::strlen(name);
  const std::size_t pathLength = directoryLength + 1 + nameLength;
  void* memory = std::malloc(sizeof(DirWalkEntry) + pathLength + 1);
  if (memory == nullptr) return nullptr;

  char* path = static_cast<char*>(memory) + sizeof(DirWalkEntry);
  std::memcpy(path, directory, directoryLength);
  path[directoryLength] = '/';
  std::memcpy(path + directoryLength + 1, name, nameLength + 1);
  auto* entry = ::new (memory) DirWalkEntry{};
  entry->path = path;
  entry->relativePath = path + context.rootLength + 1;
  entry->entryName = path + directoryLength + 1;
  entry->pathLength = static_cast<std::uint32_t>(pathLength);
  return EntryOwner(entry);
}

// Makes the entry of a name that the system has given.
KQStatus LookAt(const DirWalkContext& context, const char* directory, const char* name,
                EntryOwner* entry) {
  // A path that is cut here fails the second look below, if not this one.
  char path[kPathBufferBytes];
  [[maybe_unused]] const int length = std::snprintf(path, sizeof path, "%s/%s", directory, name);
  struct stat64 found;
  if (stat64(path, &found) != 0) {
    return Report(context, path, DirWalkError::kRead, FailErrno(errno));
  }
  if (strnlen(name, kLongestName + 1) > kLongestName) {
    return Report(context, path, DirWalkError::kNameTooLong, KQ_FAIL(kFileCorrupt));
  }
  EntryOwner made = MakeEntry(context, directory, name);
  if (!made) return Report(context, path, DirWalkError::kNoMemory, KQ_FAIL(kNotEnoughMemory));

  made->isDirectory = S_ISDIR(found.st_mode);
  if (!made->isDirectory) {
    if (stat64(made->path, &found) != 0) {
      return Report(context, made->path, DirWalkError::kDetails, FailErrno(errno));
    }
    made->fileSize = static_cast<std::uint64_t>(found.st_size);
    made->creationTicks = TicksOf(found.st_ctime);
    made->accessTicks = TicksOf(found.st_atime);
    made->writeTicks = TicksOf(found.st_mtime);
  }
  *entry = std::move(made);
  return Success();
}

// Hands an entry to the callback and then to where it belongs.
KQStatus TakeIn(DirWalkContext* context, const DirWalkEntry* parent, EntryOwner entry,
                DirWalkQueue* subdirectories) {
  const DirWalkCallbacks& callbacks = context->callbacks;
  if (callbacks.onEntry != nullptr) {
    KQ_RETURN_IF_FAILED(callbacks.onEntry(callbacks.cookie, parent, entry.get()));
  }
  if (!entry->isDirectory && callbacks.onDeferredFile != nullptr) {
    Append(&context->deferredFiles, std::move(entry));
  } else if (entry->isDirectory && (context->flags & kDirWalkOneLevel) == 0) {
    Append(subdirectories, std::move(entry));
  } else {
    Release(*context, std::move(entry));
  }
  return Success();
}

bool IsDotName(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

KQStatus ReadLevel(DirWalkContext* context, const DirWalkEntry* parent, const char* path,
                   DIR* directory, DirWalkQueue* subdirectories) {
  // A directory that gives nothing at all is empty, whatever errno says.
  const dirent64* found = readdir64(directory);
  if (found == nullptr) return Success();
  while (found != nullptr) {
    if (!IsDotName(found->d_name)) {
      EntryOwner entry;
      KQ_RETURN_IF_FAILED(LookAt(*context, path, found->d_name, &entry));
      KQ_RETURN_IF_FAILED(TakeIn(context, parent, std::move(entry), subdirectories));
    }
    errno = 0;
    found = readdir64(directory);
  }
  if (errno != 0) return Report(*context, path, DirWalkError::kRead, FailErrno(errno));
  return Success();
}

}  // namespace

DirWalkOwner DirWalkCreate(const char* rootPath, std::uint32_t flags,
                           const DirWalkCallbacks& callbacks) {
  std::size_t length = std::strlen(rootPath);
  while (length > 1 && rootPath[length - 1] == '/') --length;
  void* memory = std::malloc(sizeof(DirWalkContext) + length + 1);
  if (memory == nullptr) return nullptr;
  char* root = static_cast<char*>(memory) + sizeof(DirWalkContext);
  std::memcpy(root, rootPath, length);
  root[length] = '\0';
  auto* context = ::new (memory) DirWalkContext{};
  context->callbacks = callbacks;
  context->flags = flags;
  context->rootPath = root;
  context->rootLength = static_cast<std::uint32_t>(length);
  return DirWalkOwner(context);
}

void DirWalkFree(DirWalkContext* context) {
  if (context == nullptr) return;
  ReleaseAll(*context, &context->pendingDirectories);
  ReleaseAll(*context, &context->deferredFiles);
  std::free(context);
}

KQStatus DirWalkList(DirWalkContext* context, const DirWalkEntry* directory) {
  const char* path = directory != nullptr ? directory->path : context->rootPath;
  DirectoryOwner opened(opendir(path));
  if (!opened) return Report(*context, path, DirWalkError::kOpen, FailErrno(errno));
  DirWalkQueue subdirectories;
  const KQStatus status = ReadLevel(context, directory, path, opened.get(), &subdirectories);
  opened.reset();
  if (Failed(status)) {
    ReleaseAll(*context, &subdirectories);
  } else {
    PutInFront(&context->pendingDirectories, subdirectories);
  }
  return status;
}

KQStatus DirWalkRun(DirWalkContext* context) {
  KQStatus status = DirWalkList(context, nullptr);
  while (!Failed(status)) {
    EntryOwner directory = TakeFirst(&context->pendingDirectories);
    if (!directory) break;
    status = DirWalkList(context, directory.get());
    Release(*context, std::move(directory));
  }
  const DirWalkCallbacks& callbacks = context->callbacks;
  if (Failed(status) || callbacks.onDeferredFile == nullptr) return status;
  while (EntryOwner file = TakeFirst(&context->deferredFiles)) {
    if (!Failed(status)) status = callbacks.onDeferredFile(callbacks.cookie, file.get());
    Release(*context, std::move(file));
  }
  return status;
}

}  // namespace kq
