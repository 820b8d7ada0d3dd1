// What the number of chunks in a file costs: opening it, reading at random, and writing it. All
// data is zero, so that nothing but the chunks themselves is stored: a sector each.
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /tmp; a million chunks take 600
// MB.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_chain.h"
#include "kqimageformat.h"

namespace {

using kqbench::BenchChain;
using kqbench::OpenedChain;

constexpr char kFolder[] = "/tmp";
constexpr std::uint32_t kSector = 512;
constexpr std::uint32_t kBlock = 4096;

// Sectors of zeros so far apart and so uneven that a chunk's run list is full after some sixty.
std::uint64_t WriteChunks(std::int64_t chunks, BenchChain* chain) {
  constexpr std::uint64_t kRunsInChunk = 58;
  constexpr std::uint64_t kDistance = 0x180000000;
  static const std::vector<std::uint8_t> zeros(2 * kSector);
  const std::uint64_t runs = kRunsInChunk * static_cast<std::uint64_t>(chunks);
  chain->Begin();
  for (std::uint64_t i = 0; i < runs; ++i) {
    chain->Write(zeros.data(), kSector * (2 - i % 2), i * kDistance);
  }
  chain->Finish();
  return runs * kDistance;
}

struct ChunkFile {
  BenchChain chain{kFolder, kSector, KQ_COMPRESSION_LZO};
  std::uint64_t volumeBytes = 0;
};

const ChunkFile& Chunks(std::int64_t chunks) {
  static std::map<std::int64_t, std::unique_ptr<ChunkFile>> made;
  auto& file = made[chunks];
  if (!file) {
    file = std::make_unique<ChunkFile>();
    file->volumeBytes = WriteChunks(chunks, &file->chain);
  }
  return *file;
}

void Write(benchmark::State& state) {
  for (auto step : state) {
    ChunkFile file;
    WriteChunks(state.range(0), &file.chain);
  }
}

void Open(benchmark::State& state) {
  const std::string files = Chunks(state.range(0)).chain.Files();
  for (auto step : state) const OpenedChain chain(files);
}

void RandomReads(benchmark::State& state) {
  const ChunkFile& file = Chunks(state.range(0));
  const OpenedChain chain(file.chain.Files());
  std::vector<std::uint8_t> block(kBlock);
  std::mt19937_64 random(7);
  for (auto step : state) chain.Read(random() % file.volumeBytes, &block);
}

void CountsOfChunks(benchmark::internal::Benchmark* benchmark) {
  benchmark->RangeMultiplier(10)->Range(1, 1'000'000);
}
BENCHMARK(Write)->Apply(CountsOfChunks)->Unit(benchmark::kMillisecond);
BENCHMARK(Open)->Apply(CountsOfChunks)->Unit(benchmark::kMillisecond);
BENCHMARK(RandomReads)->Apply(CountsOfChunks)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
