// A parent image's header becomes that of its child.
#include <algorithm>

#include "foundation/little_endian.h"
#include "sparse/convert_sparse.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

const char* PasswordOf(const OpenImageFile& parent) {
  return parent.Password ? parent.Password.text() : nullptr;
}

// Sector 0 of the parent as the template of the new header, behind which the further sectors are
// still zero.
KQStatus PrepareHeaderOfChild(const OpenImageFile& parent, NewImageFileOwner* image) {
  HeapBuffer sector = HeapBuffer::AllocateAlignedZeroed(kSectorAlignment, parent.WorkSectorSize);
  if (!sector) return KQ_FAIL(kNotEnoughMemory);
  sector.WipeWhenFreed(sector.size());
  std::uint32_t count = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(parent.File, 0, sector.data(), parent.SectorSize, &count));
  // The size in the file may have changed since the parent was opened. What was read is a sector of
  // the size that it had then.
  StoreU32(sector.data() + offsetof(ImageHeader, SectorSize), parent.SectorSize);
  return PrepareHeader(sector.data(), nullptr, parent.HeaderSectors - 1, image);
}

// The further sectors go under the new key later, and come deciphered for that.
KQStatus TakeFurtherSectors(const OpenImageFile& parent, NewImageFile* image) {
  const std::uint32_t sectorSize = image->SectorSize;
  const std::uint32_t headerBytes = image->headerBytes();
  if (headerBytes <= sectorSize) return Success();
  std::uint8_t* header = image->Header.data();
  std::uint32_t count = 0;
  KQ_RETURN_IF_FAILED(OSFileReadAligned(parent.File, sectorSize, header + sectorSize,
                                        headerBytes - sectorSize, &count));
  return DecryptTemplateSectors(sectorSize, header, headerBytes, PasswordOf(parent));
}

}  // namespace

KQStatus BuildIncrementalFromSparse(SparseFile* sparse, const OpenImageFile& parent,
                                    const NewIncrement& wanted) {
  NewImageFileOwner image;
  KQ_RETURN_IF_FAILED(PrepareHeaderOfChild(parent, &image));
  KQ_RETURN_IF_FAILED(TakeFurtherSectors(parent, image.get()));
  // The record's carried values pass from the parent to the child as they are.
  image->ReplaceCarriedValues = false;
  KQ_RETURN_IF_FAILED(AssignImageIdentifiers(image->header(), wanted.imageId));
  image->header()->SourceSize =
      wanted.sourceSize != nullptr ? *wanted.sourceSize : parent.SourceSize;
  KQ_RETURN_IF_FAILED(OpenNewImageFile(image.get(), wanted.fileName, PasswordOf(parent)));

  const SparseGatePass pass(sparse->Gate.get());
  static_cast<void>(DrainSparseTree(sparse, image.get()));
  return FinishNewImageFile(&image, wanted.comment);
}

}  // namespace kq
