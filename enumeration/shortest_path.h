// The chain of an image: the files from a base down to it.
#ifndef KQ_ENUMERATION_SHORTEST_PATH_H
#define KQ_ENUMERATION_SHORTEST_PATH_H

#include "enumeration/file_list_format.h"
#include "enumeration/image_files_enumeration.h"
#include "foundation/status.h"

namespace kq {

// The shortest path in files, base first, target last; each is a parent of the one behind it.
//
// Whether there is a path is decided by complete files alone, from the bases of the target's set
// down. Which path is given is decided by the parents' lists alone, from the target up, whatever
// the path passes: of two copies of a parent the one admitted first, complete or not. Among paths
// of equal length the first that is met wins.
//
// Uses the scratch fields of all files. -18 no path. Throws std::bad_alloc.
KQStatus ShortestPathToBase(const ImageFilesEnumeration& enumeration, EnumeratedFile* target,
                            FileList* path);

}  // namespace kq

#endif
