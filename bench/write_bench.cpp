// Throughput of KQNewImageFileWrite, in bytes of the volume: 1 MiB a call, in order, as a backup
// client writes. PlainWrite writes the same bytes with nothing but write(), which is the bound of
// type 0. The volume is the first 256 MiB of the file or device in KQ_BENCH_VOLUME
// (scripts/make-volume makes one of real files), or made up. Images go to the folder in
// KQ_BENCH_DIR, or to the system's folder for temporary files; a folder in memory shows the
// library's own cost best.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "kqimageapi.h"
#include "kqimageformat.h"

namespace {

constexpr std::size_t kCallBytes = 1 << 20;
constexpr std::int64_t kVolumeBytes = 256 << 20;

std::string FilePath() {
  const char* folder = getenv("KQ_BENCH_DIR");
  const std::filesystem::path parent =
      folder != nullptr ? std::filesystem::path(folder) : std::filesystem::temp_directory_path();
  return (parent / ("kq_write_bench." + std::to_string(getpid()))).string();
}

std::uint64_t Next(std::uint64_t* state) {
  *state ^= *state << 13;
  *state ^= *state >> 7;
  *state ^= *state << 17;
  return *state;
}

// What a volume holds: stretches of text, of records with small differences, of data that is
// compressed already, and of zeros.
std::vector<std::uint8_t> Volume() {
  static constexpr std::string_view kWords[] = {
      "backup ", "volume ", "sector ", "the ",   "of ",    "image ",  "restore ", "and ",
      "chain ",  "file ",   "with ",   "bytes ", "chunk ", "header ", "for ",     "index\n"};
  std::vector<std::uint8_t> volume(kVolumeBytes);
  std::uint64_t state = 0x9E3779B97F4A7C15;
  constexpr std::size_t kStretch = 64 << 10;
  for (std::size_t at = 0; at < volume.size(); at += kStretch) {
    std::uint8_t* to = volume.data() + at;
    switch (Next(&state) % 8) {
      case 0:
      case 1:
      case 2:
        for (std::size_t i = 0; i < kStretch;) {
          const std::string_view word = kWords[Next(&state) % std::size(kWords)];
          const std::size_t length = std::min(word.size(), kStretch - i);
          std::memcpy(to + i, word.data(), length);
          i += length;
        }
        break;
      case 3:
      case 4:
        for (std::size_t i = 0; i < kStretch; i += 32) {
          const std::uint64_t record[4] = {i, 0x0000100000000000, Next(&state) & 0xFFFF, at};
          std::memcpy(to + i, record, sizeof record);
        }
        break;
      case 5:
      case 6:
        for (std::size_t i = 0; i < kStretch; i += 8) {
          const std::uint64_t noise = Next(&state);
          std::memcpy(to + i, &noise, sizeof noise);
        }
        break;
      default:
        break;
    }
  }
  return volume;
}

// The first bytes of the volume at path, filled up with zeros.
std::vector<std::uint8_t> ReadVolume(const char* path) {
  std::vector<std::uint8_t> volume(kVolumeBytes);
  const int file = open(path, O_RDONLY);
  std::size_t done = 0;
  while (done < volume.size()) {
    const ssize_t count = read(file, volume.data() + done, volume.size() - done);
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  close(file);
  if (done == 0) std::fprintf(stderr, "cannot read %s: measuring zeros\n", path);
  return volume;
}

const std::vector<std::uint8_t>& SharedVolume() {
  static const std::vector<std::uint8_t> volume = [] {
    const char* path = getenv("KQ_BENCH_VOLUME");
    return path != nullptr ? ReadVolume(path) : Volume();
  }();
  return volume;
}

void Finish(benchmark::State& state, const std::string& path) {
  std::error_code error;
  const auto fileBytes = std::filesystem::file_size(path, error);
  std::filesystem::remove(path, error);
  state.SetBytesProcessed(state.iterations() * kVolumeBytes);
  state.counters["stored"] =
      static_cast<double>(fileBytes) / static_cast<double>(SharedVolume().size());
}

void PlainWrite(benchmark::State& state) {
  const std::vector<std::uint8_t>& volume = SharedVolume();
  const std::string path = FilePath();
  for (auto iteration : state) {
    static_cast<void>(iteration);
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    for (std::size_t at = 0; at < volume.size(); at += kCallBytes) {
      if (write(file, volume.data() + at, kCallBytes) != static_cast<ssize_t>(kCallBytes)) {
        state.SkipWithError("write");
      }
    }
    close(file);
  }
  Finish(state, path);
}

void NewImageWrite(benchmark::State& state) {
  const std::vector<std::uint8_t>& volume = SharedVolume();
  const std::string path = FilePath();
  std::vector<std::uint8_t> headerTemplate(4096);
  ImageHeader header{};
  std::memcpy(header.Magic, KQ_MAGIC_FINISHED, sizeof header.Magic);
  header.SectorSize = 4096;
  header.CompressionType = static_cast<std::uint32_t>(state.range(0));
  header.EncryptionType = static_cast<std::uint32_t>(state.range(1));
  std::memcpy(headerTemplate.data(), &header, sizeof header);
  for (auto iteration : state) {
    static_cast<void>(iteration);
    std::uint64_t image = 0;
    KQStatus status = KQNewImageFileCreate2(
        headerTemplate.data(), static_cast<std::uint32_t>(headerTemplate.size()), "password",
        path.c_str(), nullptr, nullptr, nullptr, nullptr, &image);
    for (std::size_t at = 0; at < volume.size() && status.status == 0; at += kCallBytes) {
      status = KQNewImageFileWrite(image, volume.data() + at, kCallBytes, at);
    }
    if (status.status == 0) status = KQNewImageFileClose(image, nullptr);
    if (status.status != 0) state.SkipWithError("the library failed");
  }
  Finish(state, path);
}

BENCHMARK(PlainWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(NewImageWrite)
    ->ArgNames({"compression", "encryption"})
    ->Args({0, 0})
    ->Args({0, 4})
    ->Args({3, 0})
    ->Args({4, 0})
    ->Args({5, 0})
    ->Args({6, 0})
    ->Args({5, 4})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
