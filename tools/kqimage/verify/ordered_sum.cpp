#include "kqimage/verify/ordered_sum.h"

#include <fcntl.h>

#include <algorithm>

namespace kqimage {
namespace {

constexpr std::uint64_t kLargestChunk = std::uint64_t{4} << 20;
constexpr std::size_t kReadBytes = std::size_t{256} << 10;

}  // namespace

bool OrderedSum::IsFor(const ImageLayout& layout) {
  if (!layout.Opens() || layout.chunks.empty() || layout.indexOffset > layout.fileSize) {
    return false;
  }
  for (std::size_t i = 0; i < layout.chunks.size(); ++i) {
    const std::uint64_t begin = layout.chunks[i].fileOffset;
    const std::uint64_t end = layout.ChunkLimit(i);
    if (end <= begin || end - begin > kLargestChunk || end > layout.indexOffset) return false;
  }
  return true;
}

OrderedSum::OrderedSum(const ImageLayout& layout, std::size_t threads)
    // A thread that waits for the sum to catch up has done its part of the chunks before.
    : layout_(layout), slots_(threads + 2) {
  for (std::size_t i = 0; i < layout.chunks.size(); ++i) {
    const std::uint64_t length = layout.ChunkLimit(i) - layout.chunks[i].fileOffset;
    largest_ = std::max(largest_, static_cast<std::size_t>(length));
  }
  posix_fadvise(layout.fd.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

std::span<const std::uint8_t> OrderedSum::Read(std::uint32_t i) {
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return i - added_ < slots_.size() || isStopped_; });
    if (isStopped_) return {};
  }
  Slot& slot = SlotOf(i);
  if (!slot.bytes) slot.bytes = std::make_unique_for_overwrite<std::uint8_t[]>(largest_);
  const std::uint64_t begin = layout_.chunks[i].fileOffset;
  const std::span<std::uint8_t> bytes(slot.bytes.get(),
                                      static_cast<std::size_t>(layout_.ChunkLimit(i) - begin));
  const bool isRead = ReadSome(layout_.fd.Get(), begin, bytes).count == bytes.size();
  slot.length = isRead ? bytes.size() : 0;
  return bytes.first(slot.length);
}

std::uint64_t OrderedSum::Done(std::uint32_t i) {
  std::uint64_t bytes = 0;
  std::unique_lock lock(mutex_);
  SlotOf(i).isDone = true;
  if (isAdding_) return 0;
  isAdding_ = true;
  while (added_ < layout_.chunks.size() && SlotOf(added_).isDone && !isStopped_) {
    const std::size_t next = added_;
    lock.unlock();
    bytes += AddChunk(next);
    lock.lock();
    SlotOf(next).isDone = false;
    ++added_;
    changed_.notify_all();
  }
  isAdding_ = false;
  return bytes;
}

void OrderedSum::Stop() {
  const std::lock_guard lock(mutex_);
  isStopped_ = true;
  changed_.notify_all();
}

std::string OrderedSum::Digits() { return isUnreadable_ ? std::string() : sum_.Digits(); }

std::uint64_t OrderedSum::AddChunk(std::size_t i) {
  std::uint64_t bytes = 0;
  if (i == 0) bytes += AddFromFile(0, layout_.chunks.front().fileOffset);
  Slot& slot = SlotOf(i);
  isUnreadable_ = isUnreadable_ || slot.length == 0;
  if (!isUnreadable_) sum_.Update(std::as_bytes(std::span(slot.bytes.get(), slot.length)));
  bytes += slot.length;
  if (i + 1 < layout_.chunks.size()) return bytes;
  for (Slot& each : slots_) each.bytes.reset();
  // Whatever the file has behind its chunks.
  return bytes + AddFromFile(layout_.indexOffset, UINT64_MAX);
}

std::uint64_t OrderedSum::AddFromFile(std::uint64_t begin, std::uint64_t end) {
  std::vector<std::uint8_t> buffer(kReadBytes);
  std::uint64_t at = begin;
  while (at < end && !isUnreadable_) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(kReadBytes, end - at));
    const std::span<std::uint8_t> bytes = std::span(buffer).first(wanted);
    const PartialRead read = ReadSome(layout_.fd.Get(), at, bytes);
    isUnreadable_ = read.error != 0;
    sum_.Update(std::as_bytes(bytes.first(read.count)));
    at += read.count;
    if (read.count < wanted) break;
  }
  return at - begin;
}

}  // namespace kqimage
