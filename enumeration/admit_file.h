// How a file on the disk becomes a file of the catalogue. The name decides only which files are
// looked at and where continuation parts are sought; identity and relations come from the header.
#ifndef KQ_ENUMERATION_ADMIT_FILE_H
#define KQ_ENUMERATION_ADMIT_FILE_H

#include <string>

#include "enumeration/image_files_enumeration.h"
#include "foundation/status.h"

namespace kq {

// Reads the file and its continuation parts, and enters it. A missing or wrong part is no failure:
// the file is entered as incomplete. Its own PartIndex is not looked at: any file is taken for the
// head of an image.
//
// -13 the header lacks what every image has, or fails its checksums; otherwise as
// KQImageFileGetInfo2. Throws std::bad_alloc. The catalogue is unchanged then.
KQStatus AdmitFile(ImageFilesEnumeration* enumeration, const EnumeratedDirectory& directory,
                   const std::string& name);

}  // namespace kq

#endif
