#include "kqimage/verify/hidden_damage.h"

#include <fmt/format.h>
#include <kqimageformat.h>

#include <algorithm>
#include <optional>

#include "kqimage/pieces/block_compare.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

// More than data happen to end in.
constexpr std::size_t kManyZeros = 4096;

// Where the zeros begin that bytes end in.
std::size_t ZeroStart(std::span<const std::byte> bytes) {
  constexpr std::size_t kStep = std::size_t{64} << 10;
  std::size_t start = bytes.size();
  while (start > 0) {
    const std::size_t length = std::min(kStep, start);
    if (!IsZero(bytes.subspan(start - length, length))) break;
    start -= length;
  }
  while (start > 0 && bytes[start - 1] == std::byte{0}) --start;
  return start;
}

// The lowest place of the ranges, which are in order, that one of the runs fills; none: UINT64_MAX.
std::uint64_t FirstFilled(const std::vector<VolumeRange>& ranges,
                          const std::vector<VolumeRange>& runs) {
  std::uint64_t first = UINT64_MAX;
  for (const VolumeRange& run : runs) {
    for (const VolumeRange& range : ranges) {
      const std::uint64_t begin = std::max(run.offset, range.offset);
      if (begin < run.offset + run.length && begin < range.offset + range.length) {
        first = std::min(first, begin);
      }
    }
  }
  return first;
}

}  // namespace

HiddenDamage::HiddenDamage(const Chain& chain, const char* password) {
  // The newest first, as they are read.
  for (auto image = chain.rbegin(); image != chain.rend(); ++image) {
    File file = {.layout = ReadLayout(image->path), .key = nullptr, .isSound = {}};
    if (file.layout.header.EncryptionType != KQ_ENCRYPTION_NONE) {
      file.key = DataKey::Open(file.layout, password);
    }
    file.isSound.resize(file.layout.chunks.size());
    files_.push_back(std::move(file));
  }
}

void HiddenDamage::ReadWhole(const ChainReader& reader, std::uint64_t offset,
                             std::span<std::byte> bytes) {
  reader.Read(offset, bytes);
  if (!IsIn(offset, bytes)) return;
  throw Failure(
      fmt::format("the image {} is damaged: a chunk at or behind byte {} of the "
                  "volume can't be decompressed{}",
                  Printable(reader.NewestPath()), offset, reader.PasswordDoubt()));
}

bool HiddenDamage::IsIn(std::uint64_t offset, std::span<const std::byte> bytes) {
  const std::size_t zeroStart = ZeroStart(bytes);
  if (zeroStart == bytes.size()) return false;
  // The reader goes chunk by chunk in the order of the volume and no further than the first that is
  // damaged. The one that the last other byte comes from is not, nor is any before it. But it may
  // yield less than it should, which the reader fills up with zeros: where there are many, that one
  // is looked at too.
  const std::size_t start = zeroStart > 0 ? zeroStart - 1 : 0;
  std::optional<std::uint64_t> delivered;
  if (zeroStart > 0 && bytes.size() - zeroStart < kManyZeros) delivered = offset + start;
  const std::lock_guard lock(mutex_);
  RangeSet open;
  open.Add({offset + start, bytes.size() - start});
  for (File& file : files_) {
    if (open.IsEmpty()) break;
    if (Hides(file, delivered, open)) return true;
  }
  return false;
}

// Takes what the file holds out of what is open.
bool HiddenDamage::Hides(File& file, const std::optional<std::uint64_t>& delivered,
                         RangeSet& open) {
  const std::vector<VolumeRange> whole = open.Ranges();
  const std::uint64_t begin = whole.front().offset;
  const std::uint64_t end = whole.back().offset + whole.back().length;
  const std::vector<IndexedChunk>& chunks = file.layout.chunks;
  // As the reader searches: from the last chunk that does not begin behind the first byte.
  auto chunk = std::upper_bound(
      chunks.begin(), chunks.end(), begin,
      [](std::uint64_t at, const IndexedChunk& each) { return at < each.volumeOffset; });
  if (chunk != chunks.begin()) --chunk;
  for (; chunk != chunks.end() && chunk->volumeOffset < end; ++chunk) {
    const auto number = static_cast<std::uint32_t>(chunk - chunks.begin());
    const ChunkHeadReading head = ReadChunkHead(file.layout, number);
    const std::uint64_t first = FirstFilled(open.Ranges(), head.runs);
    if (first == UINT64_MAX) continue;
    if (first != delivered && IsDamaged(file, number, head)) return true;
    for (const VolumeRange& run : head.runs) open.Remove(run);
  }
  return false;
}

bool HiddenDamage::IsDamaged(File& file, std::uint32_t chunk, const ChunkHeadReading& head) {
  // What is not compressed is told by the reader itself if it can't be read.
  const bool isStream = head.storedSectors != 1 && head.storedSectors != head.expandedSectors;
  if (!isStream || file.isSound[chunk]) return false;
  if (checker_.Check(file.layout, chunk, file.key.get()).isLost) return true;
  file.isSound[chunk] = true;
  return false;
}

}  // namespace kqimage
