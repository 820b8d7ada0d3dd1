#include "enumeration/set_queries.h"

#include <algorithm>

#include "enumeration/reachable_from_bases.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

}  // namespace

KQStatus AllFostered(const ImageFilesEnumeration& enumeration, FileList* files) {
  *files = ReachableFromBases(enumeration).reached;
  if (files->empty()) return KQ_FAIL(kNoMoreFiles);
  return Success();
}

KQStatus AllOrphans(const ImageFilesEnumeration& enumeration, FileList* files) {
  files->clear();
  const std::vector<bool> isFostered = ReachableFromBases(enumeration).isReached;
  for (const auto& [name, file] : enumeration.filesByName) {
    if (!isFostered[file->admissionNumber]) files->push_back(file.get());
  }
  if (files->empty()) return KQ_FAIL(kNoMoreFiles);
  std::sort(files->begin(), files->end(), [](const EnumeratedFile* a, const EnumeratedFile* b) {
    return a->admissionNumber < b->admissionNumber;
  });
  return Success();
}

KQStatus SnapshotSet(const ImageFilesEnumeration& enumeration, const Identifier& snapshotSetId,
                     FileList* files) {
  files->clear();
  if (IsZero(snapshotSetId)) return KQ_FAIL(kNoMoreFiles);
  for (const EnumeratedFile* file : ReachableFromBases(enumeration).reached) {
    if (file->snapshotSetId == snapshotSetId) files->push_back(file);
  }
  if (files->empty()) return KQ_FAIL(kNoMoreFiles);
  return Success();
}

}  // namespace kq
