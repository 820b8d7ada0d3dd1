#include "kqimage/pieces/read_ahead.h"

#include <utility>

#include "kqimage/terminal/interrupt.h"

namespace kqimage {

ReadAhead::ReadAhead(Producer producer) : producer_(std::move(producer)) {
  for (Slot& slot : slots_) slot.buffer = std::make_unique_for_overwrite<std::byte[]>(kPieceBytes);
  const BlockSignals blocked;
  thread_ = std::thread([this] { Run(); });
}

ReadAhead::~ReadAhead() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

const Piece* ReadAhead::Next() {
  std::unique_lock lock(mutex_);
  if (isHeld_) {
    isHeld_ = false;
    ++released_;
    changed_.notify_all();
  }
  changed_.wait(lock, [this] { return produced_ > released_ || isDone_; });
  if (produced_ > released_) {
    isHeld_ = true;
    return &slots_[released_ % kBuffers].piece;
  }
  if (failure_) std::rethrow_exception(failure_);
  return nullptr;
}

void ReadAhead::Run() {
  std::exception_ptr failure;
  try {
    for (std::uint64_t next = 0;; ++next) {
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return next - released_ < kBuffers || isStopping_; });
        if (isStopping_) break;
      }
      Slot& slot = slots_[next % kBuffers];
      slot.piece = {.buffer = slot.buffer.get()};
      if (!producer_(slot.piece)) break;
      const std::lock_guard lock(mutex_);
      produced_ = next + 1;
      changed_.notify_all();
    }
  } catch (...) {
    failure = std::current_exception();
  }
  const std::lock_guard lock(mutex_);
  isDone_ = true;
  failure_ = failure;
  changed_.notify_all();
}

}  // namespace kqimage
