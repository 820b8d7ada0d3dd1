// What benchmarks of files share: their paths, and a base image to build on.
#ifndef KQ_BENCH_BENCH_FILES_H
#define KQ_BENCH_BENCH_FILES_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "kqimageformat.h"

namespace kqbench {

inline void Require(bool worked, const char* what) {
  if (worked) return;
  std::fprintf(stderr, "%s failed\n", what);
  std::exit(1);
}

// A file that is removed with the object, in the folder that KQ_BENCH_FOLDER names, else in the
// given one.
struct BenchPath {
  BenchPath(const char* defaultFolder, const char* name) {
    const char* folder = std::getenv("KQ_BENCH_FOLDER");
    path = std::string(folder != nullptr ? folder : defaultFolder) + "/kq-bench-" +
           std::to_string(getpid()) + "-" + name;
  }
  ~BenchPath() { unlink(path.c_str()); }
  BenchPath(const BenchPath&) = delete;
  BenchPath& operator=(const BenchPath&) = delete;

  std::string path;
};

// A base image without compression that holds data at the front of a volume of volumeBytes.
inline void MakeBase(const std::string& path, const std::vector<std::uint8_t>& data,
                     std::uint64_t volumeBytes) {
  std::vector<std::uint8_t> header(512);
  ImageHeader record{};
  std::memcpy(record.Magic, KQ_MAGIC_FINISHED, sizeof record.Magic);
  record.SectorSize = 512;
  std::memcpy(header.data(), &record, sizeof record);
  std::uint64_t image = 0;
  Require(KQNewImageFileCreate2(header.data(), 512, nullptr, path.c_str(), &volumeBytes, nullptr,
                                nullptr, nullptr, &image)
                  .status == 0,
          "create");
  Require(
      KQNewImageFileWrite(image, data.data(), static_cast<std::uint32_t>(data.size()), 0).status ==
          0,
      "write");
  Require(KQNewImageFileClose(image, nullptr).status == 0, "close");
}

}  // namespace kqbench

#endif
