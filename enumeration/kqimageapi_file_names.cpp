// The exported functions that derive file names. They take no handle and no lock.
#include <string>

#include "enumeration/exported_frame.h"
#include "enumeration/file_list_format.h"
#include "enumeration/file_names.h"
#include "kqimageapi.h"

namespace {

constexpr char kModule[] = "kqimageapi";

KQStatus NextFileName(const char* path, const char* tag, char* buffer, std::uint32_t* size) {
  if (path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return kq::WithoutExceptions([&]() -> KQStatus {
    std::string next;
    KQ_RETURN_IF_FAILED(kq::NextFileNameFrom(path, tag, &next));
    // Unlike the list queries, these tell the size on success as well.
    const KQStatus status = kq::DeliverText(next, buffer, size);
    *size = static_cast<std::uint32_t>(next.size() + 1);
    return status;
  });
}

}  // namespace

extern "C" {

KQ_API KQStatus KQImageGetNextAvailableImageFileName(const char* path, char* buffer,
                                                     uint32_t* size) {
  return NextFileName(path, "-i", buffer, size);
}

KQ_API KQStatus KQImageGetNextAvailableMountGeneratedImageFileName(const char* path, char* buffer,
                                                                   uint32_t* size) {
  return NextFileName(path, "-m", buffer, size);
}

KQ_API KQStatus KQImageFilesEnumerationQueryImageKeyFileName(const char* path, char* buffer,
                                                             uint32_t* size) {
  if (path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return kq::WithoutExceptions([&]() -> KQStatus {
    std::string name;
    KQ_RETURN_IF_FAILED(kq::KeyFileNameFrom(path, &name));
    return kq::DeliverText(name, buffer, size);
  });
}

}  // extern "C"
