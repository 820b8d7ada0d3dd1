// Reads of chains: against plain reads of the same bytes, in small steps, and of many pieces.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "image/read_pieces.h"
#include "kqimageapi.h"
#include "kqimageformat.h"

namespace {

constexpr std::uint64_t kMebibyte = 0x100000;

void Require(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "%s failed\n", what);
  std::exit(1);
}

// An image file that is removed at the program's end.
class BenchImage {
 public:
  BenchImage(std::uint32_t sectorSize, std::uint32_t compression, std::uint32_t number)
      : path_("/tmp/kqread-bench-" + std::to_string(getpid()) + "-" + std::to_string(number)) {
    ImageHeader header{};
    std::memcpy(header.Magic, KQ_MAGIC_FINISHED, 4);
    header.SectorSize = sectorSize;
    header.HeaderSectors = 1;
    header.CompressionType = compression;
    std::vector<std::uint8_t> sector(sectorSize);
    std::memcpy(sector.data(), &header, sizeof header);
    Require(KQNewImageFileCreate2(sector.data(), sectorSize, nullptr, path_.c_str(), nullptr,
                                  nullptr, nullptr, nullptr, &writer_)
                    .status == 0,
            "create");
  }
  ~BenchImage() { unlink(path_.c_str()); }
  BenchImage(const BenchImage&) = delete;
  BenchImage& operator=(const BenchImage&) = delete;

  void Write(const void* data, std::uint32_t size, std::uint64_t offset) {
    Require(KQNewImageFileWrite(writer_, data, size, offset).status == 0, "write");
  }
  void Finish() { Require(KQNewImageFileClose(writer_, nullptr).status == 0, "close"); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::uint64_t writer_ = 0;
};

class OpenedChain {
 public:
  explicit OpenedChain(const std::string& path) {
    Require(KQImageFilesOpen(path.c_str(), nullptr, 0, &handle_).status == 0, "open");
  }
  ~OpenedChain() { KQImageFilesClose(handle_, nullptr, nullptr, 0); }
  OpenedChain(const OpenedChain&) = delete;
  OpenedChain& operator=(const OpenedChain&) = delete;

  void Read(std::uint64_t offset, std::vector<std::uint8_t>* buffer) const {
    Require(KQImageFilesRead(handle_, offset, buffer->data(),
                             static_cast<std::uint32_t>(buffer->size()), nullptr)
                    .status == 0,
            "read");
  }

 private:
  std::uint64_t handle_ = 0;
};

constexpr std::uint64_t kSequentialBytes = 256 * kMebibyte;

const BenchImage& SequentialImage() {
  static const BenchImage* image = [] {
    auto* made = new BenchImage(4096, 0, 1);
    std::vector<std::uint8_t> data(kMebibyte);
    std::mt19937_64 random(1);
    std::generate(data.begin(), data.end(), [&] { return static_cast<std::uint8_t>(random()); });
    for (std::uint64_t at = 0; at < kSequentialBytes; at += kMebibyte) {
      made->Write(data.data(), kMebibyte, at);
    }
    made->Finish();
    std::atexit([] { unlink(SequentialImage().path().c_str()); });
    return made;
  }();
  return *image;
}

void SequentialRead(benchmark::State& state) {
  const OpenedChain chain(SequentialImage().path());
  std::vector<std::uint8_t> buffer(kMebibyte);
  for (auto step : state) {
    for (std::uint64_t at = 0; at < kSequentialBytes; at += kMebibyte) chain.Read(at, &buffer);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kSequentialBytes));
}
BENCHMARK(SequentialRead)->Unit(benchmark::kMillisecond)->UseRealTime();

void SequentialPread(benchmark::State& state) {
  const int file = open(SequentialImage().path().c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<std::uint8_t> buffer(kMebibyte);
  for (auto step : state) {
    for (std::uint64_t at = 0; at < kSequentialBytes; at += kMebibyte) {
      Require(pread(file, buffer.data(), kMebibyte, static_cast<off_t>(at)) == kMebibyte, "pread");
    }
  }
  close(file);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kSequentialBytes));
}
BENCHMARK(SequentialPread)->Unit(benchmark::kMillisecond)->UseRealTime();

void WarmSmallRead(benchmark::State& state) {
  const OpenedChain chain(SequentialImage().path());
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
  BenchImage image(kSector, 0, 2);
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
  const OpenedChain chain(image.path());
  std::vector<std::uint8_t> buffer(count * kSector);
  for (auto step : state) chain.Read(0, &buffer);
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(ReadOfSingleSectors)
    ->Arg(65536)
    ->Arg(131072)
    ->Arg(262144)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

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
