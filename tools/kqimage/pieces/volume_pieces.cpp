#include "kqimage/pieces/volume_pieces.h"

#include <algorithm>
#include <utility>

namespace kqimage {

ReadAhead::Producer VolumePieces(std::uint64_t size, ReadVolume read, const DataCells* cells) {
  // Producers that share the work all walk over the whole volume, and each reads its own pieces.
  return [size, read = std::move(read), cells, number = std::uint64_t{0},
          offset = std::uint64_t{0}](Piece& piece) mutable {
    const auto stretch = [&]() -> DataCells::Stretch {
      if (cells != nullptr) return cells->At(offset);
      return {std::min<std::uint64_t>(kPieceBytes, size - offset), true};
    };
    for (; offset < size && number < piece.number; ++number) offset += stretch().length;
    if (offset >= size) return false;
    const auto [length, hasData] = stretch();
    piece.offset = offset;
    piece.length = length;
    piece.isZero = !hasData;
    if (hasData) read(piece.offset, piece.Bytes());
    return true;
  };
}

}  // namespace kqimage
