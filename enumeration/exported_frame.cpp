#include "enumeration/exported_frame.h"

#include <new>

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

}  // namespace

KQStatus StatusOfException() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return KQ_FAIL(kNotEnoughMemory);
  } catch (...) {
    return KQ_FAIL(kExceptionInService);
  }
}

KQStatus AcquiredEnumeration::Acquire(std::uint64_t handle) {
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(ObjectAcquire(handle, 0, &record, &object));
  if (object == nullptr) return KQ_FAIL(kFileNotFound);
  record_ = record;
  enumeration_ = static_cast<ImageFilesEnumeration*>(object);
  return Success();
}

}  // namespace kq
