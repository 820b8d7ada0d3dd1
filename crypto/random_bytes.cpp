#include <fcntl.h>

#include "crypto/image_key.h"
#include "foundation/os_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "crypto";

}  // namespace

KQStatus RandomBytes(std::uint32_t count, std::uint8_t* buffer) {
  OSFile* opened = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen("/dev/urandom", O_RDONLY, 0, &opened));
  const OSFileOwner device(opened);

  while (count != 0) {
    std::uint64_t bytesRead = 0;
    KQ_RETURN_IF_FAILED(OSFileRead(device.get(), buffer, count, &bytesRead));
    // The device has no end. Whatever stands in its place and has one must not make a weak key, nor
    // hold the caller here for ever.
    if (bytesRead == 0 || bytesRead > count) return KQ_FAIL(kGenFailure);
    buffer += bytesRead;
    count -= static_cast<std::uint32_t>(bytesRead);
  }
  return Success();
}

}  // namespace kq
