// The SHA-256 of an image file whose chunks are checked at the same time, both from one read.
//
// Threads read the bytes of chunks, each its own, in the order of the file, and give them back when
// they are done with them. Who gives back the bytes that the sum waits for adds them and all that
// are ready behind them. What lies in front of the chunks and behind them is read on the way.
// Threads that are ahead wait, so that a few chunks are in memory.
#ifndef KQIMAGE_VERIFY_ORDERED_SUM_H
#define KQIMAGE_VERIFY_ORDERED_SUM_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "kqimage/image/sha256.h"
#include "kqimage/verify/verify_layout.h"

namespace kqimage {

class OrderedSum {
 public:
  // Whether the file's chunks stand in it in their order, and none takes more room than any writer
  // gives it. Others are summed by themselves.
  static bool IsFor(const ImageLayout& layout);

  // The layout, which IsFor has let pass, must outlive the object.
  OrderedSum(const ImageLayout& layout, std::size_t threads);

  // The file's bytes from chunk i up to the next one, or to the index; empty if they can't be read.
  // To be called once for each chunk, begun in their order. Waits for threads that are behind;
  // after Stop it comes back at once, with nothing.
  std::span<const std::uint8_t> Read(std::uint32_t i);

  // Ends the use of chunk i's bytes. Gives the number of bytes that the call has added to the sum.
  std::uint64_t Done(std::uint32_t i);

  // Lets go all that wait. There will be no sum.
  void Stop();

  // When all chunks are done: the digest as hexadecimal digits, empty if a part of the file can't
  // be read.
  std::string Digits();

 private:
  struct Slot {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t length = 0;
    bool isDone = false;  // guarded by mutex_
  };

  Slot& SlotOf(std::size_t i) { return slots_[i % slots_.size()]; }
  std::uint64_t AddChunk(std::size_t i);
  std::uint64_t AddFromFile(std::uint64_t begin, std::uint64_t end);

  const ImageLayout& layout_;
  std::size_t largest_ = 0;  // bytes of a chunk
  std::vector<Slot> slots_;  // chunk i is in slot i % slots_.size()
  // Of the thread that adds.
  Sha256 sum_;
  bool isUnreadable_ = false;

  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::size_t added_ = 0;  // chunks that are in the sum
  bool isAdding_ = false;  // a thread does so
  bool isStopped_ = false;
};

}  // namespace kqimage

#endif
