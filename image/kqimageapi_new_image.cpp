// The exported functions of new images. A handle is the object's address.
#include <cstdint>

#include "foundation/little_endian.h"
#include "image/new_image_file.h"
#include "kqimageapi.h"

namespace {

constexpr char kModule[] = "kqimageapi";

kq::NewImageFile* ObjectOf(std::uint64_t handle) {
  return reinterpret_cast<kq::NewImageFile*>(static_cast<std::uintptr_t>(handle));
}

}  // namespace

extern "C" {

KQ_API KQStatus KQNewImageFileCreate2(const void* headerTemplate, uint32_t templateBytes,
                                      const char* password, const char* fileName,
                                      const uint64_t* sourceSize, const uint64_t* carriedValue1,
                                      const uint64_t* carriedValue2, const uint8_t* imageId,
                                      uint64_t* handle) {
  if (handle == nullptr) return KQ_FAIL(kInvalidParameter);
  *handle = 0;
  const auto* bytes = static_cast<const std::uint8_t*>(headerTemplate);
  constexpr std::uint32_t kSizeKnown = offsetof(ImageHeader, HeaderSectors);
  if (bytes == nullptr || templateBytes < kSizeKnown) return KQ_FAIL(kInvalidParameter);
  const std::uint32_t sectorSize = kq::LoadU32(bytes + offsetof(ImageHeader, SectorSize));
  if (sectorSize == 0) return KQ_FAIL(kInvalidParameter);

  kq::NewImageFileOwner image;
  KQ_RETURN_IF_FAILED(kq::CreateNewImageFile({.headerTemplate = bytes,
                                              .templateBytes = templateBytes,
                                              .password = password,
                                              .fileName = fileName,
                                              .sourceSize = sourceSize,
                                              .carriedValue1 = carriedValue1,
                                              .carriedValue2 = carriedValue2,
                                              .imageId = imageId},
                                             &image));
  *handle = reinterpret_cast<std::uintptr_t>(image.release());
  return kq::Success();
}

KQ_API KQStatus KQNewImageFileWrite(uint64_t handle, const void* data, uint32_t size,
                                    uint64_t offset) {
  // Before anything is looked at.
  if (size == 0) return kq::Success();
  if (handle == 0 || data == nullptr) return KQ_FAIL(kInvalidParameter);
  return kq::AppendSectors(ObjectOf(handle), static_cast<const std::uint8_t*>(data), size, offset);
}

KQ_API KQStatus KQNewImageFileClose(uint64_t handle, const char* comment) {
  if (handle == 0) return KQ_FAIL(kInvalidParameter);
  kq::NewImageFileOwner image(ObjectOf(handle));
  const KQStatus status = kq::FinishNewImageFile(&image, comment);
  // What a failure left alive still belongs to the client's handle.
  static_cast<void>(image.release());
  return status;
}

}  // extern "C"
