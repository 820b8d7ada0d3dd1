#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

namespace kqtest {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kqtest-XXXXXX").string();
  const char* made = mkdtemp(pattern.data());
  if (made == nullptr) ADD_FAILURE() << "no temporary folder: " << pattern;
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) ADD_FAILURE() << "cannot read " << path;
  // Until nothing more comes: files of /proc don't tell their size.
  std::vector<std::uint8_t> bytes;
  std::size_t done = 0;
  while (file) {
    bytes.resize(2 * done + 65536);
    file.read(reinterpret_cast<char*>(bytes.data()) + done,
              static_cast<std::streamsize>(bytes.size() - done));
    done += static_cast<std::size_t>(file.gcount());
  }
  bytes.resize(done);
  return bytes;
}

// Without O_TRUNC: a file that is cut to nothing and written anew is flushed to the disk by some
// file systems when it is closed, which would make the tests wait.
void WriteFile(const std::string& path, std::span<const std::uint8_t> bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  std::size_t done = 0;
  while (fd >= 0 && done < bytes.size()) {
    const ssize_t count = write(fd, bytes.data() + done, bytes.size() - done);
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  const bool complete =
      fd >= 0 && done == bytes.size() && ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
  if (fd >= 0) close(fd);
  if (!complete) ADD_FAILURE() << "cannot write " << path;
}

}  // namespace kqtest
