// What the catalogue takes from an image file's header.
#ifndef KQ_ENUMERATION_ENUMERATED_IMAGE_H
#define KQ_ENUMERATION_ENUMERATED_IMAGE_H

#include <memory>
#include <string>

#include "enumeration/enumerated_file.h"
#include "foundation/status.h"
#include "kqimageapi.h"

namespace kq {

// Reads what the header of directory's file name says. No password is needed. As
// KQImageFileGetInfo2, and -31 for a pipe or a character device, which could make the call wait for
// ever.
KQStatus ReadImageInfo(const EnumeratedDirectory& directory, const std::string& name,
                       ImageFileInfo2* info);

// Whether the catalogue takes such a file: it is told from others, has a size, and, if it has
// checksums, has good ones.
bool IsFitForEnumeration(const ImageFileInfo2& info);

// The record of a file, without relatives and parts.
std::unique_ptr<EnumeratedFile> MakeEnumeratedFile(const EnumeratedDirectory& directory,
                                                   std::string name, const ImageFileInfo2& info);

// Fills parts and isIncomplete of a file whose lastPart is 0. All parts found before the first that
// is missing or wrong stay.
void CollectParts(EnumeratedFile* file);

}  // namespace kq

#endif
