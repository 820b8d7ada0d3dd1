// Works on all pieces of a volume with several threads, each of which reads a piece and does with
// it what is to be done, in whatever order the threads get on.
//
// A piece stays with the processor that has read it, and nobody waits for a piece before his own.
// So this is for work at places of its own, as a restore is; what needs the pieces in order goes
// through ReadAhead. Each thread has one buffer of kSharedPieceBytes.
#ifndef KQIMAGE_PIECES_SHARED_PIECES_H
#define KQIMAGE_PIECES_SHARED_PIECES_H

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "kqimage/pieces/data_cells.h"

namespace kqimage {

// Threads take so many bytes of the volume at a time, at multiples of them: a chunk that lies in
// two pieces is mostly asked for by one thread alone, and just before it would be forgotten
// otherwise.
inline constexpr std::uint64_t kSharedStretchBytes = std::uint64_t{8} << 20;

// What a thread works on at a time; a part of a cell of DataCells.
inline constexpr std::uint64_t kSharedPieceBytes = std::uint64_t{1} << 20;

// What one thread does with the piece that begins at the offset. The bytes are the piece's to fill
// and mean nothing yet.
using PieceWork = std::function<void(std::uint64_t offset, std::span<std::byte> bytes)>;

// Calls works[i] on thread i, all together once for each piece of kSharedPieceBytes between 0 and
// size, the last shorter. cells, of a volume of that size: pieces without data are left out. Null:
// none.
//
// What a work throws comes out of here, behind the pieces with lower offsets; of several failures,
// that at the lowest offset. Meanwhile progress is called on the caller's thread, a few times a
// second and at the end, with the bytes that are done; what it throws ends the work. No thread is
// left when this returns or throws.
void WorkOnPieces(std::uint64_t size, const DataCells* cells, const std::vector<PieceWork>& works,
                  const std::function<void(std::uint64_t done)>& progress);

}  // namespace kqimage

#endif
