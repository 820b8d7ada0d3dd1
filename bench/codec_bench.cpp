// The block codec against liblzo2 in one run, chunk by chunk in turn, on data like a backup's: a
// tar-like file of programs, headers and documents found below /usr, as a whole and each by itself,
// and noise. Times are of the thread, so that a busy machine counts little, and each counter is the
// median over the iterations:
//   MiBps, peerMiBps   uncompressed bytes a second, ours and the peer's
//   ratio              ours to the peer's; above 1 we are faster
//   size, peerSize     compressed bytes for 1000 uncompressed
// For scripts: codec_bench --benchmark_format=json
#include <benchmark/benchmark.h>
#include <lzo/lzo1x.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "codec/all_zero.h"
#include "codec/lzo_block.h"
#include "codec/run_list.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
namespace fs = std::filesystem;

constexpr std::size_t kChunkBytes = 1 << 20;
constexpr std::size_t kCorpusBytes = std::size_t{64} << 20;
constexpr std::size_t kTarBlock = 512;
constexpr std::size_t kLargestFile = std::size_t{4} << 20;
// Room that keeps a chunk in one frame.
constexpr std::size_t kCompressedRoom = kChunkBytes + kChunkBytes / 8 + 128;

double ThreadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Function>
double Timed(const Function& function) {
  const double start = ThreadSeconds();
  function();
  return ThreadSeconds() - start;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The files of a folder in a fixed order that mixes large and small ones.
std::vector<fs::path> FilesBelow(const char* folder) {
  std::vector<fs::path> files;
  std::error_code error;
  const auto options = fs::directory_options::skip_permission_denied;
  for (fs::recursive_directory_iterator at(folder, options, error), end; at != end && !error;
       at.increment(error)) {
    if (at->is_regular_file(error) && !at->is_symlink(error)) files.push_back(at->path());
  }
  std::sort(files.begin(), files.end());
  std::mt19937 random(1);
  std::shuffle(files.begin(), files.end(), random);
  return files;
}

void AppendFile(const fs::path& path, Bytes* corpus) {
  std::ifstream file(path, std::ios::binary);
  Bytes content(kLargestFile);
  file.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  const std::string name = path.string();
  Bytes head(kTarBlock);
  std::memcpy(head.data(), name.data(), std::min<std::size_t>(name.size(), 100));
  std::snprintf(reinterpret_cast<char*>(head.data() + 100), kTarBlock - 100,
                "0000644%c0000000%c0000000%c%011zo", 0, 0, 0, content.size());
  corpus->insert(corpus->end(), head.begin(), head.end());
  corpus->insert(corpus->end(), content.begin(), content.end());
  corpus->resize((corpus->size() + kTarBlock - 1) / kTarBlock * kTarBlock);
}

std::vector<Bytes> Cut(const Bytes& corpus) {
  std::vector<Bytes> result;
  for (std::size_t at = 0; at + kChunkBytes <= corpus.size(); at += kChunkBytes) {
    result.emplace_back(corpus.begin() + static_cast<std::ptrdiff_t>(at),
                        corpus.begin() + static_cast<std::ptrdiff_t>(at + kChunkBytes));
  }
  return result;
}

using Chunks = std::vector<Bytes>;

void AppendFolder(const char* folder, std::size_t share, Bytes* corpus) {
  const std::size_t goal = corpus->size() + kCorpusBytes / 64 * share;
  for (const fs::path& file : FilesBelow(folder)) {
    if (corpus->size() >= goal) break;
    AppendFile(file, corpus);
  }
}

// Half programs and libraries, a quarter headers, a quarter documents and other shared data.
const Chunks& Mixed() {
  static const Chunks chunks = [] {
    Bytes corpus;
    AppendFolder("/usr/bin", 24, &corpus);
    AppendFolder("/usr/lib", 8, &corpus);
    AppendFolder("/usr/include", 16, &corpus);
    AppendFolder("/usr/share", 16, &corpus);
    return Cut(corpus);
  }();
  return chunks;
}

const Chunks& Folder(const char* folder) {
  static std::map<std::string, Chunks> folders;
  Chunks& chunks = folders[folder];
  if (chunks.empty()) {
    Bytes corpus;
    AppendFolder(folder, 16, &corpus);
    chunks = Cut(corpus);
  }
  return chunks;
}
const Chunks& Programs() { return Folder("/usr/bin"); }
const Chunks& Headers() { return Folder("/usr/include"); }
const Chunks& SharedData() { return Folder("/usr/share"); }

const Chunks& Noise() {
  static const Chunks chunks = [] {
    std::mt19937_64 random(1);
    Bytes corpus(8 * kChunkBytes);
    for (std::uint8_t& byte : corpus) byte = static_cast<std::uint8_t>(random());
    return Cut(corpus);
  }();
  return chunks;
}

using Corpus = const Chunks& (*)();

struct Pair {
  std::vector<double> ours;
  std::vector<double> peers;
  std::vector<double> ratios;

  void Add(double mebibytes, double oursSeconds, double peerSeconds) {
    ours.push_back(mebibytes / oursSeconds);
    peers.push_back(mebibytes / peerSeconds);
    ratios.push_back(peerSeconds / oursSeconds);
  }
  void Report(benchmark::State* state) const {
    state->counters["MiBps"] = Median(ours);
    state->counters["peerMiBps"] = Median(peers);
    state->counters["ratio"] = Median(ratios);
  }
};

// Runs both on each chunk in turn, the first one changing from chunk to chunk.
template <class Ours, class Peer>
void Compare(benchmark::State& state, std::size_t chunks, const Ours& ours, const Peer& peer) {
  Pair pair;
  for (auto iteration : state) {
    double oursSeconds = 0;
    double peerSeconds = 0;
    for (std::size_t i = 0; i < chunks; ++i) {
      if (i % 2 == 0) oursSeconds += Timed([&] { ours(i); });
      peerSeconds += Timed([&] { peer(i); });
      if (i % 2 != 0) oursSeconds += Timed([&] { ours(i); });
    }
    pair.Add(static_cast<double>(chunks), oursSeconds, peerSeconds);
    state.SetIterationTime(oursSeconds);
  }
  pair.Report(&state);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(chunks * kChunkBytes));
}

using PeerCompress = int (*)(const lzo_bytep, lzo_uint, lzo_bytep, lzo_uintp, lzo_voidp);

void LzoCompress(benchmark::State& state, Corpus corpus, PeerCompress peer,
                 std::size_t peerMemory) {
  const Chunks& chunks = corpus();
  std::vector<std::uint64_t> table(kq::kLzoHashTableBytes / sizeof(std::uint64_t));
  Bytes peerTable(peerMemory);
  Bytes output(kCompressedRoom);
  std::uint64_t size = 0;
  std::uint64_t peerSize = 0;
  Compare(
      state, chunks.size(),
      [&](std::size_t i) {
        std::uint64_t length = output.size();
        if (kq::LzoBlockCompress(chunks[i].data(), kChunkBytes, output.data(), &length,
                                 table.data()) != kq::kLzoSuccess) {
          std::abort();
        }
        size += length;
      },
      [&](std::size_t i) {
        lzo_uint length = output.size();
        peer(chunks[i].data(), kChunkBytes, output.data(), &length, peerTable.data());
        peerSize += length;
      });
  const double thousands = static_cast<double>(chunks.size() * kChunkBytes) / 1000 *
                           static_cast<double>(state.iterations());
  state.counters["size"] = static_cast<double>(size) / thousands;
  state.counters["peerSize"] = static_cast<double>(peerSize) / thousands;
}

// Both decode the stream that our compressor made of each chunk.
void LzoDecompress(benchmark::State& state, Corpus corpus) {
  std::vector<Bytes> streams;
  std::vector<std::uint64_t> table(kq::kLzoHashTableBytes / sizeof(std::uint64_t));
  for (const Bytes& chunk : corpus()) {
    Bytes stream(kCompressedRoom);
    std::uint64_t length = stream.size();
    kq::LzoBlockCompress(chunk.data(), chunk.size(), stream.data(), &length, table.data());
    stream.resize(length);
    streams.push_back(stream);
  }
  Bytes output(kChunkBytes);
  Compare(
      state, streams.size(),
      [&](std::size_t i) {
        std::uint64_t length = output.size();
        std::uint64_t consumed = 0;
        if (kq::LzoBlockDecompress(streams[i].data(), streams[i].size(), output.data(), &length,
                                   &consumed) != kq::kLzoSuccess ||
            consumed != streams[i].size()) {
          std::abort();
        }
      },
      [&](std::size_t i) {
        lzo_uint length = output.size();
        if (lzo1x_decompress_safe(streams[i].data() + 3, streams[i].size() - 3, output.data(),
                                  &length, nullptr) != LZO_E_OK) {
          std::abort();
        }
      });
}

// A chunk that is in the processor's cache, and a stretch that is not.
void AllZero(benchmark::State& state) {
  const Bytes zeros(static_cast<std::size_t>(state.range(0)));
  for (auto iteration : state) {
    benchmark::DoNotOptimize(kq::IsAllZero(zeros.data(), zeros.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// The peer: memchr for a byte that is not there reads as much.
void AllZeroMemchr(benchmark::State& state) {
  const Bytes zeros(static_cast<std::size_t>(state.range(0)));
  for (auto iteration : state) {
    benchmark::DoNotOptimize(std::memchr(zeros.data(), 1, zeros.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// An index of chunks whose stored size and place vary, as a reader meets it at open.
void ReadRunList(benchmark::State& state) {
  constexpr std::size_t kRuns = 100000;
  std::mt19937 random(1);
  Bytes list(kRuns * kq::kLongestRunEntry);
  kq::RunWriter writer;
  writer.Cursor = list.data();
  writer.End = list.data() + list.size();
  std::uint64_t offset = 0;
  for (std::size_t i = 0; i < kRuns; ++i) {
    kq::EnterRun(&writer, {offset, static_cast<std::uint32_t>(4096 * (1 + random() % 255))});
    offset += 0xFE000 + 4096 * (random() % 4);
  }
  for (auto iteration : state) {
    kq::RunReader reader{list.data(), writer.Cursor};
    std::uint32_t length = 0;
    while (kq::NextRun(&reader, &offset, &length)) benchmark::DoNotOptimize(length);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRuns));
}

void Compressing(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(11);
}
void Decompressing(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(21);
}

// Each against lzo1x_1_15_compress but the last.
#define KQ_COMPRESS(Name) \
  BENCHMARK_CAPTURE(LzoCompress, Name, Name, lzo1x_1_15_compress, LZO1X_1_15_MEM_COMPRESS)
KQ_COMPRESS(Mixed)->Apply(Compressing);
KQ_COMPRESS(Programs)->Apply(Compressing);
KQ_COMPRESS(Headers)->Apply(Compressing);
KQ_COMPRESS(SharedData)->Apply(Compressing);
KQ_COMPRESS(Noise)->Apply(Compressing);
BENCHMARK_CAPTURE(LzoCompress, MixedAgainstLzo1x_1, Mixed, lzo1x_1_compress, LZO1X_1_MEM_COMPRESS)
    ->Apply(Compressing);
BENCHMARK_CAPTURE(LzoDecompress, Mixed, Mixed)->Apply(Decompressing);
BENCHMARK_CAPTURE(LzoDecompress, Programs, Programs)->Apply(Decompressing);
BENCHMARK_CAPTURE(LzoDecompress, Headers, Headers)->Apply(Decompressing);
BENCHMARK_CAPTURE(LzoDecompress, SharedData, SharedData)->Apply(Decompressing);
BENCHMARK(AllZero)->Arg(kChunkBytes)->Arg(64 * kChunkBytes);
BENCHMARK(AllZeroMemchr)->Arg(kChunkBytes)->Arg(64 * kChunkBytes);
BENCHMARK(ReadRunList);

}  // namespace

BENCHMARK_MAIN();
