// Conversion: the extents of a sparse file become the sectors of a new image, which joins the chain
// of a parent image whose header it takes over.
//
// Neither the parent nor the sparse file is changed, and neither is removed. The road:
// convert_build.cpp makes the header out of the parent's and the file with the writer
// (image/new_image_file.h), convert_drain.cpp feeds it, kqimageapi_convert.cpp is how clients ask
// for it; the close of a chain with an overlay is the other way here (sparse_overlay.cpp).
#ifndef KQ_SPARSE_CONVERT_SPARSE_H
#define KQ_SPARSE_CONVERT_SPARSE_H

#include <cstdint>

#include "foundation/status.h"
#include "image/new_image_file.h"
#include "image/open_image_file.h"
#include "sparse/sparse_file.h"

namespace kq {

// What a client may say about the new image.
struct NewIncrement {
  const char* fileName = nullptr;
  const char* comment = nullptr;              // may be null
  const std::uint8_t* imageId = nullptr;      // 16 bytes; null: a generated one
  const std::uint64_t* sourceSize = nullptr;  // null: the parent's
};

// Makes the increment. Compression and encryption are the parent's, the latter under the password
// that the parent was opened with and a new key. A sparse file without extents leaves no image
// behind and is no failure.
//
// The status is that of the new file's making and of its close. What goes wrong with the sparse
// file's content does not show: the image then holds the sectors up to there. Clients have no other
// way to save what is left of a damaged sparse file.
//
// -87 file name null; -1392 the identifier is all zero or the parent's; -86, -6000 enciphering;
// -8; or what the files give. A file that was created stays on a failure, with the magic "OPEN".
KQStatus BuildIncrementalFromSparse(SparseFile* sparse, const OpenImageFile& parent,
                                    const NewIncrement& wanted);

// Feeds all extents of the sparse file to the image, in rising order of their offset. A failure
// ends it; what was fed up to there stays.
KQStatus DrainSparseTree(SparseFile* sparse, NewImageFile* image);

}  // namespace kq

#endif
