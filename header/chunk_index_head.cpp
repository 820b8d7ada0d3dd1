#include <fcntl.h>

#include <algorithm>

#include "foundation/little_endian.h"
#include "header/read_header.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

// Enough for every block size that an aligned read wants.
constexpr std::uint64_t kReadAlignment = 4096;

}  // namespace

KQStatus ReadChunkIndexHead(const char* path, const ImageHeader* header, HeapBuffer* head) {
  head->Reset();
  if (path == nullptr || header == nullptr) return KQ_FAIL(kInvalidParameter);
  OSFile* opened = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(path, O_RDONLY, 0, &opened));
  const OSFileOwner owner(opened);
  const OSAlignedFile file = MakeAlignedFile(opened);

  // The header's size is a product of two 32-bit numbers, so it can't overflow.
  const std::uint32_t sectorSize = header->SectorSize;
  const std::uint64_t headerBytes = std::uint64_t{sectorSize} * header->HeaderSectors;
  std::uint64_t fileSize = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(opened, &fileSize));
  if (fileSize < sectorSize || fileSize - sectorSize < headerBytes) return KQ_FAIL(kFileCorrupt);

  // After the size is known to be one that the file can hold.
  HeapBuffer sector = HeapBuffer::AllocateAlignedZeroed(
      kReadAlignment, std::max<std::uint64_t>(sectorSize, sizeof(ChunkIndexHead)));
  if (!sector) return KQ_FAIL(kNotEnoughMemory);

  std::uint32_t bytesRead = 0;
  KQ_RETURN_IF_FAILED(
      OSFileReadAligned(file, fileSize - sectorSize, sector.data(), sectorSize, &bytesRead));
  const std::span<const std::uint8_t> behindPointer =
      sector.bytes().subspan(sizeof(IndexPointerSector));
  if (!std::all_of(behindPointer.begin(), behindPointer.end(),
                   [](std::uint8_t byte) { return byte == 0; })) {
    return KQ_FAIL(kFileCorrupt);
  }
  const std::uint64_t indexOffset = LoadU64(sector.data());
  if (indexOffset < headerBytes) return KQ_FAIL(kFileCorrupt);

  // The same buffer: where the index's place lies beyond the file's end, what stands here stays,
  // and reads as an index whose image goes on in another part.
  KQ_RETURN_IF_FAILED(OSFileReadAligned(file, indexOffset, sector.data(), sectorSize, &bytesRead));
  *head = std::move(sector);
  return Success();
}

}  // namespace kq
