// Whether two paths lead to one file.
#ifndef KQIMAGE_SYSTEM_FILE_IDENTITY_H
#define KQIMAGE_SYSTEM_FILE_IDENTITY_H

#include <sys/stat.h>

#include <optional>
#include <string>
#include <utility>

namespace kqimage {

using FileIdentity = std::pair<dev_t, ino_t>;

// The identity of what the path leads to, through symbolic links; nothing if there is nothing.
inline std::optional<FileIdentity> IdentityOf(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity(status.st_dev, status.st_ino);
}

}  // namespace kqimage

#endif
