// Reads of chains: against plain reads of the same bytes, in small steps, and of many pieces.
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /tmp.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_chain.h"
#include "image/read_pieces.h"
#include "kqimageformat.h"

namespace {

constexpr std::uint64_t kMebibyte = 0x100000;

using kqbench::BenchChain;
using kqbench::OpenedChain;
using kqbench::Require;

constexpr char kFolder[] = "/tmp";

constexpr std::uint64_t kSequentialBytes = 256 * kMebibyte;

// Removed at the program's end.
const BenchChain& SequentialImage() {
  static const auto image = [] {
    auto made = std::make_unique<BenchChain>(kFolder, 4096, KQ_COMPRESSION_NONE);
    made->Begin();
    std::vector<std::uint8_t> data(kMebibyte);
    std::mt19937_64 random(1);
    std::generate(data.begin(), data.end(), [&] { return static_cast<std::uint8_t>(random()); });
    for (std::uint64_t at = 0; at < kSequentialBytes; at += kMebibyte) {
      made->Write(data.data(), kMebibyte, at);
    }
    made->Finish();
    return made;
  }();
  return *image;
}

void SequentialRead(benchmark::State& state) {
  const OpenedChain chain(SequentialImage().Files());
  std::vector<std::uint8_t> buffer(kMebibyte);
  for (auto step : state) {
    for (std::uint64_t at = 0; at < kSequentialBytes; at += kMebibyte) chain.Read(at, &buffer);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kSequentialBytes));
}
BENCHMARK(SequentialRead)->Unit(benchmark::kMillisecond);

void SequentialPread(benchmark::State& state) {
  const int file = open(SequentialImage().Files().c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<std::uint8_t> buffer(kMebibyte);
  for (auto step : state) {
    for (std::uint64_t at = 0; at < kSequentialBytes; at += kMebibyte) {
      Require(pread(file, buffer.data(), kMebibyte, static_cast<off_t>(at)) == kMebibyte, "pread");
    }
  }
  close(file);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kSequentialBytes));
}
BENCHMARK(SequentialPread)->Unit(benchmark::kMillisecond);

void WarmSmallRead(benchmark::State& state) {
  const OpenedChain chain(SequentialImage().Files());
  std::vector<std::uint8_t> buffer(static_cast<std::size_t>(state.range(0)));
  std::uint64_t at = 0;
  for (auto step : state) {
    chain.Read(at, &buffer);
    at = (at + buffer.size()) % (8 * kMebibyte);
  }
}
BENCHMARK(WarmSmallRead)->Arg(512)->Arg(4096)->Arg(65536);

// Single sectors side by side, each a run of its own: one chunk holds the even and the next the odd
// ones of a stretch.
void ReadOfSingleSectors(benchmark::State& state) {
  const auto count = static_cast<std::uint64_t>(state.range(0));
  constexpr std::uint64_t kSector = 512;
  BenchChain image(kFolder, kSector, KQ_COMPRESSION_NONE);
  image.Begin();
  const std::vector<std::uint8_t> data(kSector, 0x5A);
  constexpr std::uint64_t kStretch = 256;
  for (std::uint64_t first = 0; first < count; first += kStretch) {
    for (std::uint64_t parity = 0; parity < 2; ++parity) {
      for (std::uint64_t i = parity; i < kStretch; i += 2) {
        image.Write(data.data(), kSector, (first + i) * kSector);
      }
    }
  }
  image.Finish();
  const OpenedChain chain(image.Files());
  std::vector<std::uint8_t> buffer(count * kSector);
  for (auto step : state) chain.Read(0, &buffer);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(ReadOfSingleSectors)
    ->RangeMultiplier(10)
    ->Range(1, 1'000'000)
    ->Unit(benchmark::kMillisecond);

// The merge alone, of single sectors in random order.
void MergeInRandomOrder(benchmark::State& state) {
  std::vector<std::uint64_t> sectors(static_cast<std::size_t>(state.range(0)));
  for (std::size_t i = 0; i < sectors.size(); ++i) sectors[i] = i * 512;
  std::shuffle(sectors.begin(), sectors.end(), std::mt19937_64(1));
  for (auto step : state) {
    kq::PieceList list;
    for (const std::uint64_t sector : sectors) {
      kq::ReadPiece piece;
      piece.Start = sector;
      piece.End = sector + 511;
      Require(list.Merge(piece), "merge");
    }
    benchmark::DoNotOptimize(list.Cover(0, 511));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(MergeInRandomOrder)->Arg(65536)->Arg(131072)->Arg(262144)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
