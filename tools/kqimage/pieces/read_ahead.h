// Reads pieces of a volume ahead on threads of its own.
//
// Each producer fills buffers on its thread while the caller works on the piece it was given last;
// so reading overlaps with what the caller does. The memory is bounded by one piece of kPieceBytes
// more than there are producers, and at least three. Pieces come in the order of their numbers.
//
// The threads own nothing but the buffers; what the producers refer to must outlive the object.
// An exception of a producer comes out of Next, behind the pieces with lower numbers; of several,
// that of the lowest number.
#ifndef KQIMAGE_PIECES_READ_AHEAD_H
#define KQIMAGE_PIECES_READ_AHEAD_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

namespace kqimage {

inline constexpr std::size_t kPieceBytes = std::size_t{2} << 20;

// A stretch of the volume.
struct Piece {
  std::uint64_t number = 0;  // 0 for the first of the volume
  std::uint64_t offset = 0;
  std::uint64_t length = 0;     // at most kPieceBytes, unless isZero
  bool isZero = false;          // known to read as zero throughout; nothing is in the buffer
  std::byte* buffer = nullptr;  // of kPieceBytes

  std::span<std::byte> Bytes() const { return {buffer, static_cast<std::size_t>(length)}; }
};

class ReadAhead {
 public:
  // Fills in the piece, whose number and buffer are set; returns false if there is none of this
  // number. Called on the producer's thread, with rising numbers; a single producer gets them all.
  using Producer = std::function<bool(Piece&)>;

  explicit ReadAhead(const Producer& producer);
  explicit ReadAhead(std::vector<Producer> producers);
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // The next piece, valid until the next call; null at the end.
  const Piece* Next();

 private:
  struct Free {
    void operator()(std::byte* bytes) const { std::free(bytes); }
  };
  struct Slot {
    Piece piece;
    std::unique_ptr<std::byte, Free> buffer;
    bool isReady = false;  // guarded by mutex_
  };

  void Run(const Producer& producer);
  Slot& SlotOf(std::uint64_t number) { return slots_[number % slots_.size()]; }

  const std::vector<Producer> producers_;
  std::vector<Slot> slots_;  // piece n is in slot n % slots_.size()
  std::mutex mutex_;         // guards all below
  std::condition_variable changed_;
  std::uint64_t claimed_ = 0;         // pieces that a producer has begun
  std::uint64_t released_ = 0;        // pieces that the caller is done with
  std::uint64_t end_ = UINT64_MAX;    // the number that no piece has, or whose producer failed
  std::exception_ptr failure_;        // of the piece end_
  bool isHeld_ = false;               // the caller works on piece released_
  bool isStopping_ = false;           // the caller wants no more
  std::vector<std::thread> threads_;  // one for each producer
};

}  // namespace kqimage

#endif
