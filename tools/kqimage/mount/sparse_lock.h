// Keeps two processes from using one sparse file at a time.
//
// A sparse file says of itself that it is in use only once its tree has changed, so a mount holds a
// lock on it from its first moment to its last.
#ifndef KQIMAGE_MOUNT_SPARSE_LOCK_H
#define KQIMAGE_MOUNT_SPARSE_LOCK_H

#include <string>

#include "kqimage/system/unique_fd.h"

namespace kqimage {

class SparseLock {
 public:
  // Throws a Failure if the file can't be opened, or another process has it.
  explicit SparseLock(const std::string& path);

  // Makes what has been written durable.
  void Flush() const;

 private:
  std::string path_;
  UniqueFd file_;
};

}  // namespace kqimage

#endif
