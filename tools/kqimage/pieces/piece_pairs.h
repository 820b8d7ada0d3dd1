// Two volumes side by side, piece by piece.
//
// Both come as pieces on the grid of kPieceBytes, and what either knows to read as zero may come as
// one long piece. Where both do, nothing is read and nothing compared, however long it is.
#ifndef KQIMAGE_PIECES_PIECE_PAIRS_H
#define KQIMAGE_PIECES_PIECE_PAIRS_H

#include <cstdint>
#include <optional>
#include <span>

#include "kqimage/pieces/block_compare.h"
#include "kqimage/pieces/read_ahead.h"

namespace kqimage {

// The same stretch of both volumes.
struct PiecePair {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;  // at most kPieceBytes, unless both are zero
  // Without a value: known to read as zero throughout.
  std::optional<std::span<const std::byte>> first;
  std::optional<std::span<const std::byte>> second;

  // The stretches of blocks in which the two differ, as DifferentStretches tells them.
  std::vector<Stretch> Differences() const;
};

class PiecePairs {
 public:
  // The caller's, of volumes of one size; nobody else may call their Next.
  PiecePairs(ReadAhead& first, ReadAhead& second) : first_{&first}, second_{&second} {}

  // The next stretch, valid until the next call; null at the end. Fails as ReadAhead::Next.
  const PiecePair* Next();

 private:
  struct Side {
    ReadAhead* pieces = nullptr;
    const Piece* piece = nullptr;
    std::uint64_t used = 0;  // bytes of the piece

    bool Advance();
    std::uint64_t Left() const { return piece->length - used; }
    std::optional<std::span<const std::byte>> Take(std::uint64_t length);
  };

  Side first_;
  Side second_;
  PiecePair pair_;
};

}  // namespace kqimage

#endif
