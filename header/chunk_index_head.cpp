#include <fcntl.h>

#include <algorithm>
#include <cstring>

#include "foundation/little_endian.h"
#include "header/read_header.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

// Enough for every block size that an aligned read wants.
constexpr std::uint64_t kReadAlignment = 4096;

}  // namespace

KQStatus ReadChunkIndexHead(const OSAlignedFile& file, const ImageHeader& header,
                            HeapBuffer* head) {
  head->Reset();
  // The header's size is a product of two 32-bit numbers, so it can't overflow.
  const std::uint32_t sectorSize = header.SectorSize;
  const std::uint64_t headerBytes = std::uint64_t{sectorSize} * header.HeaderSectors;
  std::uint64_t fileSize = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(file.file, &fileSize));
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

KQStatus ReadHeaderAndIndexHead(const char* path, std::uint64_t count, HeapBuffer* sectors,
                                ChunkIndexHead* indexHead) {
  sectors->Reset();
  OSFile* opened = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(path, O_RDONLY, 0, &opened));
  const OSFileOwner owner(opened);
  const OSAlignedFile file = MakeAlignedFile(opened);

  // Sectors that come as they are stored come together with a failure for the password that nobody
  // gave. Who asks here wants no other, so it does not count.
  const KQStatus read = ReadHeaderSectors(file, nullptr, 0, count, true, sectors, nullptr);
  if (!*sectors) return read;
  ImageHeader header;
  std::memcpy(&header, sectors->data(), sizeof header);
  HeapBuffer index;
  KQ_RETURN_IF_FAILED(ReadChunkIndexHead(file, header, &index));
  std::memcpy(indexHead, index.data(), sizeof *indexHead);
  return Success();
}

}  // namespace kq
