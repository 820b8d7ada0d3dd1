#include "kqimage/image/chain_readers.h"

#include <algorithm>
#include <span>
#include <thread>
#include <utility>

namespace kqimage {
namespace {

// Each takes 4 MiB, for a piece and the chunk that it decodes, beside the caches of 32 MiB. Two
// decode as fast as one thread writes what they have read.
constexpr std::uint64_t kMostReaders = 2;

}  // namespace

ChainReaders::ChainReaders(const Chain& chain, const char* password) {
  readers_.push_back(std::make_unique<ChainReader>(chain, password));
  const std::uint64_t pieces = First().VolumeSize() / kPieceBytes + 1;
  const std::uint64_t wanted =
      std::min({std::uint64_t{std::thread::hardware_concurrency()}, kMostReaders, pieces});
  while (readers_.size() < wanted) {
    readers_.push_back(std::make_unique<ChainReader>(chain, password));
  }
}

std::vector<ReadVolume> ChainReaders::Ways() const {
  std::vector<ReadVolume> ways;
  for (const auto& each : readers_) {
    ways.emplace_back([reader = each.get()](std::uint64_t offset, std::span<std::byte> bytes) {
      reader->Read(offset, bytes);
    });
  }
  return ways;
}

std::vector<ReadAhead::Producer> ChainReaders::Pieces(std::uint64_t size,
                                                      const DataCells* cells) const {
  std::vector<ReadAhead::Producer> producers;
  for (ReadVolume& way : Ways()) {
    producers.push_back(VolumePieces(size, std::move(way), cells));
  }
  return producers;
}

}  // namespace kqimage
