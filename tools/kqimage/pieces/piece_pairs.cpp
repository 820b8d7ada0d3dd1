#include "kqimage/pieces/piece_pairs.h"

#include <algorithm>

namespace kqimage {

std::vector<Stretch> PiecePair::Differences() const {
  if (first && second) return DifferentStretches(*first, *second);
  if (first) return NonZeroStretches(*first);
  if (second) return NonZeroStretches(*second);
  return {};
}

const PiecePair* PiecePairs::Next() {
  const bool isFirstThere = first_.Advance();
  const bool isSecondThere = second_.Advance();
  if (!isFirstThere || !isSecondThere) return nullptr;
  pair_.offset = first_.piece->offset + first_.used;
  pair_.length = std::min(first_.Left(), second_.Left());
  pair_.first = first_.Take(pair_.length);
  pair_.second = second_.Take(pair_.length);
  return &pair_;
}

// A piece is held until all of it has been taken.
bool PiecePairs::Side::Advance() {
  if (piece != nullptr && Left() > 0) return true;
  piece = pieces->Next();
  used = 0;
  return piece != nullptr;
}

std::optional<std::span<const std::byte>> PiecePairs::Side::Take(std::uint64_t length) {
  const std::uint64_t start = used;
  used += length;
  if (piece->isZero) return std::nullopt;
  return piece->Bytes().subspan(static_cast<std::size_t>(start), static_cast<std::size_t>(length));
}

}  // namespace kqimage
