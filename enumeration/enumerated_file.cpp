#include "enumeration/enumerated_file.h"

namespace kq {
namespace {

constexpr std::string_view kLongPathPrefix = R"(\\?\)";

}  // namespace

std::string_view PlainPath(std::string_view path) {
  if (path.size() > kLongPathPrefix.size() && path.starts_with(kLongPathPrefix)) {
    path.remove_prefix(kLongPathPrefix.size());
  }
  return path;
}

EnumeratedFile::~EnumeratedFile() {
  if (!unlinkOnDestroy) return;
  for (EnumeratedFile* parent : parents) std::erase(parent->children, this);
  for (EnumeratedFile* child : children) std::erase(child->parents, this);
}

}  // namespace kq
