#include "enumeration/file_name_tag.h"
#include "enumeration/file_names.h"
#include "enumeration/full_path.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

constexpr char kBaseTag[] = "-b";
constexpr char kKeyFileExtension[] = ".twk";

}  // namespace

KQStatus KeyFileNameFrom(const char* path, std::string* keyPath) {
  FullPath full;
  KQ_RETURN_IF_FAILED(ResolveFullPath(path, &full));
  NumberedTag found;
  if (Failed(FindNumberedTag(full.name.c_str(), kBaseTag, &found))) return KQ_FAIL(kFileCorrupt);
  *keyPath = full.directory + std::string(full.name.c_str(), found.start + found.length) +
             kKeyFileExtension;
  return Success();
}

}  // namespace kq
