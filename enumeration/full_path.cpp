#include "enumeration/full_path.h"

#include <string_view>

#include "foundation/os_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

}  // namespace

KQStatus ResolveFullPath(const char* path, FullPath* full) {
  HeapString resolved;
  KQ_RETURN_IF_FAILED(OSGetFullPath(path, &resolved));
  const std::string_view text = resolved.get();
  const std::size_t slash = text.rfind('/');
  if (slash == std::string_view::npos) return KQ_FAIL(kInvalidParameter);
  full->directory = text.substr(0, slash + 1);
  full->name = text.substr(slash + 1);
  return Success();
}

}  // namespace kq
