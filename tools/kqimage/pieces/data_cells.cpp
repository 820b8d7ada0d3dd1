#include "kqimage/pieces/data_cells.h"

#include <algorithm>

#include "kqimage/pieces/read_ahead.h"

namespace kqimage {

DataCells::DataCells(std::uint64_t volumeSize)
    : volumeSize_(volumeSize),
      hasData_(
          static_cast<std::size_t>(volumeSize / kPieceBytes + (volumeSize % kPieceBytes != 0))) {}

void DataCells::Mark(std::uint64_t offset, std::uint64_t length) {
  if (length == 0 || offset >= volumeSize_) return;
  const std::uint64_t last = offset + std::min(length, volumeSize_ - offset) - 1;
  std::fill(hasData_.begin() + static_cast<std::ptrdiff_t>(offset / kPieceBytes),
            hasData_.begin() + static_cast<std::ptrdiff_t>(last / kPieceBytes + 1), true);
}

DataCells::Stretch DataCells::At(std::uint64_t offset) const {
  const auto cell = hasData_.begin() + static_cast<std::ptrdiff_t>(offset / kPieceBytes);
  if (*cell) return {std::min<std::uint64_t>(kPieceBytes, volumeSize_ - offset), true};
  const auto next = std::find(cell, hasData_.end(), true);
  if (next == hasData_.end()) return {volumeSize_ - offset, false};
  return {static_cast<std::uint64_t>(next - cell) * kPieceBytes, false};
}

}  // namespace kqimage
