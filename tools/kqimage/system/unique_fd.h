// The owner of a file descriptor.
#ifndef KQIMAGE_SYSTEM_UNIQUE_FD_H
#define KQIMAGE_SYSTEM_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace kqimage {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  int Get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  // Gives the descriptor up to the caller, who checks the result of closing it.
  int Release() { return std::exchange(fd_, -1); }

  void Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace kqimage

#endif
