// Several readers of one chain, which decode at the same time.
//
// The library runs the calls on one handle one after the other, and those on different handles side
// by side; the files, their indexes and the caches are the process's and exist once. So a chain
// that is read from end to end is opened once for each thread.
#ifndef KQIMAGE_IMAGE_CHAIN_READERS_H
#define KQIMAGE_IMAGE_CHAIN_READERS_H

#include <cstdint>
#include <memory>
#include <vector>

#include "kqimage/image/chain_reader.h"
#include "kqimage/pieces/data_cells.h"
#include "kqimage/pieces/read_ahead.h"
#include "kqimage/pieces/volume_pieces.h"

namespace kqimage {

class ChainReaders {
 public:
  // As ChainReader, twice where there are two processors, but once for a small volume.
  ChainReaders(const Chain& chain, const char* password);

  ChainReader& First() const { return *readers_.front(); }

  // Producers of the volume's pieces up to size, which share the work, read as the library reads
  // them; cells as for VolumePieces.
  std::vector<ReadAhead::Producer> Pieces(std::uint64_t size,
                                          const DataCells* cells = nullptr) const;

  // One for each thread of so many.
  const std::vector<std::unique_ptr<ChainReader>>& All() const { return readers_; }

  // A way to read the volume for each of them.
  std::vector<ReadVolume> Ways() const;

 private:
  std::vector<std::unique_ptr<ChainReader>> readers_;
};

}  // namespace kqimage

#endif
