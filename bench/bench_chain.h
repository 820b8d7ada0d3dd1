// A chain of image files for benchmarks: a base and increments, each the child of the one before.
#ifndef KQ_BENCH_BENCH_CHAIN_H
#define KQ_BENCH_BENCH_CHAIN_H

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "kqimageapi.h"
#include "kqimageformat.h"

namespace kqbench {

enum class NameOrder { kBaseFirst, kNewestFirst };

// The files are removed with the object.
class BenchChain {
 public:
  BenchChain(const char* defaultFolder, std::uint32_t sectorSize, std::uint32_t compression)
      : folder_(defaultFolder), header_(sectorSize) {
    ImageHeader record{};
    std::memcpy(record.Magic, KQ_MAGIC_FINISHED, sizeof record.Magic);
    record.SectorSize = sectorSize;
    record.HeaderSectors = 1;
    record.CompressionType = compression;
    record.ImageSetId[0] = 1;
    std::memcpy(header_.data(), &record, sizeof record);
  }

  // Begins the next file: the base, then one increment after another.
  void Begin() {
    static int number = 0;
    const std::string name = "chain-" + std::to_string(++number);
    paths_.push_back(std::make_unique<BenchPath>(folder_, name.c_str()));
    Require(KQNewImageFileCreate2(header_.data(), static_cast<std::uint32_t>(header_.size()),
                                  nullptr, paths_.back()->path.c_str(), nullptr, nullptr, nullptr,
                                  nullptr, &writer_)
                    .status == 0,
            "create");
  }
  void Write(const void* data, std::size_t size, std::uint64_t offset) const {
    Require(
        KQNewImageFileWrite(writer_, data, static_cast<std::uint32_t>(size), offset).status == 0,
        "write");
  }
  void Finish() {
    Require(KQNewImageFileClose(writer_, nullptr).status == 0, "close");
    auto size = static_cast<std::uint32_t>(header_.size());
    Require(
        KQImageFileGetAllHeaderSectors(paths_.back()->path.c_str(), nullptr, header_.data(), &size)
                .status == 0,
        "read back");
  }

  // All files, as KQImageFilesOpen takes them.
  std::string Files(NameOrder order = NameOrder::kBaseFirst) const {
    std::string files;
    for (std::size_t i = 0; i < paths_.size(); ++i) {
      const std::size_t at = order == NameOrder::kBaseFirst ? i : paths_.size() - 1 - i;
      files += (i == 0 ? "" : "|") + paths_[at]->path;
    }
    return files;
  }

 private:
  const char* folder_;
  std::vector<std::uint8_t> header_;  // the next file's template
  std::vector<std::unique_ptr<BenchPath>> paths_;
  std::uint64_t writer_ = 0;
};

// A chain that is open as long as the object is there.
class OpenedChain {
 public:
  explicit OpenedChain(const std::string& files) {
    Require(KQImageFilesOpen(files.c_str(), nullptr, 0, &handle_).status == 0, "open");
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

}  // namespace kqbench

#endif
