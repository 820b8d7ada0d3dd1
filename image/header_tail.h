// The variable part of sector 0: KeyBlob, Comment and ExtendedRecord, which share the bytes behind
// the fixed fields and are placed there once, when the file is completed.
#ifndef KQ_IMAGE_HEADER_TAIL_H
#define KQ_IMAGE_HEADER_TAIL_H

#include <cstdint>

#include "image/new_image_file.h"

namespace kq {

// Completes image->Header's first sector, so that its bytes are those of a finished file: the
// magic, the KeyBlob, the Comment (UTF-8, may be null) and, if the template held one, the record
// with its checksums. Everything that does not fit is cut or left out, which is no failure.
//
// Nothing in the sector depends on the chunks, so a writer that must know how the file begins
// before it is finished may call this as soon as the file is open, and sets HeaderIsComplete.
void CompleteHeaderSector(NewImageFile* image, const char* comment);

}  // namespace kq

#endif
