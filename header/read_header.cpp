#include "header/read_header.h"

#include <fcntl.h>

#include <cstring>
#include <limits>

#include "foundation/checked_math.h"
#include "header/header_cipher.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

constexpr std::uint32_t kFirstBadCompressionType = 7;
constexpr std::uint32_t kFirstBadEncryptionType = 5;
// Enough for every block size that an aligned read wants.
constexpr std::uint64_t kReadAlignment = 4096;

// Reads and checks what every image file begins with.
KQStatus ReadFixedHeader(const OSAlignedFile& file, ImageHeader* header) {
  std::uint32_t bytesRead = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(file, 0, header, sizeof *header, &bytesRead));
  if (bytesRead < sizeof *header) return KQ_FAIL(kInvalidData);

  constexpr std::uint8_t kNoId[sizeof header->ImageId] = {};
  if (std::memcmp(header->Magic, KQ_MAGIC_FINISHED, sizeof header->Magic) != 0 ||
      header->SectorSize == 0 || header->HeaderSectors == 0 ||
      header->CompressionType >= kFirstBadCompressionType ||
      header->EncryptionType >= kFirstBadEncryptionType ||
      std::memcmp(header->ImageId, kNoId, sizeof kNoId) == 0 ||
      std::memcmp(header->ImageId, header->ParentImageId, sizeof kNoId) == 0) {
    return KQ_FAIL(kFileCorrupt);
  }
  return Success();
}

// Reads length bytes of whole sectors to the front of a new buffer, which is zero behind them.
//
// A file that is too short fails, so that no client takes zeros for a part of the header. With
// tolerate what is missing reads as zero: those callers go on to the file's size or the header's
// checksums, which tell more.
//
// The read goes to an aligned place of the buffer, so that it takes the direct way wherever the
// sectors allow it, on which a short file is no failure. From there the bytes move to the front,
// because only memory that comes as zero from the system makes a header cheap that claims gigabytes
// of a file that holds none: what is not read is not touched.
KQStatus ReadSectors(const OSAlignedFile& file, std::uint64_t offset, std::uint64_t length,
                     bool tolerate, HeapBuffer* sectors) {
  if (length > std::numeric_limits<std::uint32_t>::max()) return KQ_FAIL(kNotEnoughMemory);
  HeapBuffer buffer = HeapBuffer::AllocateZeroed(length + kReadAlignment);
  if (!buffer) return KQ_FAIL(kNotEnoughMemory);

  const std::uint64_t misaligned = reinterpret_cast<std::uintptr_t>(buffer.data()) % kReadAlignment;
  const std::uint64_t shift = misaligned == 0 ? 0 : kReadAlignment - misaligned;
  std::uint8_t* const aligned = buffer.data() + shift;
  std::uint32_t bytesRead = 0;
  KQ_RETURN_IF_FAILED(
      OSFileReadAligned(file, offset, aligned, static_cast<std::uint32_t>(length), &bytesRead));
  // Sector 0 holds the KeyBlob, and the later ones are plain text soon.
  buffer.WipeWhenFreed(shift + bytesRead);
  if (bytesRead < length && !tolerate) {
    // As the read itself tells it of a buffer at any other place.
    return MakeStatus(StatusCode::kGenFailure, __LINE__, "kqos");
  }
  if (shift != 0) {
    std::memmove(buffer.data(), aligned, bytesRead);
    std::memset(buffer.data() + bytesRead, 0, shift);
  }
  buffer.WipeWhenFreed(bytesRead);
  *sectors = std::move(buffer);
  return Success();
}

// The sectors of a run that is enciphered from sector 1 on. With tolerate, a failed decipher leaves
// its record and the sectors as they are stored.
KQStatus ReadEncipheredSectors(const OSAlignedFile& file, const ImageHeader& header,
                               const char* password, std::uint64_t start, std::uint64_t count,
                               bool tolerate, HeapBuffer* sectors) {
  SecretBuffer keyBlob = SecretBuffer::AllocateZeroed(header.KeyBlobLength);
  if (!keyBlob) return KQ_FAIL(kNotEnoughMemory);
  std::uint32_t bytesRead = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(file, sizeof(ImageHeader), keyBlob.data(),
                                        header.KeyBlobLength, &bytesRead));
  if (bytesRead < header.KeyBlobLength) return KQ_FAIL(kInvalidData);

  // Sectors 1 onward are one run: to decipher a later sector, the run is read from its beginning.
  const std::uint64_t sectorSize = header.SectorSize;
  const std::uint64_t leadingSectors = start > 1 ? start - 1 : 0;
  const std::uint64_t plainSectors = start == 0 ? 1 : 0;
  std::uint64_t length = 0;
  if (!CheckedMultiply(count + leadingSectors, sectorSize, &length)) {
    return KQ_FAIL(kNotEnoughMemory);
  }
  HeapBuffer buffer;
  KQ_RETURN_IF_FAILED(
      ReadSectors(file, (start - leadingSectors) * sectorSize, length, tolerate, &buffer));
  const std::uint64_t plainBytes = plainSectors * sectorSize;
  const KQStatus deciphered = DecipherHeaderRun(
      header.EncryptionType, keyBlob.data(), header.KeyBlobLength, password,
      buffer.data() + plainBytes, static_cast<std::uint32_t>(length - plainBytes));
  if (Failed(deciphered) && !tolerate) return deciphered;

  if (leadingSectors != 0) {
    std::memmove(buffer.data(), buffer.data() + leadingSectors * sectorSize, count * sectorSize);
  }
  *sectors = std::move(buffer);
  return deciphered;
}

}  // namespace

KQStatus ReadHeaderSectors(const OSAlignedFile& file, const char* password, std::uint64_t start,
                           std::uint64_t count, bool tolerate, HeapBuffer* sectors,
                           std::uint32_t* size) {
  sectors->Reset();
  if (size != nullptr) *size = 0;

  ImageHeader header;
  KQ_RETURN_IF_FAILED(ReadFixedHeader(file, &header));
  const std::uint64_t headerSectors = header.HeaderSectors;
  if (headerSectors <= start || headerSectors - start < count) return KQ_FAIL(kFileNotFound);
  if (count == 0) count = headerSectors - start;

  // Sector 0 is plain in every image.
  const bool enciphered = headerSectors >= 2 && header.EncryptionType != KQ_ENCRYPTION_NONE &&
                          (count >= 2 || start != 0);
  KQStatus outcome;
  if (enciphered) {
    outcome = ReadEncipheredSectors(file, header, password, start, count, tolerate, sectors);
  } else {
    outcome =
        ReadSectors(file, start * header.SectorSize, count * header.SectorSize, tolerate, sectors);
  }
  if (!*sectors) return outcome;

  // Whatever has happened to the file since, callers size and place things by the checked values.
  if (start == 0) std::memcpy(sectors->data(), &header, sizeof header);
  if (size != nullptr) *size = static_cast<std::uint32_t>(count * header.SectorSize);
  return outcome;
}

KQStatus ReadHeaderSectorsFromPath(const char* path, const char* password, std::uint64_t start,
                                   std::uint64_t count, bool tolerate, HeapBuffer* sectors,
                                   std::uint32_t* size) {
  sectors->Reset();
  if (size != nullptr) *size = 0;

  OSFile* opened = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(path, O_RDONLY, 0, &opened));
  const OSFileOwner file(opened);
  return ReadHeaderSectors(MakeAlignedFile(opened), password, start, count, tolerate, sectors,
                           size);
}

}  // namespace kq
