#include "image/header_tail.h"

#include <algorithm>
#include <cstring>

#include "crypto/header_checksums.h"
#include "crypto/text_conversion.h"
#include "foundation/little_endian.h"
#include "image/image_identifier.h"

namespace kq {
namespace {

constexpr std::uint32_t kUnitBytes = 2;  // of wide text
// RecordFlags of a record that this library completes: one bit is kept, the rest names the tool.
constexpr std::uint32_t kKeptRecordFlags = 0x100;
constexpr std::uint32_t kOwnRecordFlags = 0x28;

// Returns where the text may begin. That is behind the blob's bytes also if the blob itself does
// not fit, so that such a sector gets neither text nor record: nothing but a KeyBlobLength of 0,
// which refuses every password.
std::uint32_t PlaceKeyBlob(NewImageFile* image) {
  const std::uint32_t end = sizeof(ImageHeader) + image->KeyBlobSize;
  const bool stored = image->KeyBlobSize != 0 && end <= image->SectorSize;
  image->header()->KeyBlobLength = static_cast<std::uint16_t>(stored ? image->KeyBlobSize : 0);
  if (stored) {
    std::memcpy(image->Header.data() + sizeof(ImageHeader), image->KeyBlob.data(),
                image->KeyBlobSize);
  }
  return end;
}

// Fills the sector from textStart to its end: the text, always with a NUL behind it, and zeros.
void PlaceComment(NewImageFile* image, std::uint32_t textStart, const char* comment) {
  std::uint8_t* text = image->Header.data() + textStart;
  const std::uint32_t span = image->SectorSize - textStart;
  std::memset(text, 0, span);
  if (comment == nullptr || span < 2 * kUnitBytes) return;
  const std::size_t length = std::strlen(comment);
  if (length > UINT32_MAX) return;
  const SecretBuffer units = Utf8ToUtf16(comment, static_cast<std::uint32_t>(length));
  if (!units) return;
  const std::size_t room = span / kUnitBytes - 1;
  const std::size_t count = units.size() / kUnitBytes - 1;
  std::memcpy(text, units.data(), std::min(room, count) * kUnitBytes);
}

// Finds the record's place behind the text's NUL. Where the text leaves no room, the record
// overwrites its end: a record is worth more than the last words of a comment. Returns 0 if there
// is no room at all.
std::uint32_t MakeRoomForRecord(NewImageFile* image, std::uint32_t textStart) {
  std::uint8_t* sector = image->Header.data();
  const auto hasRoomBehind = [&](std::uint32_t nul) {
    return nul + kUnitBytes + sizeof(ExtendedRecord) <= image->SectorSize;
  };
  std::uint32_t position = textStart;
  while (hasRoomBehind(position) && LoadU16(sector + position) != 0) position += kUnitBytes;
  if (hasRoomBehind(position)) return position + kUnitBytes;
  if (position == textStart) return 0;
  StoreU16(sector + position - kUnitBytes, 0);
  return position;
}

void PlaceRecord(NewImageFile* image, std::uint32_t position) {
  std::uint8_t* sector = image->Header.data();
  ImageHeader* header = image->header();
  header->Flags |= KQ_FLAG_EXTENDED_RECORD;
  std::memset(sector + position, 0, image->SectorSize - position);

  ::ExtendedRecord record = image->ExtendedRecord;
  record.RecordFlags = (record.RecordFlags & kKeptRecordFlags) | kOwnRecordFlags;
  record.HeaderCrc = 0;
  record.ExtraCrc = 0;
  GenerateIdentifier(record.FileUuid);
  GenerateIdentifier(record.SecondUuid);
  std::memset(record.SnapshotSetId, 0, sizeof record.SnapshotSetId);
  if (image->ReplaceCarriedValues) {
    record.CarriedValue1 = image->CarriedValues[0];
    record.CarriedValue2 = image->CarriedValues[1];
  }
  if (header->HeaderSectors == 1) {
    record.CarriedValue3 = 0;
  } else {
    record.ExtraCrc = ComputeExtraCrc(sector);
  }
  std::memcpy(sector + position, &record, sizeof record);
  // Every other byte of the sector must be final for this one.
  const std::uint32_t headerCrc = ComputeHeaderCrc(sector, sector + position);
  StoreU32(sector + position + offsetof(::ExtendedRecord, HeaderCrc), headerCrc);
}

}  // namespace

void CompleteHeaderSector(NewImageFile* image, const char* comment) {
  std::memcpy(image->header()->Magic, KQ_MAGIC_FINISHED, sizeof(ImageHeader::Magic));
  const std::uint32_t textStart = PlaceKeyBlob(image);
  if (textStart < image->SectorSize) PlaceComment(image, textStart, comment);
  if (!image->HasExtendedRecord) return;
  const std::uint32_t position = MakeRoomForRecord(image, textStart);
  if (position != 0) PlaceRecord(image, position);
}

}  // namespace kq
