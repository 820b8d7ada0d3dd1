#include "kqimage/mount/mounted_volume.h"

#include <algorithm>
#include <thread>

namespace kqimage {
namespace {

constexpr unsigned kMaxReaders = 8;
constexpr std::uint64_t kPageBytes = 4096;

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}

// Pages are what the system writes; where they hold whole sectors, they give long extents.
std::uint64_t BlockOf(std::uint64_t sector) {
  return kPageBytes % sector == 0 ? kPageBytes : sector;
}

}  // namespace

MountedVolume::MountedVolume(const Chain& chain, const char* password, std::uint64_t sparse)
    : isWritable_(sparse != 0),
      block_(BlockOf(chain.back().info.sectorSize)),
      endOfSectors_(RoundUp(chain.back().info.sourceSize, chain.back().info.sectorSize)) {
  const unsigned count =
      isWritable_ ? 1 : std::clamp(std::thread::hardware_concurrency(), 1u, kMaxReaders);
  for (unsigned i = 0; i < count; ++i) {
    readers_.push_back(std::make_unique<Reader>(chain, password, sparse));
  }
  // Last, so that the sparse file is closed if this fails.
  damage_ = std::make_unique<HiddenDamage>(chain, password);
}

void MountedVolume::Read(std::uint64_t offset, std::span<std::byte> bytes) {
  // A thread goes to a reader of its own first, and to a free one if that is taken.
  const std::size_t home = std::hash<std::thread::id>()(std::this_thread::get_id());
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    Reader& reader = *readers_[(home + i) % readers_.size()];
    const std::unique_lock lock(reader.mutex, std::try_to_lock);
    if (!lock) continue;
    damage_->ReadWhole(reader.chain, offset, bytes);
    return;
  }
  Reader& reader = *readers_[home % readers_.size()];
  const std::scoped_lock lock(reader.mutex);
  damage_->ReadWhole(reader.chain, offset, bytes);
}

KQStatus MountedVolume::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
  Reader& volume = *readers_.front();
  const std::scoped_lock lock(volume.mutex);
  const std::uint64_t end = offset + bytes.size();
  const std::uint64_t start = offset / block_ * block_;
  const std::uint64_t wholeEnd = std::min(RoundUp(end, block_), endOfSectors_);
  if (start == offset && wholeEnd == end) return volume.chain.Write(offset, bytes);
  std::vector<std::byte> blocks(static_cast<std::size_t>(wholeEnd - start));
  const std::size_t first = std::min<std::size_t>(blocks.size(), block_);
  damage_->ReadWhole(volume.chain, start, std::span(blocks).first(first));
  if (blocks.size() > first) {
    const std::size_t last = (blocks.size() - 1) / block_ * block_;
    damage_->ReadWhole(volume.chain, start + last, std::span(blocks).subspan(last));
  }
  std::copy(bytes.begin(), bytes.end(),
            blocks.begin() + static_cast<std::ptrdiff_t>(offset - start));
  return volume.chain.Write(start, blocks);
}

KQStatus MountedVolume::Close() {
  KQStatus first = {};
  for (const auto& reader : readers_) {
    const KQStatus status = reader->chain.Close();
    if (first.status == KQ_STATUS_SUCCESS) first = status;
  }
  return first;
}

}  // namespace kqimage
