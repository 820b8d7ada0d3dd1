#include <cstring>

#include "header/read_header.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

// Hands out the header's sectors from start to its end. *size is stored only when the sectors could
// be read; without a buffer, asking for the size is all that is done, and no failure.
KQStatus QueryHeaderSectors(const char* path, const char* password, std::uint64_t start,
                            void* buffer, std::uint32_t* size) {
  if (path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  HeapBuffer sectors;
  std::uint32_t sizeNeeded = 0;
  KQ_RETURN_IF_FAILED(
      ReadHeaderSectorsFromPath(path, password, start, 0, false, &sectors, &sizeNeeded));

  const std::uint32_t room = *size;
  *size = sizeNeeded;
  if (buffer == nullptr) return Success();
  if (room < sizeNeeded) return KQ_FAIL(kMoreData);
  std::memcpy(buffer, sectors.data(), sizeNeeded);
  return Success();
}

}  // namespace
}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileGetAllHeaderSectors(const char* path, const char* password,
                                                          void* buffer, uint32_t* size) {
  return kq::QueryHeaderSectors(path, password, 0, buffer, size);
}

extern "C" KQ_API KQStatus KQImageFileGetExtraSectors(const char* path, const char* password,
                                                      void* buffer, uint32_t* size) {
  return kq::QueryHeaderSectors(path, password, 2, buffer, size);
}
