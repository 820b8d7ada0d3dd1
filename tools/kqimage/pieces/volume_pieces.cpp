#include "kqimage/pieces/volume_pieces.h"

#include <algorithm>
#include <utility>

namespace kqimage {

ReadAhead::Producer VolumePieces(std::uint64_t size, ReadVolume read) {
  return [size, read = std::move(read), next = std::uint64_t{0}](Piece& piece) mutable {
    if (next >= size) return false;
    piece.offset = next;
    piece.length = std::min<std::uint64_t>(kPieceBytes, size - next);
    read(piece.offset, piece.Bytes());
    next += piece.length;
    return true;
  };
}

}  // namespace kqimage
