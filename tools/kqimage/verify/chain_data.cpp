#include "kqimage/verify/chain_data.h"

#include <cstdint>
#include <filesystem>
#include <system_error>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/verify/verify_chunk.h"
#include "kqimage/verify/verify_layout.h"

namespace kqimage {
namespace {

// The library finds a byte only in the chunks that begin in the range it reads, and in the last one
// that begins before it. So chunk i matters for nothing but the bytes up to the next chunk's begin,
// and the cell in which it begins itself. Only where those are more than this, which a chunk of 1
// MiB can't fill, its head is read for what lies between: for a full volume none is.
constexpr std::uint64_t kShortSpan = std::uint64_t{16} << 20;

// A table of its cells takes 64 MiB.
constexpr std::uint64_t kLargestVolume = std::uint64_t{1} << 50;

// The index of a larger file would take more memory than the library's own.
constexpr std::uintmax_t kLargestFile = std::uintmax_t{256} << 30;

// False if it can't be told.
bool MarkData(const ImageFile& file, DataCells& cells) {
  std::error_code error;
  if (std::filesystem::file_size(file.path, error) > kLargestFile || error) return false;
  const ImageLayout layout = ReadLayout(file.path);
  if (!layout.Opens() || !layout.isIndexWhole || !layout.damages.empty()) return false;
  const std::size_t count = layout.chunks.size();
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t begin = layout.chunks[i].volumeOffset;
    if (i + 1 < count) {
      const std::uint64_t next = layout.chunks[i + 1].volumeOffset;
      if (next <= begin) return false;
      if (next - begin <= kShortSpan) {
        cells.Mark(begin, next - begin);
        continue;
      }
    }
    ThrowIfInterrupted();
    const ChunkHeadReading head = ReadChunkHead(layout, static_cast<std::uint32_t>(i));
    if (head.damage || !head.hasAllRuns) return false;
    cells.Mark(begin, 1);
    for (const VolumeRange& run : head.runs) cells.Mark(run.offset, run.length);
  }
  return true;
}

}  // namespace

std::optional<DataCells> FindDataCells(const Chain& chain) {
  return FindDataCells(chain, chain.back().info.sourceSize);
}

std::optional<DataCells> FindDataCells(const Chain& chain, std::uint64_t size) {
  if (size > kLargestVolume) return std::nullopt;
  DataCells cells(size);
  for (const ImageFile& file : chain) {
    bool isTold = false;
    try {
      isTold = MarkData(file, cells);
    } catch (const Failure&) {
      // The library will say the same.
    }
    if (!isTold) cells.Mark(0, size);
  }
  return cells;
}

}  // namespace kqimage
