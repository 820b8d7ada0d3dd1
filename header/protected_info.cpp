#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>

#include "foundation/little_endian.h"
#include "header/partition_list.h"
#include "header/protected_header.h"

// The record crosses the library's boundary: clients of all versions rely on each place.
#define KQ_PROTECTED_OFFSET(field, offset) static_assert(offsetof(ProtectedInfo, field) == (offset))
KQ_PROTECTED_OFFSET(thirdText, 0);
KQ_PROTECTED_OFFSET(secondText, 128);
KQ_PROTECTED_OFFSET(volumeValue5, 256);
KQ_PROTECTED_OFFSET(volumeValue6, 260);
KQ_PROTECTED_OFFSET(volumeValue1, 262);
KQ_PROTECTED_OFFSET(volumeValue2, 266);
KQ_PROTECTED_OFFSET(volumeValue3, 270);
KQ_PROTECTED_OFFSET(volumeValue4, 274);
KQ_PROTECTED_OFFSET(firstText, 278);
KQ_PROTECTED_OFFSET(diskInfoPresent, 534);
KQ_PROTECTED_OFFSET(diskValue1, 535);
KQ_PROTECTED_OFFSET(diskValue2, 543);
KQ_PROTECTED_OFFSET(diskValue3, 547);
KQ_PROTECTED_OFFSET(partitionNumber, 551);
KQ_PROTECTED_OFFSET(tableRead, 555);
KQ_PROTECTED_OFFSET(diskSignature, 556);
KQ_PROTECTED_OFFSET(partitionLength, 560);
KQ_PROTECTED_OFFSET(partitionOffset, 568);
KQ_PROTECTED_OFFSET(active, 576);
KQ_PROTECTED_OFFSET(primary, 577);
KQ_PROTECTED_OFFSET(partitionType, 578);
KQ_PROTECTED_OFFSET(sectorsBefore, 579);
KQ_PROTECTED_OFFSET(extraBytes, 583);
KQ_PROTECTED_OFFSET(trailingSectors, 587);
KQ_PROTECTED_OFFSET(list, 591);
static_assert(sizeof(ProtectedInfo) == 593);

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

bool Holds(const PartitionListEntry& outer, const PartitionListEntry& inner) {
  return outer.offsetBytes <= inner.offsetBytes && inner.lengthBytes <= outer.lengthBytes &&
         inner.offsetBytes - outer.offsetBytes <= outer.lengthBytes - inner.lengthBytes;
}

bool IsPrimary(const PartitionListEntry& partition, std::span<const std::uint8_t> tables,
               std::uint32_t sectorSize) {
  if (partition.offsetBytes > std::numeric_limits<std::int64_t>::max() ||
      partition.lengthBytes < 1) {
    return false;
  }
  bool held = false;
  ParsePartitionTables(tables, sectorSize, [&](const PartitionListEntry& entry) {
    if (IsExtendedType(entry.type) && Holds(entry, partition)) held = true;
  });
  return !held;
}

// Tables that are damaged leave all of it 0.
void FillFromTables(const ProtectedHeader& header, ProtectedInfo* info) {
  const std::uint32_t sectorSize = header.image.SectorSize;
  // Number 0 finds the first entry that is no real partition, be it an empty slot.
  std::optional<PartitionListEntry> found;
  const bool sound =
      ParsePartitionTables(header.extraSectors, sectorSize, [&](const PartitionListEntry& entry) {
        if (!found && entry.number == header.fields.PartitionNumber) found = entry;
      });
  if (!sound) return;
  info->diskSignature = LoadU32(header.extraSectors.data() + kMbrDiskSignatureOffset);
  if (!found) return;
  info->partitionLength = found->lengthBytes;
  info->partitionOffset = found->offsetBytes;
  info->active = found->active ? 1 : 0;
  info->primary = IsPrimary(*found, header.extraSectors, sectorSize) ? 1 : 0;
  info->partitionType = found->type;
  info->sectorsBefore = found->start;
}

void FillDiskInfo(const ProtectedHeader& header, ProtectedInfo* info) {
  info->partitionNumber = kNoPartitionNumber;
  if (header.fields.DiskInfoPresent == 0) return;
  info->diskInfoPresent = 1;
  info->diskValue1 = header.fields.DiskValue1;
  info->diskValue2 = header.fields.DiskValue2;
  info->diskValue3 = header.fields.DiskValue3;
  info->partitionNumber = header.fields.PartitionNumber;
  if (header.fields.PartitionStyle != kPartitionStyleMbr || header.extraSectors.empty() ||
      header.fields.PartitionNumber == kNoPartitionNumber) {
    return;
  }
  info->tableRead = 1;
  FillFromTables(header, info);
}

// Cuts a text to the field at that offset.
void StoreInField(const WideText& text, std::size_t offset, std::size_t fieldBytes,
                  ProtectedInfo* info) {
  StoreText(text, static_cast<std::uint32_t>(fieldBytes / 2),
            reinterpret_cast<std::uint8_t*>(info) + offset);
}

}  // namespace
}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileGetInfoProtected(const char* path, const char* password,
                                                       ProtectedInfo* info, uint32_t* size) {
  using namespace kq;
  if (path == nullptr || info == nullptr || size == nullptr || *size < sizeof *info) {
    return KQ_FAIL(kInvalidParameter);
  }
  std::memset(static_cast<void*>(info), 0, *size);

  ProtectedHeader header;
  KQ_RETURN_IF_FAILED(ReadProtectedHeader(path, password, &header));
  info->volumeValue1 = header.fields.VolumeValue1;
  info->volumeValue2 = header.fields.VolumeValue2;
  info->volumeValue3 = header.fields.VolumeValue3;
  info->volumeValue4 = header.fields.VolumeValue4;
  info->volumeValue5 = header.fields.VolumeValue5;
  info->volumeValue6 = header.fields.VolumeValue6;
  FillDiskInfo(header, info);
  if (!header.extraSectors.empty()) {
    info->extraBytes = static_cast<std::uint32_t>(header.extraSectors.size());
    info->trailingSectors = header.fields.TrailingSectors;
  }

  StoreInField(header.texts.first, offsetof(ProtectedInfo, firstText), sizeof info->firstText,
               info);
  StoreInField(header.texts.second, offsetof(ProtectedInfo, secondText), sizeof info->secondText,
               info);
  StoreInField(header.texts.third, offsetof(ProtectedInfo, thirdText), sizeof info->thirdText,
               info);
  // The list is stored whole, and may reach behind the client's size: who calls gives room for the
  // longest one, and learns from the size what it has got.
  const WideText& list = header.texts.list;
  StoreText(list, list.length + 1,
            reinterpret_cast<std::uint8_t*>(info) + offsetof(ProtectedInfo, list));
  *size = static_cast<std::uint32_t>(sizeof *info) + 2 * list.length;
  return Success();
}
