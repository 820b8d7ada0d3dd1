// A file of the catalogue by its path.
#ifndef KQ_ENUMERATION_LOCATE_FILE_H
#define KQ_ENUMERATION_LOCATE_FILE_H

#include "enumeration/image_files_enumeration.h"
#include "foundation/status.h"

namespace kq {

// The path is resolved on the disk first, so a file that is gone is not found although the
// catalogue may still hold it.
//
// -2 the directory was not added, or the file is not catalogued; otherwise as ResolveFullPath.
// Throws std::bad_alloc.
KQStatus LocateFile(const ImageFilesEnumeration& enumeration, const char* path,
                    EnumeratedFile** file);

}  // namespace kq

#endif
