// Sparse files: random writes of 4 KiB into a fresh file, and random reads of the same size, with
// as many extents as the argument says and a cache of 1000 nodes (some 200 thousand extents). What
// one operation costs should hardly depend on the number of extents.
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /tmp: a million extents take 4
// GB.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kqimageapi.h"

namespace {

constexpr std::uint32_t kBlock = 4096;

void Require(const KQStatus& status, const char* what) {
  if (status.status == 0) return;
  std::fprintf(stderr, "%s failed with %d\n", what, status.status);
  std::exit(1);
}

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

// A block at the address that a transfer can use as it is.
std::unique_ptr<std::uint8_t, FreeMemory> MakeBlock() {
  auto* block = static_cast<std::uint8_t*>(std::aligned_alloc(kBlock, kBlock));
  std::memset(block, 0x5A, kBlock);
  return std::unique_ptr<std::uint8_t, FreeMemory>(block);
}

// Volume offsets of blocks no two of which are the same or adjacent, in random order.
std::vector<std::uint64_t> ScatteredOffsets(std::uint64_t count) {
  std::vector<std::uint64_t> offsets(count);
  std::iota(offsets.begin(), offsets.end(), 0);
  std::shuffle(offsets.begin(), offsets.end(), std::mt19937_64(count));
  for (std::uint64_t& offset : offsets) offset *= 4 * kBlock;
  return offsets;
}

// A sparse file that is removed with the object.
class BenchFile {
 public:
  explicit BenchFile(std::int64_t cacheNodes) {
    static int number = 0;
    const char* folder = std::getenv("KQ_BENCH_FOLDER");
    path_ = std::string(folder != nullptr ? folder : "/tmp") + "/kqsparse-bench-" +
            std::to_string(getpid()) + "-" + std::to_string(++number);
    Require(KQSparseFileOpen2(path_.c_str(), KQ_SPARSE_CREATE_NEW, 0,
                              static_cast<std::uint16_t>(cacheNodes), &handle_),
            "open");
  }
  ~BenchFile() { KQSparseFileClose(handle_, 1); }
  BenchFile(const BenchFile&) = delete;
  BenchFile& operator=(const BenchFile&) = delete;

  void Write(const std::vector<std::uint64_t>& offsets) {
    const auto block = MakeBlock();
    for (const std::uint64_t offset : offsets) {
      Require(KQSparseFileWrite(handle_, offset, block.get(), kBlock, nullptr), "write");
    }
  }

  std::uint64_t handle() const { return handle_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::uint64_t handle_ = 0;
};

// A file of so many extents. It is made once, and removed when the next is asked for.
const BenchFile& FileOfExtents(const std::vector<std::uint64_t>& offsets, std::int64_t cacheNodes) {
  static std::unique_ptr<BenchFile> file;
  static std::pair<std::size_t, std::int64_t> made;
  const std::pair wanted(offsets.size(), cacheNodes);
  if (!file || made != wanted) {
    file.reset();
    file = std::make_unique<BenchFile>(cacheNodes);
    file->Write(offsets);
    made = wanted;
  }
  return *file;
}

void RandomWrites(benchmark::State& state) {
  const auto offsets = ScatteredOffsets(static_cast<std::uint64_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    auto file = std::make_unique<BenchFile>(state.range(1));
    state.ResumeTiming();
    file->Write(offsets);
    state.PauseTiming();
    file.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(RandomWrites)
    ->ArgsProduct({{1000, 10'000, 100'000, 1'000'000}, {1000, 65535}})
    ->Unit(benchmark::kMillisecond);

void RandomReads(benchmark::State& state) {
  auto offsets = ScatteredOffsets(static_cast<std::uint64_t>(state.range(0)));
  const BenchFile& file = FileOfExtents(offsets, state.range(1));
  std::shuffle(offsets.begin(), offsets.end(), std::mt19937_64(7));
  const auto block = MakeBlock();
  std::size_t next = 0;
  for (auto _ : state) {
    Require(KQSparseFileRead(file.handle(), offsets[next], block.get(), kBlock, nullptr), "read");
    if (++next == offsets.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RandomReads)
    ->ArgsProduct({{1000, 10'000, 100'000, 1'000'000}, {1000, 65535}})
    ->Unit(benchmark::kMicrosecond);

void PlainReads(benchmark::State& state) {
  auto offsets = ScatteredOffsets(static_cast<std::uint64_t>(state.range(0)));
  const BenchFile& file = FileOfExtents(offsets, 1000);
  std::shuffle(offsets.begin(), offsets.end(), std::mt19937_64(7));
  const int descriptor = open(file.path().c_str(), O_RDONLY);
  const auto block = MakeBlock();
  std::size_t next = 0;
  for (auto _ : state) {
    // The data alone is a quarter of what the offsets span, so each quarter is a place in the file.
    benchmark::DoNotOptimize(lseek(descriptor, static_cast<off_t>(offsets[next] / 4), SEEK_SET));
    benchmark::DoNotOptimize(read(descriptor, block.get(), kBlock));
    if (++next == offsets.size()) next = 0;
  }
  close(descriptor);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(PlainReads)->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);

void PlainAppends(benchmark::State& state) {
  const auto block = MakeBlock();
  for (auto _ : state) {
    state.PauseTiming();
    BenchFile file(1);
    const int descriptor = open(file.path().c_str(), O_RDWR);
    state.ResumeTiming();
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      struct stat found {};
      benchmark::DoNotOptimize(fstat(descriptor, &found));
      benchmark::DoNotOptimize(lseek(descriptor, found.st_size, SEEK_SET));
      benchmark::DoNotOptimize(write(descriptor, block.get(), kBlock));
    }
    state.PauseTiming();
    close(descriptor);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PlainAppends)->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
