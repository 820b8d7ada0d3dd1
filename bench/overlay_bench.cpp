// Random writes of 4 KiB into a fresh sparse file over a chain, and random reads of the same size
// through both, beside the same pattern in a qcow2 overlay over a qcow2 base, driven by qemu-io: in
// one run, operations per second and the ratio. A cache of 1000 nodes.
//
//   overlay_bench [EXTENTS]...     10000 and 1000000 if none is given
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /tmp; a million extents take
// 8 GB.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "bench/qemu_io.h"
#include "kqimageapi.h"

namespace {

using kqbench::BenchPath;
using kqbench::Require;
using kqbench::SecondsSince;

constexpr char kFolder[] = "/tmp";
constexpr std::uint32_t kBlock = 4096;
constexpr std::uint64_t kStep = 4 * kBlock;     // no two extents touch
constexpr std::uint64_t kBaseBytes = 16 << 20;  // less than the chunk cache holds
constexpr std::size_t kReads = 100'000;

struct Pattern {
  std::vector<std::uint64_t> writes;
  std::vector<std::uint64_t> reads;  // two of three from the overlay, else from below
  std::uint64_t volumeBytes;
};

Pattern MakePattern(std::size_t extents) {
  Pattern pattern;
  pattern.volumeBytes = std::max<std::uint64_t>(extents * kStep, kBaseBytes);
  pattern.writes.resize(extents);
  std::iota(pattern.writes.begin(), pattern.writes.end(), 0);
  std::mt19937_64 random(extents);
  std::shuffle(pattern.writes.begin(), pattern.writes.end(), random);
  for (std::uint64_t& offset : pattern.writes) offset *= kStep;
  for (std::size_t i = 0; i < kReads; ++i) {
    const std::uint64_t offset = pattern.writes[random() % extents];
    pattern.reads.push_back(i % 3 == 2 ? offset + kBlock : offset);
  }
  return pattern;
}

struct Rates {
  double writes = 0;  // operations per second
  double reads = 0;
};

Rates MeasureOurs(const Pattern& pattern, const std::vector<std::uint8_t>& baseData) {
  const BenchPath base(kFolder, "base.twf");
  const BenchPath overlay(kFolder, "overlay.sparse");
  kqbench::MakeBase(base.path, baseData, pattern.volumeBytes);
  std::uint64_t sparse = 0;
  std::uint64_t chain = 0;
  Require(
      KQSparseFileOpen2(overlay.path.c_str(), KQ_SPARSE_CREATE_NEW, 0, 1000, &sparse).status == 0,
      "sparse file");
  Require(KQImageFilesOpen(base.path.c_str(), nullptr, sparse, &chain).status == 0, "open");
  std::vector<std::uint8_t> block(kBlock, 0x5A);
  Rates rates;
  auto start = std::chrono::steady_clock::now();
  for (const std::uint64_t offset : pattern.writes) {
    Require(KQImageFilesWrite(chain, offset, block.data(), kBlock, nullptr).status == 0, "write");
  }
  rates.writes = static_cast<double>(pattern.writes.size()) / SecondsSince(start);
  start = std::chrono::steady_clock::now();
  for (const std::uint64_t offset : pattern.reads) {
    Require(KQImageFilesRead(chain, offset, block.data(), kBlock, nullptr).status == 0, "read");
  }
  rates.reads = static_cast<double>(pattern.reads.size()) / SecondsSince(start);
  Require(KQImageFilesClose(chain, nullptr, nullptr, 0).status == 0, "close");
  return rates;
}

Rates MeasureTheirs(const Pattern& pattern, const std::vector<std::uint8_t>& baseData) {
  const BenchPath raw(kFolder, "base.raw");
  const BenchPath base(kFolder, "base.qcow2");
  const BenchPath overlay(kFolder, "overlay.qcow2");
  std::FILE* const file = std::fopen(raw.path.c_str(), "wb");
  Require(file != nullptr &&
              std::fwrite(baseData.data(), 1, baseData.size(), file) == baseData.size() &&
              std::fclose(file) == 0,
          "raw base");
  Require(truncate(raw.path.c_str(), static_cast<off_t>(pattern.volumeBytes)) == 0, "truncate");
  kqbench::MakeQcow2(raw.path, base.path);
  kqbench::MakeQcow2Overlay(base.path, overlay.path);
  const std::string image = kqbench::Qcow2(overlay.path);
  Rates rates;
  rates.writes = static_cast<double>(pattern.writes.size()) /
                 kqbench::QemuIoSeconds(image, "write", pattern.writes);
  rates.reads = static_cast<double>(pattern.reads.size()) /
                kqbench::QemuIoSeconds(image, "read", pattern.reads);
  return rates;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::size_t> counts;
  for (int i = 1; i < argc; ++i) counts.push_back(std::strtoull(argv[i], nullptr, 10));
  if (counts.empty()) counts = {10'000, 1'000'000};
  const std::vector<std::uint8_t> baseData(kBaseBytes, 0x42);
  std::printf("%10s %14s %14s %7s %14s %14s %7s\n", "extents", "writes/s", "qcow2", "ratio",
              "reads/s", "qcow2", "ratio");
  for (const std::size_t extents : counts) {
    const Pattern pattern = MakePattern(extents);
    const Rates ours = MeasureOurs(pattern, baseData);
    const Rates theirs = MeasureTheirs(pattern, baseData);
    std::printf("%10zu %14.0f %14.0f %7.2f %14.0f %14.0f %7.2f\n", extents, ours.writes,
                theirs.writes, ours.writes / theirs.writes, ours.reads, theirs.reads,
                ours.reads / theirs.reads);
    std::fflush(stdout);
  }
  return 0;
}
