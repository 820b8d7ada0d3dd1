// What lies above and below one file, by every way that leads there.
//
// Nothing is remembered between ways: a file that is reached by two ways is listed twice, with all
// that lies behind it. With copies of images in the catalogue that is normal, and ways can double
// with every generation; a list whose names alone fill 4 GiB is refused with -8 before it is begun.
//
// Files that name each other as parents, directly or in a longer ring, would have ways without end.
// Each time that a way enters such a cycle, every file of the cycle is visited once. Without
// cycles this changes nothing.
//
// Neither writes into a record, or needs more stack for a longer chain. Both throw std::bad_alloc.
#ifndef KQ_ENUMERATION_LINEAGE_QUERIES_H
#define KQ_ENUMERATION_LINEAGE_QUERIES_H

#include "enumeration/file_list_format.h"
#include "enumeration/image_files_enumeration.h"
#include "foundation/status.h"

namespace kq {

// The files at which the ways upward end: they have no parent that is there and not incomplete, so
// a root need not be a base. Incomplete files are passed over. Nearer roots come first, and of
// equally near ones those that parents admitted earlier lead to. -18 the file is incomplete, or it
// has no root, which takes a cycle; -8.
KQStatus FindRoots(const ImageFilesEnumeration& enumeration, const EnumeratedFile& file,
                   FileList* roots);

// The file itself and everything below it, incomplete files too, each before what hangs below it.
// -8.
KQStatus FindPureDependents(const ImageFilesEnumeration& enumeration, const EnumeratedFile& file,
                            FileList* dependents);

}  // namespace kq

#endif
