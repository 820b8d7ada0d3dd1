#include "enumeration/locate_file.h"

#include <algorithm>

#include "enumeration/full_path.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

}  // namespace

KQStatus LocateFile(const ImageFilesEnumeration& enumeration, const char* path,
                    EnumeratedFile** file) {
  *file = nullptr;
  FullPath full;
  KQ_RETURN_IF_FAILED(ResolveFullPath(path, &full));
  const auto directory = enumeration.directories.find(full.directory);
  if (directory == enumeration.directories.end()) return KQ_FAIL(kFileNotFound);

  const auto [first, last] = enumeration.filesByName.equal_range(full.name);
  const auto found =
      std::find_if(first, last, [&](const decltype(enumeration.filesByName)::value_type& entry) {
        return entry.second->directory == directory->second.get();
      });
  if (found == last) return KQ_FAIL(kFileNotFound);
  *file = found->second.get();
  return Success();
}

}  // namespace kq
