// A temporary folder for one test, removed with all it holds.
#ifndef KQ_TESTS_SUPPORT_TEMP_DIR_H
#define KQ_TESTS_SUPPORT_TEMP_DIR_H

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace kqtest {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string Path(const std::string& name) const { return (path_ / name).string(); }
  std::string Path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// Whole files, for small ones. Both fail the test on an error.
std::vector<std::uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, std::span<const std::uint8_t> bytes);

}  // namespace kqtest

#endif
