// Runs a fuzz target over the files of the given folders, once each: the kept corpus as a test,
// with any compiler.
//   NAME_replay FOLDER...
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "tests/support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      files.push_back(entry.path());
    }
    std::ranges::sort(files);
    for (const auto& file : files) {
      // Named before it runs, for the case that it is the last.
      std::printf("%s\n", file.filename().c_str());
      std::fflush(stdout);
      const auto bytes = kqtest::ReadFile(file);
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count == 0 ? 1 : 0;
}
