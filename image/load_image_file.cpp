// Reads the parameters of one image file: its header, key, tail and chunk index.
#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "codec/all_zero.h"
#include "codec/compressor.h"
#include "foundation/little_endian.h"
#include "image/chunk_index.h"
#include "image/open_image_file.h"
#include "image/shared_compressor.h"
#include "kqimageformat.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

constexpr std::uint64_t kLargestHeader = 0xFFFFF;

bool HeaderIsReadable(const ImageHeader& header) {
  const bool knownSectorSize = header.SectorSize == 256 || header.SectorSize == 512 ||
                               header.SectorSize == 1024 || header.SectorSize == 2048 ||
                               header.SectorSize == 4096;
  return std::memcmp(header.Magic, KQ_MAGIC_FINISHED, sizeof header.Magic) == 0 &&
         header.HeaderSectors != 0 && knownSectorSize &&
         std::uint64_t{header.SectorSize} * header.HeaderSectors <= kLargestHeader;
}

// Sector 0 is read into it, with the key blob: wiped when it goes.
struct WipedSector {
  alignas(kSectorAlignment) std::uint8_t bytes[kLargestWorkSector] = {};

  WipedSector() = default;
  WipedSector(const WipedSector&) = delete;
  WipedSector& operator=(const WipedSector&) = delete;
  ~WipedSector() { Wipe(bytes, sizeof bytes); }
};

// Leaves sector 0 in the buffer, which has room for the largest sector.
KQStatus ReadHeader(OpenImageFile* file, std::uint8_t* sector) {
  KQ_RETURN_IF_FAILED(ReadWorkSector(*file, 0, sector));
  ImageHeader header;
  std::memcpy(&header, sector, sizeof header);
  if (!HeaderIsReadable(header)) return KQ_FAIL(kFileCorrupt);

  file->HeaderSectors = header.HeaderSectors;
  file->SectorSize = header.SectorSize;
  file->SourceSize = header.SourceSize;
  std::memcpy(file->ImageId, header.ImageId, sizeof file->ImageId);
  std::memcpy(file->ParentImageId, header.ParentImageId, sizeof file->ParentImageId);
  std::memcpy(file->ImageSetId, header.ImageSetId, sizeof file->ImageSetId);
  file->Generation = header.Generation;
  file->NextGeneration = header.NextGeneration;
  file->PartIndex = header.PartIndex;
  file->CompressionType = header.CompressionType;
  file->EncryptionType = header.EncryptionType;
  file->KeyBlobLength = header.KeyBlobLength;

  if (file->SectorSize <= file->WorkSectorSize) return Success();
  file->WorkSectorSize = file->SectorSize;
  return ReadWorkSector(*file, 0, sector);
}

KQStatus SetUpCompression(OpenImageFile* file) {
  switch (file->CompressionType) {
    case kCompressionNone:
    case kCompressionLzo:
      return Success();
    case kCompressionLzoHuffman:
      KQ_RETURN_IF_FAILED(SharedCompressorAcquire());
      file->usesSharedCompressor = true;
      return Success();
    default:
      return KQ_FAIL(kUnsupportedType);
  }
}

KQStatus SetUpKey(OpenImageFile* file, const std::uint8_t* firstSector) {
  if (file->KeyBlobLength == 0 || !file->Password) return KQ_FAIL(kInvalidPassword);
  if (sizeof(ImageHeader) + file->KeyBlobLength > file->WorkSectorSize) {
    return KQ_FAIL(kFileCorrupt);
  }
  file->KeyBlob = SecretBuffer::CopyOf(firstSector + sizeof(ImageHeader), file->KeyBlobLength);
  if (!file->KeyBlob) return KQ_FAIL(kNotEnoughMemory);
  file->Crypto = MakeOwned<CryptoContext>();
  if (!file->Crypto) return KQ_FAIL(kNotEnoughMemory);
  file->Crypto->type = file->EncryptionType;
  // Whatever is wrong with the blob or the password, to the client the password does not open it.
  if (Failed(ImageKeyOpen(file->Crypto.get(), file->Password.text(), file->KeyBlob.data(),
                          file->KeyBlobLength))) {
    return KQ_FAIL(kInvalidPassword);
  }
  return Success();
}

// Finds the ChunkIndex through the file's last sector. The sector's buffer is not cleared between
// the two reads: an index offset beyond the file's end leaves the pointer in it, which then does
// not pass for an index.
KQStatus FindIndex(OpenImageFile* file, std::uint8_t* sector) {
  KQ_RETURN_IF_FAILED(OSFileGetSize(file->File.file, &file->FileSize));
  const auto pointerOffset = static_cast<std::int64_t>(file->FileSize - file->WorkSectorSize);
  if (pointerOffset < static_cast<std::int64_t>(file->HeaderBytes())) {
    return KQ_FAIL(kFileCorrupt);
  }
  std::uint32_t count = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(file->File, static_cast<std::uint64_t>(pointerOffset),
                                        sector, file->WorkSectorSize, &count));
  if (!IsAllZero(sector + sizeof(IndexPointerSector),
                 file->WorkSectorSize - sizeof(IndexPointerSector))) {
    return KQ_FAIL(kFileCorrupt);
  }
  file->IndexOffset = LoadU64(sector + offsetof(IndexPointerSector, IndexOffset));
  if (static_cast<std::int64_t>(file->IndexOffset) < std::int64_t{file->WorkSectorSize}) {
    return KQ_FAIL(kFileCorrupt);
  }

  KQ_RETURN_IF_FAILED(
      OSFileReadAligned(file->File, file->IndexOffset, sector, file->WorkSectorSize, &count));
  if (LoadU32(sector + offsetof(ChunkIndexHead, Zero)) != 0) return KQ_FAIL(kFileCorrupt);
  file->LastPart = LoadU32(sector + offsetof(ChunkIndexHead, LastPart));
  file->IndexLength = LoadU32(sector + offsetof(ChunkIndexHead, IndexLength));
  return Success();
}

}  // namespace

KQStatus LoadImageFile(const char* path, const char* password, Owned<OpenImageFile>* result) {
  result->reset();
  Owned<OpenImageFile> file = MakeOwned<OpenImageFile>();
  if (!file) return KQ_FAIL(kNotEnoughMemory);
  if (password != nullptr) {
    file->Password = SecretBuffer::CopyOfString(password);
    if (!file->Password) return KQ_FAIL(kNotEnoughMemory);
  }
  std::memcpy(file->Path, path, strnlen(path, kLongestPath));

  OSFile* opened = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(path, O_RDONLY, 0, &opened));
  file->File = MakeAlignedFile(opened);

  WipedSector sector;
  KQ_RETURN_IF_FAILED(ReadHeader(file.get(), sector.bytes));
  KQ_RETURN_IF_FAILED(SetUpCompression(file.get()));
  if (file->EncryptionType != 0) KQ_RETURN_IF_FAILED(SetUpKey(file.get(), sector.bytes));
  KQ_RETURN_IF_FAILED(FindIndex(file.get(), sector.bytes));
  KQ_RETURN_IF_FAILED(ReadChunkIndex(file.get()));
  *result = std::move(file);
  return Success();
}

}  // namespace kq
