#include "image/chunk_index.h"

#include <algorithm>

#include "codec/run_list.h"
#include "foundation/checked_math.h"
#include "kqimageformat.h"

namespace kq {
namespace {

constexpr char kModule[] = "utimagefile";

// What one read can ask for, in whole sectors of any size.
constexpr std::uint64_t kLongestRead = 0xFFFFF000;

}  // namespace

KQStatus ReadChunkIndex(OpenImageFile* file) {
  const std::uint64_t claimed = sizeof(ChunkIndexHead) + std::uint64_t{file->IndexLength};
  std::uint64_t wanted = 0;
  if (!CheckedRoundUp(claimed, file->WorkSectorSize, &wanted)) return KQ_FAIL(kFileCorrupt);
  const auto length = static_cast<std::uint32_t>(
      std::min(ReadableLength(*file, file->IndexOffset, wanted), kLongestRead));
  HeapBuffer block = HeapBuffer::AllocateAligned(kSectorAlignment, length);
  if (!block) return KQ_FAIL(kNotEnoughMemory);
  std::uint32_t held = 0;
  KQ_RETURN_IF_FAILED(
      OSFileReadAligned(file->File, file->IndexOffset, block.data(), length, &held));
  if (file->IndexLength == 0 || held <= sizeof(ChunkIndexHead)) return Success();

  RunReader start;
  start.Cursor = block.data() + sizeof(ChunkIndexHead);
  start.End = block.data() + std::min<std::uint64_t>(claimed, held);

  // The list is decoded twice, and what is bad in it is told in the log each time.
  std::uint64_t volumeOffset = 0;
  std::uint32_t length32 = 0;
  std::uint32_t count = 0;
  RunReader counter = start;
  while (NextRun(&counter, &volumeOffset, &length32)) ++count;
  if (count != 0) {
    file->IndexEntries.reset(
        static_cast<ChunkIndexEntry*>(AllocateTable(sizeof(ChunkIndexEntry) * std::size_t{count})));
    if (!file->IndexEntries) return KQ_FAIL(kNotEnoughMemory);
  }
  RunReader reader = start;
  std::uint64_t fileOffset = 0;
  std::uint32_t made = 0;
  while (NextRun(&reader, &volumeOffset, &length32) && made < count) {
    // An entry's length is the distance from the previous chunk's start in the file.
    fileOffset += length32;
    file->IndexEntries[made++] = {volumeOffset, fileOffset};
  }
  file->ChunkCount = made;
  return Success();
}

}  // namespace kq
