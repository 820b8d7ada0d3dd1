#include "kqimage/pieces/shared_pieces.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include "kqimage/pieces/read_ahead.h"
#include "kqimage/terminal/interrupt.h"

namespace kqimage {
namespace {

static_assert(kSharedStretchBytes % kPieceBytes == 0);
static_assert(kPieceBytes % kSharedPieceBytes == 0);

class SharedPieces {
 public:
  SharedPieces(std::uint64_t size, const DataCells* cells) : size_(size), cells_(cells) {}

  void Run(const std::vector<PieceWork>& works,
           const std::function<void(std::uint64_t done)>& progress) {
    std::vector<std::unique_ptr<std::byte[]>> buffers(works.size());
    for (auto& buffer : buffers) {
      buffer = std::make_unique_for_overwrite<std::byte[]>(kSharedPieceBytes);
    }
    try {
      Start(works, buffers);
      Wait(progress);
    } catch (...) {
      StopAt(0, nullptr);
      Join();
      throw;
    }
    Join();
    if (failure_) std::rethrow_exception(failure_);
    progress(size_);
  }

 private:
  struct Stretch {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
  };

  DataCells::Stretch StretchAt(std::uint64_t offset) const {
    if (cells_ != nullptr) return cells_->At(offset);
    return {std::min<std::uint64_t>(kPieceBytes, size_ - offset), true};
  }

  void Start(const std::vector<PieceWork>& works,
             const std::vector<std::unique_ptr<std::byte[]>>& buffers) {
    const BlockSignals blocked;
    running_ = works.size();
    for (std::size_t i = 0; i < works.size(); ++i) {
      threads_.emplace_back(
          [this, &work = works[i], buffer = buffers[i].get()] { Work(work, buffer); });
    }
  }

  void Wait(const std::function<void(std::uint64_t done)>& progress) {
    constexpr std::chrono::milliseconds kInterval{20};
    std::unique_lock lock(mutex_);
    while (running_ != 0) {
      changed_.wait_for(lock, kInterval);
      const std::uint64_t done = done_;
      lock.unlock();
      progress(done);
      lock.lock();
    }
  }

  void Join() {
    for (std::thread& thread : threads_) thread.join();
  }

  void Work(const PieceWork& work, std::byte* buffer) {
    Stretch mine;
    while (Claim(mine)) {
      const auto [length, hasData] = StretchAt(mine.begin);
      std::uint64_t taken = std::min(length, mine.end - mine.begin);
      if (hasData) taken = std::min(taken, kSharedPieceBytes);
      if (hasData) {
        try {
          work(mine.begin, {buffer, static_cast<std::size_t>(taken)});
        } catch (...) {
          StopAt(mine.begin, std::current_exception());
        }
      }
      mine.begin += taken;
      const std::lock_guard lock(mutex_);
      done_ += taken;
    }
    const std::lock_guard lock(mutex_);
    --running_;
    changed_.notify_all();
  }

  // False if nothing is left to do. A stretch that is used up is replaced by the following one.
  bool Claim(Stretch& mine) {
    const std::lock_guard lock(mutex_);
    if (mine.begin == mine.end) {
      // A hole of many terabytes is passed over at once.
      while (claimed_ < size_ && !StretchAt(claimed_).hasData) {
        const std::uint64_t length = StretchAt(claimed_).length;
        claimed_ += length;
        done_ += length;
      }
      mine.begin = claimed_;
      const std::uint64_t base = claimed_ - claimed_ % kSharedStretchBytes;
      claimed_ = base + std::min(kSharedStretchBytes, size_ - base);
      mine.end = claimed_;
    }
    return mine.begin < std::min(size_, stop_);
  }

  void StopAt(std::uint64_t offset, const std::exception_ptr& failure) {
    const std::lock_guard lock(mutex_);
    if (offset >= stop_) return;
    stop_ = offset;
    failure_ = failure;
  }

  const std::uint64_t size_;
  const DataCells* const cells_;
  std::vector<std::thread> threads_;

  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::uint64_t claimed_ = 0;        // a thread has taken all below, or there is no data
  std::uint64_t done_ = 0;           // bytes
  std::uint64_t stop_ = UINT64_MAX;  // no piece is begun from here on
  std::exception_ptr failure_;       // of the piece at stop_
  std::size_t running_ = 0;          // threads
};

}  // namespace

void WorkOnPieces(std::uint64_t size, const DataCells* cells, const std::vector<PieceWork>& works,
                  const std::function<void(std::uint64_t done)>& progress) {
  SharedPieces(size, cells).Run(works, progress);
}

}  // namespace kqimage
