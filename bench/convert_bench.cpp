// Conversion of a sparse file of 256 MiB into an increment without compression, by the length of
// its extents and the order in which they were written; and beside it a plain copy of as many
// bytes, which is what it can come near to.
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /dev/shm, so that the disk is not
// measured.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "kqimageapi.h"

namespace {

constexpr std::uint64_t kDataBytes = 256 << 20;
constexpr std::uint32_t kPiece = 1 << 20;

using kqbench::BenchPath;
using kqbench::Require;

constexpr char kFolder[] = "/dev/shm";

void MakeSparseFile(const std::string& path, std::uint32_t extentBytes, bool shuffled) {
  std::vector<std::uint64_t> numbers(kDataBytes / extentBytes);
  std::iota(numbers.begin(), numbers.end(), 0);
  if (shuffled) std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(1));
  const std::vector<std::uint8_t> data(extentBytes, 0x5A);
  std::uint64_t sparse = 0;
  Require(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_CREATE_ALWAYS, 0, 1000, &sparse).status == 0,
          "open");
  for (const std::uint64_t number : numbers) {
    Require(
        KQSparseFileWrite(sparse, number * extentBytes, data.data(), extentBytes, nullptr).status ==
            0,
        "write");
  }
  Require(KQSparseFileClose(sparse, 0).status == 0, "close");
}

void Convert(benchmark::State& state) {
  const BenchPath parent(kFolder, "parent");
  const BenchPath sparse(kFolder, "sparse");
  const BenchPath image(kFolder, "image");
  kqbench::MakeBase(parent.path, std::vector<std::uint8_t>(512, 1), kDataBytes);
  MakeSparseFile(sparse.path, static_cast<std::uint32_t>(state.range(0)), state.range(1) != 0);
  for (auto _ : state) {
    Require(KQConvertSparseToIncremental(sparse.path.c_str(), parent.path.c_str(), nullptr,
                                         image.path.c_str(), nullptr)
                    .status == 0,
            "convert");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kDataBytes));
}
BENCHMARK(Convert)
    ->ArgNames({"extent", "shuffled"})
    ->Args({1 << 20, 0})
    ->Args({64 << 10, 1})
    ->Args({4096, 0})
    ->Args({4096, 1})
    ->Unit(benchmark::kMillisecond);

void PlainCopy(benchmark::State& state) {
  const BenchPath source(kFolder, "source");
  const BenchPath target(kFolder, "target");
  std::vector<std::uint8_t> buffer(kPiece, 0x5A);
  const int from = open(source.path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  for (std::uint64_t done = 0; done < kDataBytes; done += kPiece) {
    Require(write(from, buffer.data(), kPiece) == kPiece, "write");
  }
  for (auto _ : state) {
    const int to = open(target.path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    Require(lseek(from, 0, SEEK_SET) == 0, "seek");
    for (std::uint64_t done = 0; done < kDataBytes; done += kPiece) {
      Require(read(from, buffer.data(), kPiece) == kPiece, "read");
      Require(write(to, buffer.data(), kPiece) == kPiece, "write");
    }
    close(to);
  }
  close(from);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kDataBytes));
}
BENCHMARK(PlainCopy)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
