#include "kqimage/pieces/read_ahead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "kqimage/pieces/volume_pieces.h"

namespace kqimage {
namespace {

// Produces count pieces, each filled with its number.
ReadAhead::Producer Counting(int count) {
  return [count, next = 0](Piece& piece) mutable {
    if (next == count) return false;
    piece.offset = static_cast<std::uint64_t>(next);
    piece.length = kPieceBytes;
    std::memset(piece.buffer, next, 64);
    ++next;
    return true;
  };
}

TEST(ReadAhead, HandsOutAllPiecesInOrder) {
  ReadAhead pieces(Counting(50));
  for (int i = 0; i < 50; ++i) {
    const Piece* piece = pieces.Next();
    ASSERT_NE(piece, nullptr);
    EXPECT_EQ(piece->offset, static_cast<std::uint64_t>(i));
    EXPECT_EQ(piece->Bytes()[63], static_cast<std::byte>(i));
  }
  EXPECT_EQ(pieces.Next(), nullptr);
  EXPECT_EQ(pieces.Next(), nullptr);
}

TEST(ReadAhead, APieceStaysAsItIsWhileTheCallerHasIt) {
  std::atomic<int> produced = 0;
  std::latch others(2);
  ReadAhead pieces([&, next = Counting(3)](Piece& piece) mutable {
    const bool isPiece = next(piece);
    if (++produced > 1 && isPiece) others.count_down();
    return isPiece;
  });
  const Piece* first = pieces.Next();
  others.wait();  // all other buffers are filled now
  EXPECT_EQ(first->offset, 0u);
  EXPECT_EQ(first->Bytes()[0], std::byte{0});
}

TEST(ReadAhead, AFailureComesBehindThePiecesBeforeIt) {
  ReadAhead pieces([next = Counting(2)](Piece& piece) mutable {
    if (!next(piece)) throw std::runtime_error("broken");
    return true;
  });
  EXPECT_NE(pieces.Next(), nullptr);
  EXPECT_NE(pieces.Next(), nullptr);
  EXPECT_THROW(pieces.Next(), std::runtime_error);
}

TEST(ReadAhead, CanBeGivenUpAtAnyMoment) {
  for (int taken = 0; taken < 6; ++taken) {
    ReadAhead pieces(Counting(1000000));
    for (int i = 0; i < taken; ++i) ASSERT_NE(pieces.Next(), nullptr);
  }
}

TEST(ReadAhead, NoPieceAtAllIsAnEnd) {
  ReadAhead pieces(Counting(0));
  EXPECT_EQ(pieces.Next(), nullptr);
}

// A producer that shares the work with others: piece n is n times ten, and the last is 39.
ReadAhead::Producer Sharing(std::function<void(std::uint64_t)> before) {
  return [before = std::move(before)](Piece& piece) {
    before(piece.number);
    if (piece.number == 40) return false;
    piece.offset = piece.number * 10;
    return true;
  };
}

TEST(ReadAhead, SeveralProducersGiveOneOrder) {
  // An odd piece is ready only after the even one behind it, where that has a thread of its own.
  std::atomic<std::uint64_t> evenDone = 0;
  const auto before = [&](std::uint64_t number) {
    if (number % 2 == 0) evenDone = number + 1;
    while (number % 2 == 1 && number < 39 && evenDone < number + 1) std::this_thread::yield();
  };
  ReadAhead pieces({Sharing(before), Sharing(before)});
  for (std::uint64_t i = 0; i < 40; ++i) {
    const Piece* piece = pieces.Next();
    ASSERT_NE(piece, nullptr);
    EXPECT_EQ(piece->number, i);
    EXPECT_EQ(piece->offset, i * 10);
  }
  EXPECT_EQ(pieces.Next(), nullptr);
}

TEST(ReadAhead, OfSeveralFailuresTheFirstInTheVolumeCounts) {
  // Piece 6 fails only when piece 7 has failed already.
  std::atomic<bool> hasFailed = false;
  const auto before = [&](std::uint64_t number) {
    if (number == 7) {
      hasFailed = true;
      throw std::runtime_error("7");
    }
    if (number != 6) return;
    while (!hasFailed) std::this_thread::yield();
    throw std::runtime_error("6");
  };
  ReadAhead pieces({Sharing(before), Sharing(before)});
  for (int i = 0; i < 6; ++i) ASSERT_NE(pieces.Next(), nullptr);
  try {
    pieces.Next();
    FAIL() << "no failure";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "6");
  }
}

TEST(ReadAhead, ThePiecesOfAVolumeCoverItOnceWhateverItsSize) {
  for (const std::uint64_t size :
       {std::uint64_t{1}, std::uint64_t{kPieceBytes}, std::uint64_t{kPieceBytes} + 1,
        3 * std::uint64_t{kPieceBytes}}) {
    const auto read = [](std::uint64_t offset, std::span<std::byte> bytes) {
      bytes[0] = std::byte(offset / kPieceBytes + 1);
    };
    ReadAhead pieces({VolumePieces(size, read), VolumePieces(size, read)});
    std::uint64_t next = 0;
    while (const Piece* piece = pieces.Next()) {
      EXPECT_EQ(piece->offset, next);
      EXPECT_EQ(piece->Bytes()[0], std::byte(next / kPieceBytes + 1));
      next += piece->length;
    }
    EXPECT_EQ(next, size);
  }
}

}  // namespace
}  // namespace kqimage
