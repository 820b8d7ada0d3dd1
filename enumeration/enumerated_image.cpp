#include "enumeration/enumerated_image.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

constexpr std::int64_t kTicksPerMinute = 600'000'000;

Identifier IdentifierOf(const std::uint8_t (&bytes)[16]) {
  Identifier identifier;
  std::memcpy(identifier.data(), bytes, sizeof bytes);
  return identifier;
}

}  // namespace

KQStatus ReadImageInfo(const EnumeratedDirectory& directory, const std::string& name,
                       ImageFileInfo2* info) {
  const std::string path = directory.path + name;
  struct stat64 found;
  if (stat64(path.c_str(), &found) != 0) return KQ_FAIL_ERRNO(errno);
  if (S_ISFIFO(found.st_mode) || S_ISCHR(found.st_mode)) return KQ_FAIL(kGenFailure);
  return KQImageFileGetInfo2(path.c_str(), info);
}

bool IsFitForEnumeration(const ImageFileInfo2& info) {
  if (IsZero(IdentifierOf(info.basic.imageId)) || IsZero(IdentifierOf(info.basic.imageSetId)) ||
      info.basic.sectorSize == 0 || info.basic.sourceSize == 0) {
    return false;
  }
  // A file without an ExtendedRecord has no checksums.
  return info.recordPresent == 0 || (info.headerChecksumGood != 0 && info.extraChecksumGood != 0);
}

std::unique_ptr<EnumeratedFile> MakeEnumeratedFile(const EnumeratedDirectory& directory,
                                                   std::string name, const ImageFileInfo2& info) {
  const std::int64_t biasMinutes =
      std::int64_t{info.basic.timeZoneBias} + std::int64_t{info.basic.daylightBias};
  auto file = std::make_unique<EnumeratedFile>();
  file->name = std::move(name);
  file->imageId = IdentifierOf(info.basic.imageId);
  file->parentImageId = IdentifierOf(info.basic.parentImageId);
  file->imageSetId = IdentifierOf(info.basic.imageSetId);
  file->partIndex = info.basic.partIndex;
  file->lastPart = info.basic.lastPart;
  file->generation = info.generation;
  file->nextGeneration = info.nextGeneration;
  file->creationTimeUtc =
      info.basic.creationTime + static_cast<std::uint64_t>(biasMinutes * kTicksPerMinute);
  file->hasExtendedRecord = info.recordPresent != 0;
  file->snapshotSetId = IdentifierOf(info.snapshotSetId);  // zero without a record
  file->directory = &directory;
  return file;
}

}  // namespace kq
