#include <cstddef>
#include <cstring>
#include <span>

#include "crypto/header_checksums.h"
#include "header/extended_record.h"
#include "header/image_file_info.h"
#include "header/read_header.h"

// The record crosses the library's boundary: clients of all versions rely on each place.
#define KQ_INFO2_OFFSET(field, offset) static_assert(offsetof(ImageFileInfo2, field) == (offset))
KQ_INFO2_OFFSET(basic, 0);
KQ_INFO2_OFFSET(headerSectors, 296);
KQ_INFO2_OFFSET(flags, 300);
KQ_INFO2_OFFSET(generation, 304);
KQ_INFO2_OFFSET(nextGeneration, 308);
KQ_INFO2_OFFSET(recordPresent, 312);
KQ_INFO2_OFFSET(headerChecksumGood, 313);
KQ_INFO2_OFFSET(extraChecksumGood, 314);
KQ_INFO2_OFFSET(carriedValue7, 315);
KQ_INFO2_OFFSET(recordFlags, 316);
KQ_INFO2_OFFSET(fileUuid, 320);
KQ_INFO2_OFFSET(snapshotSetId, 336);
KQ_INFO2_OFFSET(secondUuid, 352);
KQ_INFO2_OFFSET(carriedId, 368);
KQ_INFO2_OFFSET(carriedValue1, 384);
KQ_INFO2_OFFSET(carriedValue2, 392);
KQ_INFO2_OFFSET(carriedValue3, 400);
KQ_INFO2_OFFSET(carriedBytes1, 404);
KQ_INFO2_OFFSET(carriedValue4, 420);
KQ_INFO2_OFFSET(carriedValue5, 428);
KQ_INFO2_OFFSET(carriedValue6, 432);
KQ_INFO2_OFFSET(reserved, 434);
KQ_INFO2_OFFSET(carriedBytes2, 436);
KQ_INFO2_OFFSET(carriedValue8, 452);
KQ_INFO2_OFFSET(carriedValue9, 456);
static_assert(sizeof(ImageFileInfo2) == 464);

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

template <std::size_t kSize>
void CopyId(std::uint8_t (&to)[kSize], const std::uint8_t (&from)[kSize]) {
  std::memcpy(to, from, kSize);
}

void FillFromRecord(const ExtendedRecord& record, ImageFileInfo2* info) {
  info->carriedValue7 = record.CarriedValue7;
  info->recordFlags = record.RecordFlags;
  CopyId(info->fileUuid, record.FileUuid);
  CopyId(info->snapshotSetId, record.SnapshotSetId);
  CopyId(info->secondUuid, record.SecondUuid);
  CopyId(info->carriedId, record.CarriedId);
  info->carriedValue1 = record.CarriedValue1;
  info->carriedValue2 = record.CarriedValue2;
  info->carriedValue3 = record.CarriedValue3;
  CopyId(info->carriedBytes1, record.CarriedBytes1);
  info->carriedValue4 = record.CarriedValue4;
  info->carriedValue5 = record.CarriedValue5;
  info->carriedValue6 = record.CarriedValue6;
  CopyId(info->carriedBytes2, record.CarriedBytes2);
  info->carriedValue8 = record.CarriedValue8;
  info->carriedValue9 = record.CarriedValue9;
}

// sectors: all header sectors as stored.
void FillRecordAndChecksums(const std::uint8_t* sectors, const ImageHeader& header,
                            ImageFileInfo2* info) {
  if ((header.Flags & KQ_FLAG_EXTENDED_RECORD) == 0) return;
  const auto place =
      FindExtendedRecord(std::span(sectors, header.SectorSize), RecordLimit::kByteBeforeTheEnd);
  if (!place) return;

  ExtendedRecord record;
  std::memcpy(&record, sectors + *place, sizeof record);
  FillFromRecord(record, info);
  info->recordPresent = 1;
  // With one header sector there is nothing to check, which counts as good, whatever ExtraCrc says.
  const std::uint32_t mismatches =
      CheckHeaderChecksums(sectors, sectors + *place, header.HeaderSectors >= 2);
  info->headerChecksumGood = (mismatches & kHeaderCrcMismatch) == 0 ? 1 : 0;
  info->extraChecksumGood = (mismatches & kExtraCrcMismatch) == 0 ? 1 : 0;
}

}  // namespace
}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileGetInfo2(const char* path, ImageFileInfo2* info) {
  using namespace kq;
  if (info != nullptr) std::memset(info, 0, sizeof *info);
  if (path == nullptr || info == nullptr) return KQ_FAIL(kInvalidParameter);

  // Of an enciphered image the sectors come as stored, which is what the checksums are over.
  HeapBuffer sectors;
  ChunkIndexHead indexHead;
  KQ_RETURN_IF_FAILED(ReadHeaderAndIndexHead(path, 0, &sectors, &indexHead));
  ImageHeader header;
  std::memcpy(&header, sectors.data(), sizeof header);

  FillImageFileInfo(sectors.data(), indexHead, &info->basic);
  info->headerSectors = header.HeaderSectors;
  info->flags = header.Flags;
  info->generation = header.Generation;
  info->nextGeneration = header.NextGeneration;
  FillRecordAndChecksums(sectors.data(), header, info);
  return Success();
}
