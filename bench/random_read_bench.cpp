// Random reads of 4 KiB from chains, beside the same reads from qcow2 files with as many backing
// files, driven by qemu-io; in one run, in turn. Prints a line of JSON for each round:
//
//   random_read_bench VOLUME ROUNDS DEPTH...
//
// The chain's base holds the first 256 MiB of VOLUME, each increment 160 scattered new blocks of
// it. A cold read is one anywhere in it, where the chunk cache (30 MiB) rarely helps; a warm one
// goes to 8 MiB that have been read before. All times are microseconds a read, without the opening
// of the files. "commands" is what qemu-io takes for a command that reads nothing from anywhere.
//
// The files lie in the folder that KQ_BENCH_FOLDER names, else in /tmp.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_chain.h"
#include "bench/qemu_io.h"

namespace {

using kqbench::BenchChain;
using kqbench::BenchPath;
using kqbench::OpenedChain;
using kqbench::Require;
using Offsets = std::vector<std::uint64_t>;
using Bytes = std::vector<std::uint8_t>;

constexpr char kFolder[] = "/tmp";
constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kPiece = 1 << 20;
constexpr std::uint64_t kVolumeBytes = 256 << 20;
constexpr std::uint64_t kWarmBytes = 8 << 20;
constexpr std::size_t kChangedBlocks = 160;
constexpr std::size_t kColdReads = 2000;
constexpr std::size_t kWarmReads = 50'000;

Bytes ReadVolume(const char* path) {
  Bytes volume(kVolumeBytes);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  for (std::uint64_t at = 0; at < kVolumeBytes; at += kPiece) {
    Require(pread(file, volume.data() + at, kPiece, static_cast<off_t>(at)) == kPiece,
            "read of the volume's first 256 MiB");
  }
  close(file);
  return volume;
}

Offsets RandomOffsets(std::size_t count, std::uint64_t range, std::uint64_t seed) {
  Offsets offsets(count);
  std::mt19937_64 random(seed);
  for (std::uint64_t& offset : offsets) offset = random() % (range / kBlock) * kBlock;
  return offsets;
}

// Ascending and each only once, as an increment stores them.
Offsets ChangedBlocks(int generation) {
  Offsets offsets =
      RandomOffsets(kChangedBlocks, kVolumeBytes, 1000u + static_cast<unsigned>(generation));
  std::sort(offsets.begin(), offsets.end());
  offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
  return offsets;
}

void MakeChain(const Bytes& volume, int depth, BenchChain* chain) {
  chain->Begin();
  for (std::uint64_t at = 0; at < kVolumeBytes; at += kPiece) {
    chain->Write(volume.data() + at, kPiece, at);
  }
  chain->Finish();
  const Bytes block(kBlock, 0x5A);
  for (int generation = 1; generation < depth; ++generation) {
    chain->Begin();
    for (const std::uint64_t offset : ChangedBlocks(generation)) {
      chain->Write(block.data(), block.size(), offset);
    }
    chain->Finish();
  }
}

using Paths = std::vector<std::unique_ptr<BenchPath>>;

void AddPath(Paths* paths, const std::string& name) {
  paths->push_back(std::make_unique<BenchPath>(kFolder, name.c_str()));
}

// The last path is the newest overlay's.
Paths MakeQcow2Chain(const Bytes& volume, int depth, const char* options) {
  Paths paths;
  AddPath(&paths, "base.raw");
  std::FILE* const raw = std::fopen(paths[0]->path.c_str(), "wb");
  Require(raw != nullptr && std::fwrite(volume.data(), 1, volume.size(), raw) == volume.size() &&
              std::fclose(raw) == 0,
          "raw base");
  AddPath(&paths, "base.qcow2");
  kqbench::MakeQcow2(paths[0]->path, paths[1]->path, options);
  for (int generation = 1; generation < depth; ++generation) {
    const std::string& backing = paths.back()->path;
    AddPath(&paths, "overlay-" + std::to_string(generation) + ".qcow2");
    kqbench::MakeQcow2Overlay(backing, paths.back()->path);
    kqbench::QemuIoSeconds(kqbench::Qcow2(paths.back()->path), "write", ChangedBlocks(generation));
  }
  return paths;
}

double OurMicroseconds(const OpenedChain& chain, const Offsets& offsets) {
  Bytes block(kBlock);
  const auto start = std::chrono::steady_clock::now();
  for (const std::uint64_t offset : offsets) chain.Read(offset, &block);
  return 1e6 * kqbench::SecondsSince(start) / static_cast<double>(offsets.size());
}

double TheirMicroseconds(const std::string& image, const Offsets& offsets) {
  const double opening = kqbench::QemuIoSeconds(image, "read", {});
  const double all = kqbench::QemuIoSeconds(image, "read", offsets);
  return 1e6 * (all - opening) / static_cast<double>(offsets.size());
}

struct Round {
  int depth;
  bool compressed;
  std::string files;
  std::string qcow2;
};

void MeasureRound(const Round& round, const Offsets& cold, const Offsets& warm) {
  const std::string nothing = "-f raw null-co://";
  const OpenedChain opened(round.files);
  const double ourCold = OurMicroseconds(opened, cold);
  const double theirCold = TheirMicroseconds(round.qcow2, cold);
  OurMicroseconds(opened, warm);
  const double ourWarm = OurMicroseconds(opened, warm);
  const double theirWarm = TheirMicroseconds(round.qcow2, warm);
  const double commands = TheirMicroseconds(nothing, warm);
  std::printf(
      "{\"depth\": %d, \"compressed\": %s, \"cold\": %.3f, \"qcow2Cold\": %.3f, "
      "\"warm\": %.3f, \"qcow2Warm\": %.3f, \"commands\": %.3f}\n",
      round.depth, round.compressed ? "true" : "false", ourCold, theirCold, ourWarm, theirWarm,
      commands);
  std::fflush(stdout);
}

// In a process of its own, as a client that opens one chain: what a process has opened before still
// counts for the cache of run lists.
template <class Work>
void InAnotherProcess(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  Require(child > 0 && waitpid(child, &status, 0) == child && status == 0, "round");
}

void Measure(const Bytes& volume, int depth, bool compressed, int rounds) {
  BenchChain chain(kFolder, kBlock, compressed ? KQ_COMPRESSION_LZO : KQ_COMPRESSION_NONE);
  MakeChain(volume, depth, &chain);
  const Paths theirs =
      MakeQcow2Chain(volume, depth, compressed ? "-c -o compression_type=zstd" : "");
  const Round measured = {depth, compressed, chain.Files(), kqbench::Qcow2(theirs.back()->path)};
  const Offsets warm = RandomOffsets(kWarmReads, kWarmBytes, 3);
  for (int round = 0; round < rounds; ++round) {
    const Offsets cold = RandomOffsets(kColdReads, kVolumeBytes, static_cast<unsigned>(round));
    InAnotherProcess([&] { MeasureRound(measured, cold, warm); });
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "Usage: random_read_bench VOLUME ROUNDS DEPTH...\n");
    return 2;
  }
  const Bytes volume = ReadVolume(argv[1]);
  for (int i = 3; i < argc; ++i) {
    for (const bool compressed : {false, true}) {
      Measure(volume, std::atoi(argv[i]), compressed, std::atoi(argv[2]));
    }
  }
  return 0;
}
