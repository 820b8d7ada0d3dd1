#include "enumeration/scan_directory.h"

#include <sys/stat.h>

#include <string_view>

#include "enumeration/admit_file.h"
#include "enumeration/ascii_case.h"
#include "enumeration/exported_frame.h"
#include "enumeration/udirwalk_linux.h"
#include "foundation/os_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

// Only bit 0 means something to the walk.
constexpr std::uint32_t kScanFlags = 3;

struct ScanCookie {
  ImageFilesEnumeration* enumeration;
  const EnumeratedDirectory* directory;
};

bool HasImageExtension(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view extension = name.substr(dot + 1);
  return EqualsInAnyCase(extension, "twf") || EqualsInAnyCase(extension, "twi");
}

KQStatus ScanEntry(void* cookie, const DirWalkEntry* /*parent*/, const DirWalkEntry* entry) {
  if (!HasImageExtension(entry->relativePath)) return Success();
  // The walk knows no exceptions. Running out of memory ends it, while a file that is not admitted
  // for what it is does not.
  return WithoutExceptions([&] {
    const auto* scan = static_cast<const ScanCookie*>(cookie);
    AdmitFile(scan->enumeration, *scan->directory, entry->relativePath);
    return Success();
  });
}

}  // namespace

KQStatus ScanDirectory(ImageFilesEnumeration* enumeration, const char* path) {
  HeapString fullPath;
  KQ_RETURN_IF_FAILED(OSGetFullPath(path, &fullPath));
  struct stat64 found;
  if (stat64(fullPath.get(), &found) != 0 || !S_ISDIR(found.st_mode)) {
    return KQ_FAIL(kInvalidParameter);
  }
  if (enumeration->directories.contains(fullPath.get())) return Success();

  auto made = std::make_unique<EnumeratedDirectory>(fullPath.get());
  ScanCookie cookie{enumeration, made.get()};
  enumeration->directories.emplace(fullPath.get(), std::move(made));
  const DirWalkOwner walk =
      DirWalkCreate(fullPath.get(), kScanFlags, {ScanEntry, nullptr, nullptr, nullptr, &cookie});
  if (!walk) return KQ_FAIL(kNotEnoughMemory);
  return DirWalkRun(walk.get());
}

}  // namespace kq
