#include "kqimage/pieces/read_ahead.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <utility>

#include "kqimage/terminal/interrupt.h"

namespace kqimage {
namespace {

constexpr std::size_t kFewestBuffers = 3;

// On x86-64 a piece is a large page, which is had and filled faster than 512 small ones. The advice
// may be refused: then it is small ones.
std::byte* MakeBuffer() {
  void* buffer = std::aligned_alloc(kPieceBytes, kPieceBytes);
  if (buffer == nullptr) throw std::bad_alloc();
  madvise(buffer, kPieceBytes, MADV_HUGEPAGE);
  return static_cast<std::byte*>(buffer);
}

}  // namespace

ReadAhead::ReadAhead(const Producer& producer) : ReadAhead(std::vector<Producer>(1, producer)) {}

ReadAhead::ReadAhead(std::vector<Producer> producers)
    : producers_(std::move(producers)), slots_(std::max(kFewestBuffers, producers_.size() + 1)) {
  for (Slot& slot : slots_) slot.buffer.reset(MakeBuffer());
  const BlockSignals blocked;
  for (const Producer& producer : producers_) {
    threads_.emplace_back([this, &producer] { Run(producer); });
  }
}

ReadAhead::~ReadAhead() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

const Piece* ReadAhead::Next() {
  std::unique_lock lock(mutex_);
  if (isHeld_) {
    isHeld_ = false;
    SlotOf(released_).isReady = false;
    ++released_;
    changed_.notify_all();
  }
  changed_.wait(lock, [this] { return SlotOf(released_).isReady || released_ >= end_; });
  if (released_ < end_) {
    isHeld_ = true;
    return &SlotOf(released_).piece;
  }
  if (failure_) std::rethrow_exception(failure_);
  return nullptr;
}

void ReadAhead::Run(const Producer& producer) {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] {
      return claimed_ - released_ < slots_.size() || claimed_ >= end_ || isStopping_;
    });
    if (claimed_ >= end_ || isStopping_) return;
    const std::uint64_t number = claimed_++;
    Slot& slot = SlotOf(number);
    lock.unlock();
    slot.piece = {.number = number, .buffer = slot.buffer.get()};
    bool isProduced = false;
    std::exception_ptr failure;
    try {
      isProduced = producer(slot.piece);
    } catch (...) {
      failure = std::current_exception();
    }
    lock.lock();
    slot.isReady = isProduced;
    if (!isProduced && number < end_) {
      end_ = number;
      failure_ = failure;
    }
    changed_.notify_all();
  }
}

}  // namespace kqimage
