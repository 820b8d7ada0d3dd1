#include "kqimage/pieces/volume_pieces.h"

#include <algorithm>
#include <utility>

namespace kqimage {

ReadAhead::Producer VolumePieces(std::uint64_t size, ReadVolume read) {
  return [size, read = std::move(read)](Piece& piece) {
    if (piece.number > size / kPieceBytes) return false;
    piece.offset = piece.number * kPieceBytes;
    if (piece.offset == size) return false;
    piece.length = std::min<std::uint64_t>(kPieceBytes, size - piece.offset);
    read(piece.offset, piece.Bytes());
    return true;
  };
}

}  // namespace kqimage
