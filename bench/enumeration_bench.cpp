// The catalogue: what a file costs when a directory is added, against a plain loop that opens each
// file and reads 4 KiB of it, and what queries over a big catalogue cost. All files are in the page
// cache, in the folder that KQ_BENCH_FOLDER names, else in /tmp.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "kqimageapi.h"
#include "kqimageformat.h"

namespace {

constexpr std::uint32_t kSectorSize = 512;

using kqbench::Require;

// A folder of small images in families, each a chain of the same length. Removed at the program's
// end.
class ImageFolder {
 public:
  ImageFolder(std::int64_t files, std::int64_t filesPerFamily) {
    const char* folder = std::getenv("KQ_BENCH_FOLDER");
    path_ = std::string(folder != nullptr ? folder : "/tmp") + "/kqenumeration-bench-XXXXXX";
    Require(mkdtemp(path_.data()) != nullptr, "mkdtemp");
    std::vector<std::uint8_t> parent;
    for (std::int64_t i = 0; i < files; ++i) {
      if (i % filesPerFamily == 0) parent = BaseTemplate();
      parent = WriteImage(NameOf(i), parent);
    }
  }
  ~ImageFolder() { std::filesystem::remove_all(path_); }
  ImageFolder(const ImageFolder&) = delete;
  ImageFolder& operator=(const ImageFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string NameOf(std::int64_t number) const {
    return path_ + "/host-b001-i" + std::to_string(number) + ".twi";
  }

 private:
  static std::vector<std::uint8_t> BaseTemplate() {
    ImageHeader header{};
    std::memcpy(header.Magic, KQ_MAGIC_FINISHED, 4);
    header.SectorSize = kSectorSize;
    header.HeaderSectors = 1;
    header.SourceSize = 0x100000;
    header.ImageSetId[0] = 1;
    std::vector<std::uint8_t> sector(kSectorSize);
    std::memcpy(sector.data(), &header, sizeof header);
    return sector;
  }

  // Gives the template for the image's child.
  static std::vector<std::uint8_t> WriteImage(const std::string& name,
                                              const std::vector<std::uint8_t>& parent) {
    static const std::vector<std::uint8_t> data(kSectorSize, 7);
    std::uint64_t writer = 0;
    Require(KQNewImageFileCreate2(parent.data(), kSectorSize, nullptr, name.c_str(), nullptr,
                                  nullptr, nullptr, nullptr, &writer)
                    .status == 0,
            "create");
    Require(KQNewImageFileWrite(writer, data.data(), kSectorSize, 0).status == 0, "write");
    Require(KQNewImageFileClose(writer, nullptr).status == 0, "close");
    std::vector<std::uint8_t> sector(kSectorSize);
    std::uint32_t size = kSectorSize;
    Require(KQImageFileGetAllHeaderSectors(name.c_str(), nullptr, sector.data(), &size).status == 0,
            "read back");
    return sector;
  }

  std::string path_;
};

// Made once for each number of files.
const ImageFolder& Folder(std::int64_t files, std::int64_t filesPerFamily) {
  static std::map<std::pair<std::int64_t, std::int64_t>, std::unique_ptr<ImageFolder>> made;
  auto& folder = made[{files, filesPerFamily}];
  if (!folder) folder = std::make_unique<ImageFolder>(files, filesPerFamily);
  return *folder;
}

constexpr std::int64_t kFilesPerFamily = 10;

class Enumeration {
 public:
  Enumeration() {
    Require(KQImageFilesEnumerationCreate(&handle_, 0, 0).status == 0, "enumeration");
  }
  ~Enumeration() { KQImageFilesEnumerationClose(handle_); }
  Enumeration(const Enumeration&) = delete;
  Enumeration& operator=(const Enumeration&) = delete;

  void Add(const std::string& path) const {
    Require(KQImageFilesEnumerationAddDirectory(handle_, path.c_str(), 0, 0).status == 0, "add");
  }
  std::uint64_t handle() const { return handle_; }

 private:
  std::uint64_t handle_ = 0;
};

void AddDirectory(benchmark::State& state) {
  const ImageFolder& folder = Folder(state.range(0), kFilesPerFamily);
  for (auto _ : state) {
    const Enumeration enumeration;
    enumeration.Add(folder.path());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AddDirectory)->RangeMultiplier(10)->Range(10, 100'000)->Unit(benchmark::kMillisecond);

void OpenAndReadEachFile(benchmark::State& state) {
  const std::string path = Folder(state.range(0), kFilesPerFamily).path();
  char bytes[4096];
  for (auto _ : state) {
    DIR* directory = opendir(path.c_str());
    Require(directory != nullptr, "opendir");
    while (const dirent* entry = readdir(directory)) {
      if (entry->d_name[0] == '.') continue;
      const int file = open((path + "/" + entry->d_name).c_str(), O_RDONLY | O_CLOEXEC);
      Require(file >= 0 && read(file, bytes, sizeof bytes) > 0, "read");
      benchmark::DoNotOptimize(bytes);
      close(file);
    }
    closedir(directory);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(OpenAndReadEachFile)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

constexpr std::int64_t kBigCatalogue = 10000;

// Asks for a list's size and then for the list, as clients do.
template <class Query>
void Ask(benchmark::State& state, std::int64_t filesPerFamily, const Query& query) {
  const ImageFolder& folder = Folder(kBigCatalogue, filesPerFamily);
  const Enumeration enumeration;
  enumeration.Add(folder.path());
  const std::string last = folder.NameOf(kBigCatalogue - 1);
  const std::string base = folder.NameOf(kBigCatalogue - filesPerFamily);
  std::vector<char> buffer;
  for (auto _ : state) {
    std::uint32_t size = 0;
    Require(query(enumeration.handle(), base, last, nullptr, &size).status == KQ_STATUS_MORE_DATA,
            "size");
    buffer.resize(size);
    Require(query(enumeration.handle(), base, last, buffer.data(), &size).status == 0, "list");
  }
}

void ShortestPathToBase(benchmark::State& state) {
  Ask(state, state.range(0),
      [](std::uint64_t handle, const std::string&, const std::string& last, char* buffer,
         std::uint32_t* size) {
        return KQImageFilesEnumerationQueryShortestPathToBase(handle, last.c_str(), "|", 0, buffer,
                                                              size);
      });
}
BENCHMARK(ShortestPathToBase)
    ->Arg(kFilesPerFamily)
    ->Arg(kBigCatalogue)
    ->Unit(benchmark::kMillisecond);

void Roots(benchmark::State& state) {
  Ask(state, state.range(0),
      [](std::uint64_t handle, const std::string&, const std::string& last, char* buffer,
         std::uint32_t* size) {
        return KQImageFilesEnumerationQueryRoots(handle, last.c_str(), "|", 0, buffer, size);
      });
}
BENCHMARK(Roots)->Arg(kFilesPerFamily)->Arg(kBigCatalogue)->Unit(benchmark::kMillisecond);

void AllPureDependents(benchmark::State& state) {
  Ask(state, state.range(0),
      [](std::uint64_t handle, const std::string& base, const std::string&, char* buffer,
         std::uint32_t* size) {
        return KQImageFilesEnumerationQueryAllPureDependents(handle, base.c_str(), "|", 0, buffer,
                                                             size);
      });
}
BENCHMARK(AllPureDependents)
    ->Arg(kFilesPerFamily)
    ->Arg(kBigCatalogue)
    ->Unit(benchmark::kMillisecond);

void AllFostered(benchmark::State& state) {
  Ask(state, state.range(0),
      [](std::uint64_t handle, const std::string&, const std::string&, char* buffer,
         std::uint32_t* size) {
        return KQImageFilesEnumerationQueryAllFostered(handle, "|", 0, buffer, size);
      });
}
BENCHMARK(AllFostered)->Arg(kFilesPerFamily)->Arg(kBigCatalogue)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
