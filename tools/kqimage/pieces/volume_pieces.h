// The pieces of a volume that some function reads, on the same grid as VolumeSource's.
#ifndef KQIMAGE_PIECES_VOLUME_PIECES_H
#define KQIMAGE_PIECES_VOLUME_PIECES_H

#include <cstdint>
#include <functional>
#include <span>

#include "kqimage/pieces/data_cells.h"
#include "kqimage/pieces/read_ahead.h"

namespace kqimage {

using ReadVolume = std::function<void(std::uint64_t offset, std::span<std::byte> bytes)>;

// A producer of the pieces from 0 to size. Several, each with a function of its own that reads the
// same volume, may share the work.
//
// cells, of a volume of that size: what has no data is not read and comes as isZero pieces, however
// long. Null: all is read.
ReadAhead::Producer VolumePieces(std::uint64_t size, ReadVolume read,
                                 const DataCells* cells = nullptr);

}  // namespace kqimage

#endif
