#include "header/image_file_info.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "foundation/little_endian.h"
#include "header/read_header.h"

// The record crosses the library's boundary: clients of all versions rely on each place.
#define KQ_INFO_OFFSET(field, offset) static_assert(offsetof(ImageFileInfo, field) == (offset))
KQ_INFO_OFFSET(sectorSize, 0);
KQ_INFO_OFFSET(sourceSize, 4);
KQ_INFO_OFFSET(creationTime, 12);
KQ_INFO_OFFSET(timeZoneBias, 20);
KQ_INFO_OFFSET(daylightBias, 24);
KQ_INFO_OFFSET(imageId, 28);
KQ_INFO_OFFSET(parentImageId, 44);
KQ_INFO_OFFSET(imageSetId, 60);
KQ_INFO_OFFSET(partIndex, 76);
KQ_INFO_OFFSET(lastPart, 80);
KQ_INFO_OFFSET(compressionType, 84);
KQ_INFO_OFFSET(encryptionType, 88);
KQ_INFO_OFFSET(flagByte, 92);
KQ_INFO_OFFSET(flagBit0, 93);
KQ_INFO_OFFSET(flagBit2, 94);
KQ_INFO_OFFSET(partMarker, 95);
KQ_INFO_OFFSET(comment, 96);
static_assert(sizeof(ImageFileInfo) == 296);

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

constexpr std::int64_t kLongestComment = 99;

void CopyComment(const std::uint8_t* sector, const ImageHeader& header, ImageFileInfo* info) {
  const std::int64_t place = std::int64_t{sizeof(ImageHeader)} + header.KeyBlobLength;
  // Negative where the KeyBlob ends behind the sector.
  const std::int64_t room = (std::int64_t{header.SectorSize} - place) / 2;
  const std::int64_t units = std::min(room, kLongestComment);
  for (std::int64_t i = 0; i < units; ++i) {
    const std::uint16_t unit = LoadU16(sector + place + 2 * i);
    if (unit == 0) break;
    info->comment[i] = unit;
  }
}

}  // namespace

void FillImageFileInfo(const std::uint8_t* sector, const ChunkIndexHead& indexHead,
                       ImageFileInfo* info) {
  ImageHeader header;
  std::memcpy(&header, sector, sizeof header);
  info->sectorSize = header.SectorSize;
  info->sourceSize = header.SourceSize;
  info->creationTime = header.CreationTime;
  info->timeZoneBias = header.TimeZoneBias;
  info->daylightBias = header.DaylightBias;
  std::memcpy(info->imageId, header.ImageId, sizeof info->imageId);
  std::memcpy(info->parentImageId, header.ParentImageId, sizeof info->parentImageId);
  std::memcpy(info->imageSetId, header.ImageSetId, sizeof info->imageSetId);
  info->partIndex = header.PartIndex;
  info->lastPart = indexHead.LastPart;
  info->compressionType = header.CompressionType;
  info->encryptionType = header.EncryptionType;
  info->flagByte = static_cast<std::uint8_t>(header.Flags >> 24);
  info->flagBit0 = (header.Flags & 1) != 0 ? 1 : 0;
  info->flagBit2 = (header.Flags & 4) != 0 ? 1 : 0;
  info->partMarker = header.PartMarker != 0 ? 1 : 0;
  CopyComment(sector, header, info);
}

}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileGetInfo(const char* path, ImageFileInfo* info) {
  using namespace kq;
  if (info != nullptr) std::memset(info, 0, sizeof *info);
  if (path == nullptr || info == nullptr) return KQ_FAIL(kInvalidParameter);

  HeapBuffer sector;
  ChunkIndexHead indexHead;
  KQ_RETURN_IF_FAILED(ReadHeaderAndIndexHead(path, 1, &sector, &indexHead));
  FillImageFileInfo(sector.data(), indexHead, info);
  return Success();
}
