#include "kqimage/verify/compare_volumes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kqimageformat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "kqimage/image/chain_finder.h"
#include "kqimage/pieces/block_compare.h"
#include "kqimage/pieces/piece_pairs.h"
#include "kqimage/pieces/read_ahead.h"
#include "kqimage/pieces/volume_pieces.h"
#include "kqimage/system/next_name.h"
#include "kqimage/system/read_at.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"
#include "kqimage/verify/chain_data.h"
#include "kqimage/verify/verify_losses.h"

namespace kqimage {
namespace {

bool IsImage(const std::string& path) {
  if (HasExtension(path, ".twf") || HasExtension(path, ".twi")) return true;
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  char magic[sizeof ImageHeader::Magic] = {};
  return fd && pread(fd.Get(), magic, sizeof magic, 0) == sizeof magic &&
         std::memcmp(magic, KQ_MAGIC_FINISHED, sizeof magic) == 0;
}

// What the chain has lost, as its newest image reads.
std::vector<VolumeRange> LostOf(const Chain& files, const char* password,
                                const std::function<void()>& interrupt) {
  LayoutStore store;
  VerifiedChain chain;
  std::vector<std::unique_ptr<DataKey>> keys;
  for (const ImageFile& file : files) {
    chain.files.push_back(store.Get(file.path));
    const ImageLayout& layout = store.At(chain.files.back());
    const bool isPlain = layout.header.EncryptionType == KQ_ENCRYPTION_NONE;
    keys.push_back(isPlain || !layout.Opens() ? nullptr : DataKey::Open(layout, password));
  }
  std::vector<FileTask> tasks;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    tasks.push_back({.layout = &store.At(chain.files[i]), .key = keys[i].get()});
  }
  const std::vector<FileFindings> findings =
      VerifyFiles(tasks, {.sample = {}, .withSums = false}, [&](std::uint64_t) { interrupt(); });
  const ImageLoss newest = ComputeLosses(chain, store, findings, interrupt).back();
  if (newest.opens) return newest.lost;
  throw Failure(
      fmt::format("{} is damaged: kqimage verify tells more", Printable(files.back().path)));
}

void AddDifferences(std::uint64_t offset, std::span<const std::byte> a,
                    std::span<const std::byte> b, RangeLog& different) {
  for (std::size_t i = 0; i < a.size();) {
    if (a[i] == b[i]) {
      ++i;
      continue;
    }
    const std::size_t begin = i;
    while (i < a.size() && a[i] != b[i]) ++i;
    different.Add({offset + begin, i - begin});
  }
}

void AddDifferences(const PiecePair& pair, RangeLog& different) {
  static constexpr std::array<std::byte, kBlockBytes> kZeros = {};
  for (const Stretch& stretch : pair.Differences()) {
    for (std::size_t at = stretch.offset; at < stretch.offset + stretch.length; at += kBlockBytes) {
      const std::size_t length = std::min(kBlockBytes, stretch.offset + stretch.length - at);
      const std::span<const std::byte> zeros = std::span(kZeros).first(length);
      AddDifferences(pair.offset + at, pair.first ? pair.first->subspan(at, length) : zeros,
                     pair.second ? pair.second->subspan(at, length) : zeros, different);
    }
  }
}

// Fills bytes, with zeros for what is lost: two sides then don't differ there by chance alone, and
// the caller takes the ranges out.
void ReadAround(const ReadVolume& read, const std::vector<VolumeRange>& lost, std::uint64_t offset,
                std::span<std::byte> bytes) {
  const std::uint64_t end = offset + bytes.size();
  const auto part = [&](std::uint64_t from, std::uint64_t to) {
    return bytes.subspan(static_cast<std::size_t>(from - offset),
                         static_cast<std::size_t>(to - from));
  };
  auto next = std::upper_bound(
      lost.begin(), lost.end(), offset,
      [](std::uint64_t at, const VolumeRange& range) { return at < range.offset + range.length; });
  std::uint64_t at = offset;
  for (; next != lost.end() && next->offset < end; ++next) {
    if (at < next->offset) read(at, part(at, next->offset));
    const std::uint64_t from = std::max(at, next->offset);
    at = std::min(end, next->offset + next->length);
    std::ranges::fill(part(from, at), std::byte{0});
  }
  if (at < end) read(at, part(at, end));
}

}  // namespace

ComparedSide::ComparedSide(const std::string& path, const std::vector<std::string>& folders)
    : path_(path) {
  if (IsImage(path)) {
    chain_ = FindChain(path, folders);
    RefuseUnreadable(chain_);
  } else {
    source_.emplace(path);
  }
}

void ComparedSide::Open(const char* password, const std::function<void()>& interrupt) {
  if (!IsChain()) return;
  readers_.emplace(chain_, password);
  lost_ = LostOf(chain_, password, interrupt);
}

std::uint64_t ComparedSide::Size() const {
  return readers_ ? readers_->First().VolumeSize() : source_->Size();
}

std::optional<DataCells> ComparedSide::Cells(std::uint64_t size) const {
  return readers_ ? FindDataCells(chain_, size) : source_->Cells(size);
}

std::vector<ReadVolume> ComparedSide::Ways() const {
  if (readers_) return readers_->Ways();
  return {[this](std::uint64_t offset, std::span<std::byte> bytes) {
    if (ReadAt(source_->Fd(), source_->Start() + offset, bytes, path_) != bytes.size()) {
      throw Failure(fmt::format("{} became shorter while it was read", Printable(path_)));
    }
  }};
}

Comparison Compare(const ComparedSide& a, const ComparedSide& b, std::size_t mostRanges,
                   const std::function<void(std::uint64_t)>& progress) {
  Comparison result = {.different = RangeLog(mostRanges), .unknown = {}};
  result.sizes[0] = a.Size();
  result.sizes[1] = b.Size();
  const std::uint64_t common = std::min(a.Size(), b.Size());
  for (const ComparedSide* side : {&a, &b}) {
    for (const VolumeRange& range : side->Lost()) result.unknown.Add(range);
  }
  result.unknown.CutAt(common);
  const std::vector<VolumeRange> unknown = result.unknown.Ranges();
  const auto producers = [&](const ComparedSide& side, const std::optional<DataCells>& cells) {
    std::vector<ReadAhead::Producer> all;
    for (const ReadVolume& way : side.Ways()) {
      const auto read = [way, &unknown](std::uint64_t offset, std::span<std::byte> bytes) {
        ReadAround(way, unknown, offset, bytes);
      };
      all.push_back(VolumePieces(common, read, cells ? &*cells : nullptr));
    }
    return all;
  };
  const std::optional<DataCells> cellsOfA = a.Cells(common);
  const std::optional<DataCells> cellsOfB = b.Cells(common);
  ReadAhead piecesOfA(producers(a, cellsOfA));
  ReadAhead piecesOfB(producers(b, cellsOfB));
  PiecePairs pairs(piecesOfA, piecesOfB);
  while (const PiecePair* pair = pairs.Next()) {
    progress(pair->offset);
    AddDifferences(*pair, result.different);
  }
  return result;
}

}  // namespace kqimage
