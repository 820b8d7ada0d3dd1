#include "enumeration/shortest_path.h"

#include "enumeration/reachable_from_bases.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

// The nearest base above the target, with the way to it in the pathPredecessor fields. Null only if
// no way upward ends at a base.
EnumeratedFile* FindBaseAbove(EnumeratedFile* target) {
  if (target->IsBase()) return target;
  target->pathLevel = 0;
  // The levels stand one behind the other.
  FileLinks met = {target};
  for (std::size_t next = 0; next < met.size(); ++next) {
    EnumeratedFile* const file = met[next];
    for (EnumeratedFile* parent : file->parents) {
      if (parent->pathLevel == -1) {
        parent->pathLevel = file->pathLevel + 1;
        parent->pathPredecessor = file;
        met.push_back(parent);
      }
      if (parent->IsBase()) return parent;
    }
  }
  return nullptr;
}

}  // namespace

KQStatus ShortestPathToBase(const ImageFilesEnumeration& enumeration, EnumeratedFile* target,
                            FileList* path) {
  path->clear();
  if (!ReachableFromBases(enumeration, &target->imageSetId).isReached[target->admissionNumber]) {
    return KQ_FAIL(kNoMoreFiles);
  }
  for (const auto& [name, file] : enumeration.filesByName) {
    file->pathLevel = -1;
    file->pathPredecessor = nullptr;
  }
  EnumeratedFile* const base = FindBaseAbove(target);
  if (base == nullptr) return KQ_FAIL(kNoMoreFiles);
  for (const EnumeratedFile* file = base; file != nullptr; file = file->pathPredecessor) {
    path->push_back(file);
  }
  return Success();
}

}  // namespace kq
