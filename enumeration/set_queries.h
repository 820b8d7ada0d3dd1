// The queries that sort the whole catalogue by the state of its chains.
//
// Fostered is a file with a whole chain up to a base that is not incomplete, bases included; every
// other file is an orphan. Each gives -18 if there is nothing to list, and throws std::bad_alloc.
#ifndef KQ_ENUMERATION_SET_QUERIES_H
#define KQ_ENUMERATION_SET_QUERIES_H

#include "enumeration/file_list_format.h"
#include "enumeration/image_files_enumeration.h"
#include "foundation/status.h"

namespace kq {

// In the order of ReachableFromBases.
KQStatus AllFostered(const ImageFilesEnumeration& enumeration, FileList* files);

// Incomplete files, files without a parent in the catalogue, and all that hangs below such. In the
// order of admission: clients are promised no order, and this one is the same each time.
KQStatus AllOrphans(const ImageFilesEnumeration& enumeration, FileList* files);

// The fostered files of a snapshot set, in the order of ReachableFromBases. Nothing belongs to the
// all-zero set, which stands in all files that this library closes.
KQStatus SnapshotSet(const ImageFilesEnumeration& enumeration, const Identifier& snapshotSetId,
                     FileList* files);

}  // namespace kq

#endif
