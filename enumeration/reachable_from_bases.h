// Which files have a whole chain up to a base: the walk that several queries rest on.
#ifndef KQ_ENUMERATION_REACHABLE_FROM_BASES_H
#define KQ_ENUMERATION_REACHABLE_FROM_BASES_H

#include <vector>

#include "enumeration/file_list_format.h"
#include "enumeration/image_files_enumeration.h"

namespace kq {

struct ReachableFiles {
  FileList reached;             // each once, in the order of reaching
  std::vector<bool> isReached;  // by admissionNumber
};

// Breadth first from the bases, in the order of basesByName, through children in their lists'
// order; incomplete files are passed over. With a set identifier the walk begins at the bases of
// that set alone. The set of a child is not compared with its parent's, in either case.
// Throws std::bad_alloc.
ReachableFiles ReachableFromBases(const ImageFilesEnumeration& enumeration,
                                  const Identifier* imageSetId = nullptr);

}  // namespace kq

#endif
