// The Huffman stage on the LZO streams of 1 MiB chunks. Rates count the bytes of the LZO stream,
// the stage's input when it encodes and its output when it decodes. Incompressible chunks are not
// among the data: they are stored raw and never reach a decoder.
#include <benchmark/benchmark.h>
#include <link.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "codec/huffman_stage.h"
#include "codec/lzo_block.h"
#include "foundation/memory.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kChunkBytes = 1 << 20;

// Words whose frequencies fall as in a language.
Bytes TextChunk() {
  std::mt19937 random(1);
  std::vector<std::string> words(20000);
  for (std::string& word : words) {
    for (auto length = 2 + random() % 9; length > 0; --length) {
      word += "etaoinshrdlcumwfgypbvk"[std::min(random() % 22, random() % 22)];
    }
  }
  Bytes chunk;
  while (chunk.size() < kChunkBytes) {
    const double uniform = static_cast<double>(random() % 1000000) / 1000000;
    const std::string& word = words[static_cast<std::size_t>(19999 * uniform * uniform * uniform)];
    chunk.insert(chunk.end(), word.begin(), word.end());
    chunk.push_back(random() % 12 == 0 ? '\n' : ' ');
  }
  chunk.resize(kChunkBytes);
  return chunk;
}

// A table of a database: counters, small numbers, times, a few names and hashes.
Bytes RecordsChunk() {
  std::mt19937 random(2);
  Bytes chunk(kChunkBytes);
  std::uint32_t time = 0x5F000000;
  for (std::size_t at = 0; at + 32 <= chunk.size(); at += 32) {
    time += static_cast<std::uint32_t>(random() % 100);
    const auto row = static_cast<std::uint32_t>(at / 32);
    const auto small = static_cast<std::uint32_t>(random() % 500);
    const auto hash = static_cast<std::uint32_t>(random());
    std::memcpy(&chunk[at], &row, 4);
    std::memcpy(&chunk[at + 4], &time, 4);
    std::memcpy(&chunk[at + 12], &small, 4);
    std::memcpy(&chunk[at + 16], &hash, 4);
    std::memcpy(&chunk[at + 20], &"RED GREYBLUE"[4 * (random() % 3)], 4);
  }
  return chunk;
}

// Machine code: that of this program and of the libraries it runs with.
Bytes ProgramChunk() {
  Bytes chunk;
  const auto appendCode = [](dl_phdr_info* object, std::size_t, void* bytes) {
    for (std::size_t i = 0; i < object->dlpi_phnum; ++i) {
      const auto& segment = object->dlpi_phdr[i];
      if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
      const auto* start =
          reinterpret_cast<const std::uint8_t*>(object->dlpi_addr + segment.p_vaddr);
      static_cast<Bytes*>(bytes)->insert(static_cast<Bytes*>(bytes)->end(), start,
                                         start + segment.p_memsz);
    }
    return 0;
  };
  dl_iterate_phdr(appendCode, &chunk);
  if (chunk.size() > kChunkBytes) chunk.resize(kChunkBytes);
  return chunk;
}

struct Stage {
  kq::HeapBuffer workArea = kq::HeapBuffer::AllocateAlignedZeroed(kq::kHuffmanWorkAreaAlignment,
                                                                  kq::kHuffmanWorkAreaBytes);
  std::uint64_t lzoLength = kq::kHuffmanInputLimit;
  Bytes stream = Bytes(kq::kHuffmanInputLimit);
  std::uint64_t streamLength = 0;

  explicit Stage(const Bytes& chunk) {
    if (kq::LzoBlockCompress(chunk.data(), chunk.size(), workArea.data() + kq::kHuffmanInputOffset,
                             &lzoLength, workArea.data()) != kq::kLzoSuccess ||
        !Encode()) {
      std::abort();
    }
  }

  bool Encode() {
    return kq::HuffmanStageEncode(workArea.data(), lzoLength, stream.data(), stream.size(),
                                  &streamLength);
  }

  void Report(benchmark::State& state) const {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(lzoLength));
    state.counters["bits/byte"] =
        8 * static_cast<double>(streamLength) / static_cast<double>(lzoLength);
  }
};

void Encode(benchmark::State& state, Bytes (*makeChunk)()) {
  Stage stage(makeChunk());
  for (auto iteration : state) benchmark::DoNotOptimize(stage.Encode());
  stage.Report(state);
}

void Decode(benchmark::State& state, Bytes (*makeChunk)()) {
  Stage stage(makeChunk());
  const std::uint8_t* decoded = nullptr;
  std::uint64_t length = 0;
  for (auto iteration : state) {
    benchmark::DoNotOptimize(kq::HuffmanStageDecode(stage.stream.data(), stage.streamLength,
                                                    stage.workArea.data(), &decoded, &length));
  }
  if (length != stage.lzoLength) state.SkipWithError("the stream did not decode");
  stage.Report(state);
}

}  // namespace

BENCHMARK_CAPTURE(Encode, text, TextChunk);
BENCHMARK_CAPTURE(Encode, records, RecordsChunk);
BENCHMARK_CAPTURE(Encode, program, ProgramChunk);
BENCHMARK_CAPTURE(Decode, text, TextChunk);
BENCHMARK_CAPTURE(Decode, records, RecordsChunk);
BENCHMARK_CAPTURE(Decode, program, ProgramChunk);
BENCHMARK_MAIN();
