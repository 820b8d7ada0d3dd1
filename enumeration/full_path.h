// Paths of existing files, split into directory and name.
#ifndef KQ_ENUMERATION_FULL_PATH_H
#define KQ_ENUMERATION_FULL_PATH_H

#include <string>

#include "foundation/status.h"

namespace kq {

struct FullPath {
  std::string directory;  // absolute, with its slash
  std::string name;       // empty if the path names a directory
};

// Resolves the path, which must exist, and splits it behind its last slash. Symbolic links are
// followed, so the result may have another directory and name. A file in the root directory gets
// "/" here, while the root directory itself is known as "//" to those that add it.
//
// -87 no slash in the result; errno mapped, -2 for a missing file. Throws std::bad_alloc.
KQStatus ResolveFullPath(const char* path, FullPath* full);

}  // namespace kq

#endif
