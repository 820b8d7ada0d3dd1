// What the exported functions of this room have around their work: the handle is resolved, locked
// and given back, and no exception leaves the library.
#ifndef KQ_ENUMERATION_EXPORTED_FRAME_H
#define KQ_ENUMERATION_EXPORTED_FRAME_H

#include <cstdint>

#include "enumeration/image_files_enumeration.h"
#include "foundation/object_manager.h"
#include "foundation/status.h"

namespace kq {

// In a handler: -8 for a failed allocation, -1064 for anything else.
KQStatus StatusOfException() noexcept;

// Runs work, which gives a KQStatus and may throw.
template <class Work>
KQStatus WithoutExceptions(const Work& work) noexcept {
  try {
    return work();
  } catch (...) {
    return StatusOfException();
  }
}

// Holds an enumeration for one operation, alone.
class AcquiredEnumeration {
 public:
  AcquiredEnumeration() = default;
  AcquiredEnumeration(const AcquiredEnumeration&) = delete;
  AcquiredEnumeration& operator=(const AcquiredEnumeration&) = delete;
  ~AcquiredEnumeration() {
    if (record_ != nullptr) ObjectRelease(0, record_);
  }

  // -87 unknown handle, -1064 a lock failed; -2 for a handle without an object, which then stays
  // locked. No handle is without one: they are made by KQImageFilesEnumerationCreate alone.
  KQStatus Acquire(std::uint64_t handle);

  ImageFilesEnumeration& operator*() const { return *enumeration_; }

 private:
  ObjectRecord* record_ = nullptr;
  ImageFilesEnumeration* enumeration_ = nullptr;
};

// Runs work with the enumeration behind the handle.
template <class Work>
KQStatus WithEnumeration(std::uint64_t handle, const Work& work) noexcept {
  AcquiredEnumeration enumeration;
  KQ_RETURN_IF_FAILED(enumeration.Acquire(handle));
  return WithoutExceptions([&]() -> KQStatus { return work(*enumeration); });
}

}  // namespace kq

#endif
