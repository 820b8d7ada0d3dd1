// Where a chain of images has data, told from the indexes of its files.
#ifndef KQIMAGE_VERIFY_CHAIN_DATA_H
#define KQIMAGE_VERIFY_CHAIN_DATA_H

#include <cstdint>
#include <optional>

#include "kqimage/image/image_file.h"
#include "kqimage/pieces/data_cells.h"

namespace kqimage {

// The cells of the newest image's volume; none if it is too large for a table of them. Of a file in
// which anything looks wrong or out of order, and of one above 256 GiB, every cell counts
// as one with data: then the library reads it and tells what is wrong.
std::optional<DataCells> FindDataCells(const Chain& chain);

// The same for what is read of the first size bytes, whatever the volume's size is.
std::optional<DataCells> FindDataCells(const Chain& chain, std::uint64_t size);

}  // namespace kqimage

#endif
