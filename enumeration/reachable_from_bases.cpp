#include "enumeration/reachable_from_bases.h"

namespace kq {

ReachableFiles ReachableFromBases(const ImageFilesEnumeration& enumeration,
                                  const Identifier* imageSetId) {
  ReachableFiles files;
  files.isReached.resize(enumeration.filesByName.size());
  // The list of what has been reached is the queue as well: next is its head.
  const auto reach = [&](const EnumeratedFile* file) {
    if (file->isIncomplete || files.isReached[file->admissionNumber]) return;
    files.isReached[file->admissionNumber] = true;
    files.reached.push_back(file);
  };
  for (const auto& [name, base] : enumeration.basesByName) {
    if (imageSetId == nullptr || base->imageSetId == *imageSetId) reach(base);
  }
  for (std::size_t next = 0; next < files.reached.size(); ++next) {
    for (const EnumeratedFile* child : files.reached[next]->children) reach(child);
  }
  return files;
}

}  // namespace kq
