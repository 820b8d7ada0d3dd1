#include "image/open_image_file.h"

#include <algorithm>
#include <cstring>

#include "image/bucket_index.h"
#include "image/chunk_cache.h"
#include "image/shared_compressor.h"

namespace kq {

constinit Mutex openFilesMutex;
constinit OpenImageFileList OpenImageFiles;

namespace {

constexpr char kModule[] = "utimagefile";

// The files of the list by what they are asked for. Of several that match, the newest comes first.
constinit BucketIndex<OpenImageFile, &OpenImageFile::nextOfPath> filesByPath
    GUARDED_BY(openFilesMutex);
constinit BucketIndex<OpenImageFile, &OpenImageFile::nextOfIdentity> filesByIdentity
    GUARDED_BY(openFilesMutex);
constinit BucketIndex<OpenImageFile, &OpenImageFile::nextOfAddress> filesByAddress
    GUARDED_BY(openFilesMutex);

std::uint64_t HashOfPath(const char* path) {
  return HashOfBytes({reinterpret_cast<const std::uint8_t*>(path), strnlen(path, kLongestPath)}, 0);
}

std::uint64_t HashOfIdentity(const OpenImageFile& file) {
  // The parts of one image differ in nothing but their number.
  return HashOfBytes(file.ImageId, HashOfBytes(file.ParentImageId, file.PartIndex));
}

bool SameImage(const OpenImageFile& a, const OpenImageFile& b) {
  return std::memcmp(a.ImageId, b.ImageId, sizeof a.ImageId) == 0 &&
         std::memcmp(a.ParentImageId, b.ParentImageId, sizeof a.ParentImageId) == 0 &&
         std::memcmp(a.ImageSetId, b.ImageSetId, sizeof a.ImageSetId) == 0 &&
         a.PartIndex == b.PartIndex && a.LastPart == b.LastPart;
}

OpenImageFile* FindByPath(const char* path) REQUIRES(openFilesMutex) {
  OpenImageFile* file = filesByPath.First(HashOfPath(path));
  while (file != nullptr && std::strncmp(file->Path, path, kLongestPath) != 0) {
    file = filesByPath.Next(file);
  }
  return file;
}

OpenImageFile* FindSameImage(const OpenImageFile& wanted) REQUIRES(openFilesMutex) {
  OpenImageFile* file = filesByIdentity.First(HashOfIdentity(wanted));
  while (file != nullptr && !SameImage(*file, wanted)) file = filesByIdentity.Next(file);
  return file;
}

// Does not look into what may be no file any more.
bool IsOpen(const OpenImageFile* wanted) REQUIRES(openFilesMutex) {
  const OpenImageFile* file = filesByAddress.First(HashOf(wanted, 0));
  while (file != nullptr && file != wanted) file = filesByAddress.Next(file);
  return file != nullptr;
}

void AddToList(OpenImageFile* file) REQUIRES(openFilesMutex) {
  OpenImageFiles.PushFront(file);
  filesByPath.Add(HashOfPath(file->Path), file);
  filesByIdentity.Add(HashOfIdentity(*file), file);
  filesByAddress.Add(HashOf(file, 0), file);
}

void RemoveFromList(OpenImageFile* file) REQUIRES(openFilesMutex) {
  OpenImageFiles.Remove(file);
  filesByPath.Remove(HashOfPath(file->Path), file);
  filesByIdentity.Remove(HashOfIdentity(*file), file);
  filesByAddress.Remove(HashOf(file, 0), file);
}

}  // namespace

OpenImageFile::~OpenImageFile() {
  OSFileClose(File.file);
  if (usesSharedCompressor) SharedCompressorRelease();
}

KQStatus OpenImageFileOpen(const char* path, const char* password, OpenImageFile** file) {
  *file = nullptr;
  if (path == nullptr) return KQ_FAIL(kInvalidParameter);
  {
    const MutexLock lock(openFilesMutex);
    if (OpenImageFile* found = FindByPath(path)) {
      ++found->refCount;
      *file = found;
      return Success();
    }
  }

  Owned<OpenImageFile> loaded;  // freed behind the lock if it turns out to be superfluous
  KQ_RETURN_IF_FAILED(LoadImageFile(path, password, &loaded));

  const MutexLock lock(openFilesMutex);
  // Another thread may have opened the file meanwhile, or it is an image that is open under another
  // path.
  OpenImageFile* shared = FindSameImage(*loaded);
  if (shared == nullptr) {
    shared = loaded.release();
    AddToList(shared);
  }
  ++shared->refCount;
  *file = shared;
  return Success();
}

KQStatus OpenImageFileRelease(OpenImageFile* file) {
  {
    const MutexLock lock(openFilesMutex);
    if (file == nullptr || !IsOpen(file)) return Success();
    if (--file->refCount != 0) return Success();
    RemoveFromList(file);
  }
  // Nobody can find the file any more, so no entry of it is in use or can be added.
  PurgeChunks(file);
  PurgeChunkHeaders(file);
  Owned<OpenImageFile>(file).reset();
  return Success();
}

KQStatus ReadWorkSector(const OpenImageFile& file, std::uint64_t offset, std::uint8_t* sector) {
  std::uint32_t count = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(file.File, offset, sector, file.WorkSectorSize, &count));
  std::memset(sector + count, 0, file.WorkSectorSize - count);
  return Success();
}

std::uint64_t ReadableLength(const OpenImageFile& file, std::uint64_t offset,
                             std::uint64_t wanted) {
  // Kept in units that suit every block size.
  constexpr std::uint64_t kUnit = kSectorAlignment;
  const std::uint64_t held = offset < file.FileSize ? file.FileSize - offset : 0;
  return std::min(wanted, (held / kUnit + 1) * kUnit);
}

}  // namespace kq
