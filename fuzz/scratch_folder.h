// A folder in memory for targets that need real names. One for a whole run of a fuzzer; each input
// finds it empty.
#ifndef KQ_FUZZ_SCRATCH_FOLDER_H
#define KQ_FUZZ_SCRATCH_FOLDER_H

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>

#include "fuzz/fuzz_input.h"

namespace kqfuzz {

class ScratchFolder {
 public:
  ScratchFolder() {
    std::string name = "/dev/shm/kqfuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(name.data()) != nullptr);
    folder_ = name;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string Path(const std::string& name) const { return folder_ / name; }
  std::string Path() const { return folder_; }

  void Empty() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      std::filesystem::remove(entry.path());
    }
  }
  void Write(const std::string& name, std::span<const std::uint8_t> bytes) const {
    std::ofstream file(folder_ / name, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    FUZZ_CHECK(file.good());
  }
  Bytes Read(const std::string& name) const {
    std::ifstream file(folder_ / name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }

 private:
  std::filesystem::path folder_;
};

}  // namespace kqfuzz

#endif
