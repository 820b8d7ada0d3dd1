// A disk that is soon full: a file system in memory that holds so many bytes, or, where the system
// lets nobody mount one, files that may not grow beyond them.
#ifndef KQ_TESTS_FAULTS_SMALL_DISK_H
#define KQ_TESTS_FAULTS_SMALL_DISK_H

#include <sys/resource.h>

#include <cstdint>
#include <functional>
#include <string>

namespace kqtest {

// Runs the checks in a process of its own, in which disks can be mounted if it has the right to.
// Fails the test if a check there fails.
void InOwnProcess(const std::function<void()>& checks);

class SmallDisk {
 public:
  // folder: an empty one, where the disk is to be.
  SmallDisk(const std::string& folder, std::uint64_t bytes);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  // What a write that no longer fits fails with: ENOSPC, or EFBIG without a file system.
  int errnoWhenFull() const;

 private:
  std::string folder_;
  bool mounted_ = false;
  rlimit oldLimit_{};
};

}  // namespace kqtest

#endif
