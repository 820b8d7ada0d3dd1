// In which cells of a volume there may be data.
//
// A cell is a stretch of kPieceBytes, of which the last may be shorter. All others read as zero and
// need not be read, so that a large volume with little in it is restored in no time.
#ifndef KQIMAGE_PIECES_DATA_CELLS_H
#define KQIMAGE_PIECES_DATA_CELLS_H

#include <cstdint>
#include <vector>

namespace kqimage {

class DataCells {
 public:
  // No data anywhere.
  explicit DataCells(std::uint64_t volumeSize);

  // There may be data in the range, which may reach beyond the volume's end.
  void Mark(std::uint64_t offset, std::uint64_t length);

  struct Stretch {
    std::uint64_t length = 0;
    bool hasData = false;  // then it is one cell; else all cells up to the next with data
  };
  // What begins at a cell's first byte, which lies in the volume.
  Stretch At(std::uint64_t offset) const;

 private:
  std::uint64_t volumeSize_;
  std::vector<bool> hasData_;
};

}  // namespace kqimage

#endif
