#include "header/protected_header.h"

#include <algorithm>
#include <cstring>

#include "header/read_header.h"

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

}  // namespace

KQStatus ReadProtectedHeader(const char* path, const char* password, ProtectedHeader* header) {
  std::uint32_t headerBytes = 0;
  KQ_RETURN_IF_FAILED(
      ReadHeaderSectorsFromPath(path, password, 0, 0, false, &header->sectors, &headerBytes));
  const std::span<const std::uint8_t> whole = header->sectors.bytes();
  std::memcpy(&header->image, whole.data(), sizeof header->image);
  if (header->image.HeaderSectors < 2) return KQ_FAIL(kFileNotFound);

  // Of sectors smaller than the fields, these run on into what follows.
  const std::size_t sectorSize = header->image.SectorSize;
  header->fields = {};
  std::memcpy(&header->fields, whole.data() + sectorSize,
              std::min(sizeof header->fields, whole.size() - sectorSize));
  header->texts = SplitProtectedTexts(whole.subspan(sectorSize, sectorSize));
  header->extraSectors = whole.first(headerBytes).subspan(2 * sectorSize);
  return Success();
}

}  // namespace kq
