#include "kqimage/image/image_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageformat.h>

#include <algorithm>
#include <cstring>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

// Whether the file carries the magic of an image that is being written, or was given up.
bool IsUnfinished(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  char magic[4] = {};
  return file && pread(file.Get(), magic, sizeof magic, 0) == sizeof magic &&
         std::memcmp(magic, KQ_MAGIC_OPEN, sizeof magic) == 0;
}

}  // namespace

std::optional<ImageFile> TryReadImageFile(const std::string& path, std::string& why) {
  ImageFile file = {.path = path};
  const KQStatus status = KQImageFileGetInfo(path.c_str(), &file.info);
  if (status.status == KQ_STATUS_SUCCESS) return file;
  if (status.status == KQ_STATUS_FILE_CORRUPT && IsUnfinished(path)) {
    why = fmt::format(
        "it is unfinished: still being written, or left by a run that was cut short "
        "(status {})",
        status.status);
  } else {
    why = StatusText(status);
  }
  return std::nullopt;
}

ImageFile ReadImageFile(const std::string& path) {
  std::string why;
  std::optional<ImageFile> file = TryReadImageFile(path, why);
  if (!file) throw Failure(fmt::format("cannot read the image {}: {}", Printable(path), why));
  return *std::move(file);
}

bool IsBase(const ImageFileInfo& info) {
  return std::all_of(std::begin(info.parentImageId), std::end(info.parentImageId),
                     [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace kqimage
