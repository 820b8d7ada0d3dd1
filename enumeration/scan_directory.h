// Adding a directory to the catalogue.
#ifndef KQ_ENUMERATION_SCAN_DIRECTORY_H
#define KQ_ENUMERATION_SCAN_DIRECTORY_H

#include "enumeration/image_files_enumeration.h"
#include "foundation/status.h"

namespace kq {

// Admits every image file of the directory, subdirectories left out. A file that can't be admitted
// is passed over in silence.
//
// A directory is read once: the second time, under whatever path, this succeeds and reads nothing.
// That holds also after a failure half way, which keeps the files admitted before it.
//
// -87 no directory; what the walk reports, -2 for a link that leads nowhere among the entries; or
// as OSGetFullPath. Throws std::bad_alloc.
KQStatus ScanDirectory(ImageFilesEnumeration* enumeration, const char* path);

}  // namespace kq

#endif
