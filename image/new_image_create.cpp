// From a header template to a file with the magic "OPEN".
#include <fcntl.h>

#include <algorithm>
#include <cstring>

#include "crypto/text_conversion.h"
#include "foundation/little_endian.h"
#include "header/extended_record.h"
#include "image/creation_time.h"
#include "image/image_identifier.h"
#include "image/new_image_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

constexpr std::uint32_t kFullRunEntry = 12;  // a list's first entry
constexpr std::uint32_t kNewFileMode = 0644;
constexpr std::uint32_t kVectorBytes = 16;

// Readers accept five sector sizes, the writer whatever can work. Below this size a chunk could
// not tell where its data belongs.
constexpr std::uint32_t kSmallestSectorSize = sizeof(ChunkHead) + kFullRunEntry;

KQStatus AllocateBuffers(NewImageFile* image, std::uint32_t headerBytes) {
  const std::uint32_t sectorSize = image->SectorSize;
  image->Header = HeapBuffer::Allocate(headerBytes);
  if (!image->Header) return KQ_FAIL(kNotEnoughMemory);
  image->Header.WipeWhenFreed(headerBytes);

  KQ_RETURN_IF_FAILED(PrepareChunk(&image->Chunk, sectorSize, kHeaderAndChunkBytes - headerBytes));

  image->IndexBuffer = HeapBuffer::AllocateZeroed(std::max<std::uint32_t>(sectorSize, 4096));
  if (!image->IndexBuffer) return KQ_FAIL(kNotEnoughMemory);
  image->IndexCapacity = sectorSize;
  return Success();
}

void CopyExtendedRecord(NewImageFile* image) {
  const ImageHeader* header = image->header();
  if ((header->Flags & KQ_FLAG_EXTENDED_RECORD) == 0) return;
  const std::uint8_t* sector = image->Header.data();
  const auto place = FindExtendedRecord({sector, image->SectorSize}, RecordLimit::kSectorEnd);
  if (!place) return;
  std::memcpy(&image->ExtendedRecord, sector + *place, sizeof image->ExtendedRecord);
  image->HasExtendedRecord = true;
}

// Deciphers the sectors behind the first. The blob is copied, since opening it destroys the copy.
KQStatus DecipherFurtherSectors(std::uint32_t sectorSize, std::uint8_t* header,
                                std::uint32_t headerBytes, const char* password) {
  const auto* fixed = reinterpret_cast<const ImageHeader*>(header);
  if (fixed->EncryptionType == 0 || headerBytes <= sectorSize) return Success();
  if (password == nullptr) return KQ_FAIL(kInvalidParameter);
  const Owned<CryptoContext> key = MakeOwned<CryptoContext>();
  if (!key) return KQ_FAIL(kNotEnoughMemory);
  key->type = fixed->EncryptionType;

  const std::uint32_t blobLength = fixed->KeyBlobLength;
  SecretBuffer blob = SecretBuffer::AllocateZeroed(blobLength);
  if (!blob) return KQ_FAIL(kNotEnoughMemory);
  // A blob that claims more than the header holds is as wrong as any other: its length or its test
  // value refuses it.
  const auto held = std::min<std::size_t>(blobLength, headerBytes - sizeof(ImageHeader));
  std::memcpy(blob.data(), header + sizeof(ImageHeader), held);
  KQ_RETURN_IF_FAILED(ImageKeyOpen(key.get(), password, blob.data(), blobLength));

  std::uint8_t vector[kVectorBytes] = {};
  std::uint8_t* further = header + sectorSize;
  return ImageDecipherRun(*key, further, further, headerBytes - sectorSize, vector);
}

KQStatus MakeKey(NewImageFile* image, std::uint32_t type, const char* password) {
  if (type == KQ_ENCRYPTION_NONE) return Success();
  if (password == nullptr) return KQ_FAIL(kInvalidParameter);
  image->KeyBlob = SecretBuffer::AllocateZeroed(kLargestKeyBlob);
  image->Key = MakeOwned<CryptoContext>();
  if (!image->KeyBlob || !image->Key) return KQ_FAIL(kNotEnoughMemory);
  image->Key->type = type;

  const std::size_t length = std::strlen(password);
  if (length > UINT32_MAX) return KQ_FAIL(kInvalidPassword);
  const SecretBuffer units = Utf8ToUtf16(password, static_cast<std::uint32_t>(length));
  if (!units) return KQ_FAIL(kInvalidPassword);
  const auto unitBytes = static_cast<std::uint32_t>(units.size() - sizeof(std::uint16_t));
  return ImageKeyCreate(image->Key.get(), units.data(), unitBytes, image->KeyBlob.data(),
                        &image->KeyBlobSize);
}

KQStatus EncipherFurtherSectors(NewImageFile* image) {
  if (!image->Key || image->headerBytes() <= image->SectorSize) return Success();
  std::uint8_t vector[kVectorBytes] = {};
  std::uint8_t* further = image->Header.data() + image->SectorSize;
  if (Failed(ImageEncipherRun(*image->Key, further, further,
                              image->headerBytes() - image->SectorSize, vector))) {
    return KQ_FAIL(kEncryptionFailed);
  }
  return Success();
}

}  // namespace

KQStatus PrepareHeader(const std::uint8_t* headerTemplate, const std::uint8_t* rest,
                       std::uint32_t furtherSectors, NewImageFileOwner* image) {
  image->reset();
  const std::uint8_t* magic = headerTemplate + offsetof(ImageHeader, Magic);
  const std::uint32_t sectorSize = LoadU32(headerTemplate + offsetof(ImageHeader, SectorSize));
  const std::uint64_t headerSectors = std::uint64_t{furtherSectors} + 1;
  const std::uint64_t headerBytes = headerSectors * sectorSize;  // both fit 33 bits
  if (std::memcmp(magic, KQ_MAGIC_FINISHED, sizeof(ImageHeader::Magic)) != 0 || sectorSize == 0 ||
      headerBytes > kHeaderAndChunkBytes) {
    return KQ_FAIL(kInvalidParameter);
  }
  if (headerBytes < sizeof(ImageHeader) || sectorSize < kSmallestSectorSize) {
    return KQ_FAIL(kInvalidParameter);
  }

  NewImageFileOwner made(MakeOwned<NewImageFile>().release());
  if (!made) return KQ_FAIL(kNotEnoughMemory);
  made->SectorSize = sectorSize;
  KQ_RETURN_IF_FAILED(AllocateBuffers(made.get(), static_cast<std::uint32_t>(headerBytes)));
  std::memcpy(made->Header.data(), headerTemplate, sectorSize);
  std::uint8_t* further = made->Header.data() + sectorSize;
  if (rest != nullptr) {
    std::memcpy(further, rest, headerBytes - sectorSize);
  } else {
    std::memset(further, 0, headerBytes - sectorSize);
  }
  CopyExtendedRecord(made.get());

  ImageHeader* header = made->header();
  std::memcpy(header->Magic, KQ_MAGIC_OPEN, sizeof header->Magic);
  header->Flags &= ~KQ_FLAG_EXTENDED_RECORD;
  header->HeaderSectors = static_cast<std::uint32_t>(headerSectors);
  header->PartMarker = 0;
  header->PartIndex = 0;
  StampCreationTime(header);

  made->IndexRuns.Cursor = made->IndexBuffer.data() + sizeof(ChunkIndexHead);
  made->IndexRuns.End = made->IndexBuffer.data() + sectorSize;
  *image = std::move(made);
  return Success();
}

KQStatus DecryptTemplateSectors(std::uint32_t sectorSize, std::uint8_t* header,
                                std::uint32_t headerBytes, const char* password) {
  const KQStatus status = DecipherFurtherSectors(sectorSize, header, headerBytes, password);
  if (sectorSize > sizeof(ImageHeader)) {
    Wipe(header + sizeof(ImageHeader), sectorSize - sizeof(ImageHeader));
  }
  return status;
}

KQStatus AssignImageIdentifiers(ImageHeader* header, const std::uint8_t* imageId) {
  std::uint32_t generation = header->Generation + 1;
  if (header->NextGeneration > header->Generation) generation = header->NextGeneration;
  std::memcpy(header->ParentImageId, header->ImageId, kIdentifierBytes);
  header->Generation = generation;
  header->NextGeneration = generation + 1;

  if (imageId == nullptr) {
    GenerateIdentifier(header->ImageId);
    return Success();
  }
  constexpr std::uint8_t kZeroIdentifier[kIdentifierBytes] = {};
  if (std::memcmp(imageId, kZeroIdentifier, kIdentifierBytes) == 0 ||
      std::memcmp(imageId, header->ParentImageId, kIdentifierBytes) == 0) {
    return KQ_FAIL(kFileCorrupt);
  }
  std::memcpy(header->ImageId, imageId, kIdentifierBytes);
  return Success();
}

KQStatus OpenNewImageFile(NewImageFile* image, const char* fileName, const char* password) {
  const ImageHeader* header = image->header();
  KQ_RETURN_IF_FAILED(MakeCompressor(&image->Chunk, header->CompressionType));
  KQ_RETURN_IF_FAILED(MakeKey(image, header->EncryptionType, password));
  KQ_RETURN_IF_FAILED(EncipherFurtherSectors(image));

  OSFile* file = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(fileName, O_RDWR | O_CREAT | O_TRUNC, kNewFileMode, &file));
  image->File.reset(file);
  KQ_RETURN_IF_FAILED(OSFileSeekWrite(file, 0, image->Header.data(), image->headerBytes()));
  image->PreviousStoredBytes = static_cast<std::int32_t>(image->headerBytes());
  return Success();
}

KQStatus CreateNewImageFile(const NewImageOrder& order, NewImageFileOwner* image) {
  const std::uint32_t sectorSize =
      LoadU32(order.headerTemplate + offsetof(ImageHeader, SectorSize));
  // A template shorter than its first sector wraps around to a header of more than 1 MiB, which is
  // refused before anything of it is copied.
  const std::uint32_t furtherSectors = (order.templateBytes - sectorSize) / sectorSize;
  NewImageFileOwner made;
  KQ_RETURN_IF_FAILED(PrepareHeader(order.headerTemplate, order.headerTemplate + sectorSize,
                                    furtherSectors, &made));
  ImageHeader* header = made->header();
  KQ_RETURN_IF_FAILED(DecryptTemplateSectors(made->SectorSize, made->Header.data(),
                                             made->headerBytes(), order.password));
  if (made->HasExtendedRecord) {
    const ::ExtendedRecord& record = made->ExtendedRecord;
    const auto choose = [](const std::uint64_t* given, std::uint64_t old) {
      return given != nullptr ? *given : old;
    };
    made->ReplaceCarriedValues = true;
    made->CarriedValues[0] = choose(order.carriedValue1, record.CarriedValue1);
    made->CarriedValues[1] = choose(order.carriedValue2, record.CarriedValue2);
  }
  KQ_RETURN_IF_FAILED(AssignImageIdentifiers(header, order.imageId));
  if (order.sourceSize != nullptr) header->SourceSize = *order.sourceSize;
  KQ_RETURN_IF_FAILED(OpenNewImageFile(made.get(), order.fileName, order.password));
  *image = std::move(made);
  return Success();
}

}  // namespace kq
