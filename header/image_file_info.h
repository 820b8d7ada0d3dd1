// What the two plain queries of an image file have in common.
#ifndef KQ_HEADER_IMAGE_FILE_INFO_H
#define KQ_HEADER_IMAGE_FILE_INFO_H

#include <cstdint>

#include "kqimageapi.h"
#include "kqimageformat.h"

namespace kq {

// Fills all of *info, which has been zeroed.
// sector: sector 0, as ReadHeaderSectors gives it. indexHead: the start of the ChunkIndex.
void FillImageFileInfo(const std::uint8_t* sector, const ChunkIndexHead& indexHead,
                       ImageFileInfo* info);

}  // namespace kq

#endif
