#include <cstddef>
#include <cstring>

#include "header/gpt_table.h"
#include "header/mbr_walk.h"
#include "header/protected_header.h"

// The record crosses the library's boundary: clients of all versions rely on each place.
#define KQ_EX_OFFSET(field, offset) static_assert(offsetof(ProtectedInfoEx, field) == (offset))
KQ_EX_OFFSET(thirdText, 0);
KQ_EX_OFFSET(secondText, 8);
KQ_EX_OFFSET(volumeValue5, 16);
KQ_EX_OFFSET(volumeValue6, 20);
KQ_EX_OFFSET(volumeValue1, 22);
KQ_EX_OFFSET(volumeValue2, 26);
KQ_EX_OFFSET(volumeValue3, 30);
KQ_EX_OFFSET(volumeValue4, 34);
KQ_EX_OFFSET(firstText, 38);
KQ_EX_OFFSET(extraBytes, 46);
KQ_EX_OFFSET(trailingSectors, 50);
KQ_EX_OFFSET(list, 54);
KQ_EX_OFFSET(diskInfoPresent, 62);
KQ_EX_OFFSET(diskValue1, 63);
KQ_EX_OFFSET(diskValue2, 71);
KQ_EX_OFFSET(diskValue3, 75);
KQ_EX_OFFSET(partitionStyle, 79);
KQ_EX_OFFSET(partitionNumber, 83);
KQ_EX_OFFSET(tableFound, 87);
KQ_EX_OFFSET(partitionFound, 88);
KQ_EX_OFFSET(partitionOffset, 89);
KQ_EX_OFFSET(partitionLength, 97);
KQ_EX_OFFSET(disk.mbr.diskSignature, 105);
KQ_EX_OFFSET(disk.mbr.active, 109);
KQ_EX_OFFSET(disk.mbr.inMbr, 110);
KQ_EX_OFFSET(disk.mbr.partitionType, 111);
KQ_EX_OFFSET(disk.mbr.sectorsInFront, 112);
KQ_EX_OFFSET(disk.gptDiskGuid, 105);
KQ_EX_OFFSET(usableOffset, 121);
KQ_EX_OFFSET(usableLength, 129);
KQ_EX_OFFSET(entryCount, 137);
KQ_EX_OFFSET(protectiveMbr, 141);
KQ_EX_OFFSET(typeGuid, 142);
KQ_EX_OFFSET(uniqueGuid, 158);
KQ_EX_OFFSET(attributes, 174);
KQ_EX_OFFSET(name, 182);
KQ_EX_OFFSET(reserved, 254);
static_assert(sizeof(ProtectedInfoEx) == 256);

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

std::uint32_t SizeNeeded(const ProtectedTexts& texts) {
  constexpr std::uint32_t kNuls = 4;
  const std::uint32_t units =
      texts.first.length + texts.second.length + texts.third.length + texts.list.length + kNuls;
  return static_cast<std::uint32_t>(sizeof(ProtectedInfoEx)) + 2 * units;
}

void FillFixedWords(const ProtectedHeader& header, ProtectedInfoEx* info) {
  const ProtectedSector& fields = header.fields;
  // What only a GPT fills stays as the client had it where the disk has an MBR.
  const bool isMbr = fields.PartitionStyle == kPartitionStyleMbr;
  std::memset(static_cast<void*>(info), 0,
              isMbr ? offsetof(ProtectedInfoEx, usableOffset) : sizeof *info);
  info->reserved = 0;

  info->volumeValue1 = fields.VolumeValue1;
  info->volumeValue2 = fields.VolumeValue2;
  info->volumeValue3 = fields.VolumeValue3;
  info->volumeValue4 = fields.VolumeValue4;
  info->volumeValue5 = fields.VolumeValue5;
  info->volumeValue6 = fields.VolumeValue6;
  info->extraBytes = static_cast<std::uint32_t>(header.extraSectors.size());
  info->trailingSectors = fields.TrailingSectors;
  info->diskInfoPresent = fields.DiskInfoPresent != 0 ? 1 : 0;
  info->diskValue1 = fields.DiskValue1;
  info->diskValue2 = fields.DiskValue2;
  info->diskValue3 = fields.DiskValue3;
  info->partitionStyle = fields.PartitionStyle;
  info->partitionNumber = fields.PartitionNumber;
}

void FillFromGpt(const GptTable& table, ProtectedInfoEx* info) {
  info->tableFound = 1;
  std::memcpy(info->disk.gptDiskGuid, table.diskGuid, sizeof table.diskGuid);
  info->usableOffset = table.usableOffsetBytes;
  info->usableLength = table.usableLengthBytes;
  info->entryCount = table.entryCount;
  info->protectiveMbr = table.protectiveMbr ? 1 : 0;
  if (!table.partition) return;
  info->partitionFound = 1;
  info->partitionOffset = table.partition->offsetBytes;
  info->partitionLength = table.partition->lengthBytes;
  std::memcpy(info->typeGuid, table.partition->typeGuid, sizeof info->typeGuid);
  std::memcpy(info->uniqueGuid, table.partition->uniqueGuid, sizeof info->uniqueGuid);
  info->attributes = table.partition->attributes;
  std::memcpy(info->name, table.partition->name, sizeof info->name);
}

void FillFromMbr(const MbrTables& tables, ProtectedInfoEx* info) {
  info->tableFound = 1;
  info->disk.mbr.diskSignature = tables.diskSignature;
  if (!tables.partition) return;
  info->partitionFound = 1;
  info->partitionOffset = tables.partition->offsetBytes;
  info->partitionLength = tables.partition->lengthBytes;
  info->disk.mbr.active = tables.partition->active ? 1 : 0;
  info->disk.mbr.inMbr = tables.partition->inMbr ? 1 : 0;
  info->disk.mbr.partitionType = tables.partition->type;
  info->disk.mbr.sectorsInFront = tables.partition->sectorsInFront;
}

// Tables that are damaged leave the fields as they are.
void FillFromTables(const ProtectedHeader& header, ProtectedInfoEx* info) {
  const ProtectedSector& fields = header.fields;
  const std::uint32_t sectorSize = header.image.SectorSize;
  const std::size_t extraSectors = header.extraSectors.size() / sectorSize;
  if (fields.DiskInfoPresent == 0 || fields.TrailingSectors >= extraSectors) return;
  const std::span tables =
      header.extraSectors.first((extraSectors - fields.TrailingSectors) * sectorSize);

  if (fields.PartitionStyle == kPartitionStyleGpt) {
    const auto table = ReadGptTable(tables, sectorSize, fields.PartitionNumber);
    if (table) FillFromGpt(*table, info);
  } else if (fields.PartitionStyle == kPartitionStyleMbr) {
    const auto found = ReadMbrTables(tables, sectorSize, fields.PartitionNumber);
    if (found) FillFromMbr(*found, info);
  }
}

// Stores a text at *next, which moves behind it, and returns where it stands.
const std::uint16_t* StoreNextText(const WideText& text, std::uint8_t** next) {
  const std::uint8_t* const place = *next;
  *next += 2 * std::size_t{StoreText(text, text.length + 1, *next)};
  return reinterpret_cast<const std::uint16_t*>(place);
}

}  // namespace
}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileGetInfoProtectedEx(const char* path, const char* password,
                                                         uint32_t version, ProtectedInfoEx* info,
                                                         uint32_t* size) {
  using namespace kq;
  if (path == nullptr || size == nullptr || version != 0) return KQ_FAIL(kInvalidParameter);

  ProtectedHeader header;
  KQ_RETURN_IF_FAILED(ReadProtectedHeader(path, password, &header));
  const std::uint32_t sizeNeeded = SizeNeeded(header.texts);
  if (info == nullptr || *size < sizeNeeded) {
    *size = sizeNeeded;
    return KQ_FAIL(kMoreData);
  }
  FillFixedWords(header, info);
  FillFromTables(header, info);

  std::uint8_t* next = reinterpret_cast<std::uint8_t*>(info) + sizeof *info;
  info->firstText = StoreNextText(header.texts.first, &next);
  info->secondText = StoreNextText(header.texts.second, &next);
  info->thirdText = StoreNextText(header.texts.third, &next);
  info->list = StoreNextText(header.texts.list, &next);
  *size = sizeNeeded;
  return Success();
}
