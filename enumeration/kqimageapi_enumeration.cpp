// The exported functions of enumerations: argument checks, handles, and what a failure leaves.
#include <cstring>
#include <memory>

#include "enumeration/exported_frame.h"
#include "enumeration/lineage_queries.h"
#include "enumeration/locate_file.h"
#include "enumeration/scan_directory.h"
#include "enumeration/set_queries.h"
#include "enumeration/shortest_path.h"
#include "kqimageapi.h"

namespace {

using kq::EnumeratedFile;
using kq::FileList;
using kq::ImageFilesEnumeration;

constexpr char kModule[] = "kqimageapi";

// Where and how a client wants a list.
struct ListTarget {
  const char* separator;
  std::uint32_t flags;
  char* buffer;
  std::uint32_t* size;
};

// Delivers the list that find(enumeration, &files) makes.
template <class Find>
KQStatus ListFiles(std::uint64_t handle, const ListTarget& target, const Find& find) {
  return kq::WithEnumeration(handle, [&](ImageFilesEnumeration& enumeration) -> KQStatus {
    FileList files;
    KQ_RETURN_IF_FAILED(find(enumeration, &files));
    return kq::FileListFormat(files, target.flags, target.separator, target.buffer, target.size);
  });
}

// The same with find(enumeration, file, &files) for the file at path.
template <class Find>
KQStatus ListFilesAround(std::uint64_t handle, const char* path, const ListTarget& target,
                         const Find& find) {
  return ListFiles(handle, target, [&](ImageFilesEnumeration& enumeration, FileList* files) {
    EnumeratedFile* file = nullptr;
    KQ_RETURN_IF_FAILED(kq::LocateFile(enumeration, path, &file));
    return find(enumeration, file, files);
  });
}

}  // namespace

extern "C" {

KQ_API KQStatus KQImageFilesEnumerationCreate(uint64_t* handle, int32_t reserved1,
                                              uint64_t reserved2) {
  if (handle == nullptr || reserved1 != 0 || reserved2 != 0) return KQ_FAIL(kInvalidParameter);
  *handle = 0;
  return kq::WithoutExceptions([&]() -> KQStatus {
    auto enumeration = std::make_unique<ImageFilesEnumeration>();
    KQ_RETURN_IF_FAILED(kq::ObjectCreate(enumeration.get(), handle));
    static_cast<void>(enumeration.release());
    return kq::Success();
  });
}

KQ_API KQStatus KQImageFilesEnumerationClose(uint64_t handle) {
  if (handle == 0) return KQ_FAIL(kInvalidParameter);
  kq::ObjectRecord* record = nullptr;
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(kq::ObjectAcquire(handle, 1, &record, &object));
  if (object == nullptr) return KQ_FAIL(kFileNotFound);
  kq::ObjectRelease(1, record);
  delete static_cast<ImageFilesEnumeration*>(object);
  return kq::Success();
}

KQ_API KQStatus KQImageFilesEnumerationAddDirectory(uint64_t handle, const char* path,
                                                    int32_t reserved1, uint64_t reserved2) {
  if (handle == 0 || path == nullptr || reserved1 != 0 || reserved2 != 0) {
    return KQ_FAIL(kInvalidParameter);
  }
  return kq::WithEnumeration(handle, [&](ImageFilesEnumeration& enumeration) {
    return kq::ScanDirectory(&enumeration, path);
  });
}

KQ_API KQStatus KQImageFilesEnumerationQueryShortestPathToBase(uint64_t handle, const char* path,
                                                               const char* separator,
                                                               uint32_t flags, char* buffer,
                                                               uint32_t* size) {
  if (handle == 0 || path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return ListFilesAround(handle, path, {separator, flags, buffer, size}, kq::ShortestPathToBase);
}

// Declared for clients that ask whether it is there. The handle is looked at, the rest is not.
KQ_API KQStatus KQImageFilesEnumerationQueryPathToOldestParent(uint64_t handle, const char* path,
                                                               const char* /*separator*/,
                                                               uint32_t /*flags*/, char* /*buffer*/,
                                                               uint32_t* size) {
  if (handle == 0 || path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return kq::WithEnumeration(
      handle, [](ImageFilesEnumeration& /*enumeration*/) { return KQ_FAIL(kNotSupported); });
}

KQ_API KQStatus KQImageFilesEnumerationQueryImageHasDescendants(uint64_t handle, const char* path,
                                                                uint8_t* answer) {
  if (handle == 0 || path == nullptr || answer == nullptr) return KQ_FAIL(kInvalidParameter);
  return kq::WithEnumeration(handle, [&](ImageFilesEnumeration& enumeration) -> KQStatus {
    EnumeratedFile* file = nullptr;
    KQ_RETURN_IF_FAILED(kq::LocateFile(enumeration, path, &file));
    *answer = file->children.empty() ? 0 : 1;
    return kq::Success();
  });
}

KQ_API KQStatus KQImageFilesEnumerationQueryRoots(uint64_t handle, const char* path,
                                                  const char* separator, uint32_t flags,
                                                  char* buffer, uint32_t* size) {
  if (handle == 0 || path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return ListFilesAround(handle, path, {separator, flags, buffer, size},
                         [](const ImageFilesEnumeration& enumeration, const EnumeratedFile* file,
                            FileList* files) { return kq::FindRoots(enumeration, *file, files); });
}

KQ_API KQStatus KQImageFilesEnumerationQueryAllPureDependents(uint64_t handle, const char* path,
                                                              const char* separator, uint32_t flags,
                                                              char* buffer, uint32_t* size) {
  if (handle == 0 || path == nullptr || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return ListFilesAround(
      handle, path, {separator, flags, buffer, size},
      [](const ImageFilesEnumeration& enumeration, const EnumeratedFile* file, FileList* files) {
        return kq::FindPureDependents(enumeration, *file, files);
      });
}

KQ_API KQStatus KQImageFilesEnumerationQueryAllOrphans(uint64_t handle, const char* separator,
                                                       uint32_t flags, char* buffer,
                                                       uint32_t* size) {
  if (handle == 0 || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return ListFiles(handle, {separator, flags, buffer, size}, kq::AllOrphans);
}

KQ_API KQStatus KQImageFilesEnumerationQueryAllFostered(uint64_t handle, const char* separator,
                                                        uint32_t flags, char* buffer,
                                                        uint32_t* size) {
  if (handle == 0 || size == nullptr) return KQ_FAIL(kInvalidParameter);
  return ListFiles(handle, {separator, flags, buffer, size}, kq::AllFostered);
}

KQ_API KQStatus KQImageFilesEnumerationQuerySnapshotSet(uint64_t handle,
                                                        const uint8_t* snapshotSetId,
                                                        const char* separator, uint32_t flags,
                                                        char* buffer, uint32_t* size) {
  if (handle == 0 || snapshotSetId == nullptr || size == nullptr) {
    return KQ_FAIL(kInvalidParameter);
  }
  kq::Identifier identifier;
  std::memcpy(identifier.data(), snapshotSetId, identifier.size());
  return ListFiles(handle, {separator, flags, buffer, size},
                   [&](const ImageFilesEnumeration& enumeration, FileList* files) {
                     return kq::SnapshotSet(enumeration, identifier, files);
                   });
}

}  // extern "C"
