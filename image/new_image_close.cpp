// From a file with the magic "OPEN" to an image, or to no file at all.
#include <cstring>

#include "foundation/little_endian.h"
#include "image/header_tail.h"
#include "image/new_image_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

constexpr std::uint32_t kOnlyPart = 0xFFFFFFFF;

// Completes the index block in memory.
void CompleteIndex(NewImageFile* image) {
  std::uint8_t* block = image->IndexBuffer.data();
  RunWriter* runs = &image->IndexRuns;
  auto used = static_cast<std::uint32_t>(runs->Cursor - block) -
              static_cast<std::uint32_t>(sizeof(ChunkIndexHead));
  if (runs->Cursor < runs->End) {
    *runs->Cursor = kRunListEnd;
    std::memset(runs->Cursor + 1, 0, static_cast<std::size_t>(runs->End - runs->Cursor - 1));
    used += 1;
  }
  StoreU64(block + offsetof(ChunkIndexHead, Zero), 0);
  StoreU32(block + offsetof(ChunkIndexHead, LastPart), kOnlyPart);
  StoreU32(block + offsetof(ChunkIndexHead, IndexLength), used);
}

// Appends the index block and the sector that points to it.
KQStatus WriteIndex(NewImageFile* image) {
  std::uint64_t indexOffset = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(image->File.get(), &indexOffset));
  KQ_RETURN_IF_FAILED(OSFileSeekWrite(image->File.get(), indexOffset, image->IndexBuffer.data(),
                                      image->IndexCapacity));
  HeapBuffer pointer = HeapBuffer::AllocateZeroed(image->SectorSize);
  if (!pointer) return KQ_FAIL(kNotEnoughMemory);
  StoreU64(pointer.data() + offsetof(IndexPointerSector, IndexOffset), indexOffset);
  return OSFileSeekWrite(image->File.get(), indexOffset + image->IndexCapacity, pointer.data(),
                         image->SectorSize);
}

}  // namespace

KQStatus FinishNewImageFile(NewImageFileOwner* owner, const char* comment) {
  NewImageFile* image = owner->get();
  // A close writes what it can: a last chunk that can't be written is missing from the image, and
  // the chunks before it are saved.
  static_cast<void>(FlushChunk(image));
  if (image->ChunkCount == 0) {
    KQ_RETURN_IF_FAILED(OSDeleteFileEx(image->File.get()));
    owner->reset();
    return Success();
  }
  CompleteIndex(image);
  KQ_RETURN_IF_FAILED(WriteIndex(image));
  if (!image->HeaderIsComplete) CompleteHeaderSector(image, comment);
  // The write that makes the file valid.
  KQ_RETURN_IF_FAILED(
      OSFileSeekWrite(image->File.get(), 0, image->Header.data(), image->SectorSize));
  owner->reset();
  return Success();
}

}  // namespace kq
