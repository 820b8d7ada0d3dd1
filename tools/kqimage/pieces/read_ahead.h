// Reads pieces of a volume ahead on a thread of its own.
//
// A producer fills buffer after buffer, up to kBuffers of them, while the caller works on the piece
// it was given last; so reading overlaps with what the caller does. The memory is bounded by
// kBuffers pieces of kPieceBytes. Pieces come in the producer's order.
//
// The thread owns nothing but the buffers; what the producer refers to must outlive the object.
// An exception of the producer comes out of Next, behind the pieces produced before it.
#ifndef KQIMAGE_PIECES_READ_AHEAD_H
#define KQIMAGE_PIECES_READ_AHEAD_H

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <thread>

namespace kqimage {

inline constexpr std::size_t kPieceBytes = std::size_t{2} << 20;

// A stretch of the volume.
struct Piece {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;     // at most kPieceBytes, unless isZero
  bool isZero = false;          // known to read as zero throughout; nothing is in the buffer
  std::byte* buffer = nullptr;  // of kPieceBytes

  std::span<std::byte> Bytes() const { return {buffer, static_cast<std::size_t>(length)}; }
};

class ReadAhead {
 public:
  // Fills in the piece, whose buffer is set; returns false at the end. Called on the thread.
  using Producer = std::function<bool(Piece&)>;

  explicit ReadAhead(Producer producer);
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // The next piece, valid until the next call; null at the end.
  const Piece* Next();

 private:
  static constexpr std::size_t kBuffers = 3;

  struct Slot {
    Piece piece;
    std::unique_ptr<std::byte[]> buffer;
  };

  void Run();

  const Producer producer_;
  std::array<Slot, kBuffers> slots_;
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::uint64_t produced_ = 0;  // pieces, counted from the start; piece n is in slot n % kBuffers
  std::uint64_t released_ = 0;  // pieces that the caller is done with
  bool isHeld_ = false;         // the caller works on piece released_
  bool isDone_ = false;         // the producer has ended
  bool isStopping_ = false;     // the caller wants no more
  std::exception_ptr failure_;
  std::thread thread_;
};

}  // namespace kqimage

#endif
