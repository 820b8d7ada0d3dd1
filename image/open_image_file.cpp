#include "image/open_image_file.h"

#include <algorithm>
#include <cstring>

#include "image/chunk_cache.h"
#include "image/shared_compressor.h"

namespace kq {

constinit Mutex openFilesMutex;
constinit OpenImageFileList OpenImageFiles;

namespace {

constexpr char kModule[] = "utimagefile";

OpenImageFile* FindByPath(const char* path) REQUIRES(openFilesMutex) {
  OpenImageFile* file = OpenImageFiles.first();
  while (file != nullptr && std::strncmp(file->Path, path, kLongestPath) != 0) {
    file = OpenImageFileList::Next(file);
  }
  return file;
}

bool SameImage(const OpenImageFile& a, const OpenImageFile& b) {
  return std::memcmp(a.ImageId, b.ImageId, sizeof a.ImageId) == 0 &&
         std::memcmp(a.ParentImageId, b.ParentImageId, sizeof a.ParentImageId) == 0 &&
         std::memcmp(a.ImageSetId, b.ImageSetId, sizeof a.ImageSetId) == 0 &&
         a.PartIndex == b.PartIndex && a.LastPart == b.LastPart;
}

OpenImageFile* FindSameImage(const OpenImageFile& wanted) REQUIRES(openFilesMutex) {
  OpenImageFile* file = OpenImageFiles.first();
  while (file != nullptr && !SameImage(*file, wanted)) file = OpenImageFileList::Next(file);
  return file;
}

bool IsOpen(const OpenImageFile* wanted) REQUIRES(openFilesMutex) {
  const OpenImageFile* file = OpenImageFiles.first();
  while (file != nullptr && file != wanted) file = OpenImageFileList::Next(file);
  return file != nullptr;
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
    OpenImageFiles.PushFront(shared);
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
    OpenImageFiles.Remove(file);
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
