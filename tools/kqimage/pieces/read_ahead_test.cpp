#include "kqimage/pieces/read_ahead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <latch>
#include <stdexcept>

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

}  // namespace
}  // namespace kqimage
