// Drives qemu-io, whose image formats are the peers of ours. It never flushes here, and takes its
// commands through a pipe, a line each, which its figures include.
#ifndef KQ_BENCH_QEMU_IO_H
#define KQ_BENCH_QEMU_IO_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_files.h"

namespace kqbench {

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline void Shell(const std::string& command) {
  Require(std::system(command.c_str()) == 0, command.c_str());
}

// Seconds for operations of 4 KiB at the offsets. The image is what qemu-io's command line takes:
// options and a name.
inline double QemuIoSeconds(const std::string& image, const char* verb,
                            const std::vector<std::uint64_t>& offsets) {
  const auto start = std::chrono::steady_clock::now();
  std::FILE* const pipe = popen(("qemu-io -t unsafe " + image + " >/dev/null").c_str(), "w");
  Require(pipe != nullptr, "qemu-io");
  for (const std::uint64_t offset : offsets) {
    std::fprintf(pipe, "%s -q %llu 4k\n", verb, static_cast<unsigned long long>(offset));
  }
  Require(pclose(pipe) == 0, "qemu-io");
  return SecondsSince(start);
}

inline std::string Qcow2(const std::string& path) { return "-f qcow2 '" + path + "'"; }

inline void MakeQcow2(const std::string& raw, const std::string& path, const char* options = "") {
  Shell(std::string("qemu-img convert -f raw -O qcow2 ") + options + " '" + raw + "' '" + path +
        "'");
}

inline void MakeQcow2Overlay(const std::string& backing, const std::string& path) {
  Shell("qemu-img create -q -f qcow2 -F qcow2 -b '" + backing + "' '" + path + "'");
}

}  // namespace kqbench

#endif
