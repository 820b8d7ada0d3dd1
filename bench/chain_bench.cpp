// What the length of a chain costs: opening it, reading through it, and the same data in one file
// and in thirty.
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /tmp. A chain of ten thousand
// files needs as many descriptors (ulimit -n).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "bench/bench_chain.h"
#include "kqimageformat.h"

namespace {

using kqbench::BenchChain;
using kqbench::NameOrder;
using kqbench::OpenedChain;

constexpr char kFolder[] = "/tmp";
constexpr std::uint32_t kBlock = 4096;
constexpr std::uint64_t kMebibyte = 1 << 20;
constexpr std::uint64_t kBaseBytes = 8 * kMebibyte;
constexpr std::uint64_t kSplitBytes = 240 * kMebibyte;

// Words of letters: it compresses about as documents do.
std::vector<std::uint8_t> Text(std::size_t size) {
  std::mt19937_64 random(1);
  std::vector<std::uint64_t> words(4000);
  for (std::uint64_t& word : words) word = random();
  std::vector<std::uint8_t> text(size, ' ');
  for (std::size_t at = 0; at < size; ++at) {
    std::uint64_t word = words[random() % words.size()];
    for (auto length = 2 + word % 9; length > 0 && at < size; --length, word /= 26) {
      text[at++] = static_cast<std::uint8_t>('a' + word % 26);
    }
  }
  return text;
}

// A base of 8 MiB and increments of one block each.
const BenchChain& LongChain(std::int64_t files) {
  static std::map<std::int64_t, std::unique_ptr<BenchChain>> made;
  auto& chain = made[files];
  if (!chain) {
    chain = std::make_unique<BenchChain>(kFolder, kBlock, KQ_COMPRESSION_LZO);
    const std::vector<std::uint8_t> text = Text(kBaseBytes);
    chain->Begin();
    for (std::uint64_t at = 0; at < kBaseBytes; at += kMebibyte) {
      chain->Write(text.data() + at, kMebibyte, at);
    }
    chain->Finish();
    std::mt19937_64 random(1);
    for (std::int64_t i = 1; i < files; ++i) {
      chain->Begin();
      chain->Write(text.data(), kBlock, random() % (kBaseBytes / kBlock) * kBlock);
      chain->Finish();
    }
  }
  return *chain;
}

void OpenChain(benchmark::State& state) {
  const std::string files = LongChain(state.range(0)).Files();
  for (auto step : state) const OpenedChain chain(files);
}
BENCHMARK(OpenChain)->RangeMultiplier(10)->Range(1, 10'000)->Unit(benchmark::kMillisecond);

// The same, named in the opposite order.
void OpenChainNewestFirst(benchmark::State& state) {
  const std::string files = LongChain(state.range(0)).Files(NameOrder::kNewestFirst);
  for (auto step : state) const OpenedChain chain(files);
}
BENCHMARK(OpenChainNewestFirst)->Arg(1000)->Arg(10'000)->Unit(benchmark::kMillisecond);

// The base's 8 MiB, which the chunk cache holds, in random blocks. The run lists of many more files
// than a thousand would not fit the chunk header cache.
void WarmReads(benchmark::State& state) {
  const OpenedChain chain(LongChain(state.range(0)).Files());
  std::vector<std::uint8_t> block(kBlock);
  std::mt19937_64 random(7);
  for (std::uint64_t at = 0; at < kBaseBytes; at += kBlock) chain.Read(at, &block);
  for (auto step : state) chain.Read(random() % (kBaseBytes / kBlock) * kBlock, &block);
}
BENCHMARK(WarmReads)->RangeMultiplier(10)->Range(1, 1000)->Unit(benchmark::kMicrosecond);

void WritePiece(const BenchChain& chain, std::uint64_t at, std::uint64_t size) {
  static const std::vector<std::uint8_t> text = Text(kMebibyte);
  for (std::uint64_t end = at + size; at < end;) {
    const std::uint64_t count = std::min(end - at, kMebibyte - at % kMebibyte);
    chain.Write(text.data() + at % kMebibyte, count, at);
    at += count;
  }
}

// 240 MiB of which each file has every n-th piece.
const BenchChain& SplitChain(std::int64_t files, std::int64_t pieceBytes,
                             std::uint32_t compression) {
  using Key = std::tuple<std::int64_t, std::int64_t, std::uint32_t>;
  static std::map<Key, std::unique_ptr<BenchChain>> made;
  auto& chain = made[{files, pieceBytes, compression}];
  if (!chain) {
    const auto piece = static_cast<std::uint64_t>(pieceBytes);
    const auto step = piece * static_cast<std::uint64_t>(files);
    chain = std::make_unique<BenchChain>(kFolder, kBlock, compression);
    for (std::uint64_t first = 0; first < step; first += piece) {
      chain->Begin();
      for (std::uint64_t at = first; at < kSplitBytes; at += step) {
        WritePiece(*chain, at, piece);
      }
      chain->Finish();
    }
  }
  return *chain;
}

void ReadSplit(benchmark::State& state, std::uint32_t compression) {
  const OpenedChain chain(SplitChain(state.range(0), state.range(1), compression).Files());
  std::vector<std::uint8_t> buffer(kMebibyte);
  for (auto step : state) {
    for (std::uint64_t at = 0; at < kSplitBytes; at += kMebibyte) chain.Read(at, &buffer);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kSplitBytes));
}
void Split(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"files", "piece"})
      ->ArgsProduct({{1, 30}, {8 * kMebibyte, kMebibyte, 64 << 10}})
      ->Unit(benchmark::kMillisecond);
}
BENCHMARK_CAPTURE(ReadSplit, none, KQ_COMPRESSION_NONE)->Apply(Split);
BENCHMARK_CAPTURE(ReadSplit, lzo, KQ_COMPRESSION_LZO)->Apply(Split);

}  // namespace

BENCHMARK_MAIN();
