// One image file taken apart as far as its header and index go, whatever state it is in.
//
// The library refuses a damaged file in one breath; here each field is looked at by itself, so that
// the owner learns what is wrong and what is left. A layout owns the open file.
#ifndef KQIMAGE_VERIFY_VERIFY_LAYOUT_H
#define KQIMAGE_VERIFY_VERIFY_LAYOUT_H

#include <kqimageformat.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kqimage/system/unique_fd.h"
#include "kqimage/verify/range_set.h"
#include "kqimage/verify/verify_damage.h"

namespace kqimage {

// A chunk as the index has it.
struct IndexedChunk {
  std::uint64_t volumeOffset = 0;
  std::uint64_t fileOffset = 0;
};

struct ImageLayout {
  std::string path;
  UniqueFd fd;
  std::uint64_t fileSize = 0;
  ImageHeader header = {};
  bool hasHeader = false;                 // of a finished image, whose fields can be relied on
  std::vector<std::uint8_t> firstSector;  // SectorSize bytes
  bool hasRecord = false;                 // without one there are no checksums
  std::uint64_t indexOffset = 0;
  std::optional<bool> isLastPart;  // if the index tells
  std::vector<IndexedChunk> chunks;
  bool isIndexWhole = false;  // the list has been read to its end
  std::vector<Damage> damages;

  // False if the file keeps every chain that it belongs to closed.
  bool Opens() const;
  std::uint64_t HeaderBytes() const {
    return std::uint64_t{header.SectorSize} * header.HeaderSectors;
  }
  // Behind the last byte that chunk i can have.
  std::uint64_t ChunkLimit(std::size_t i) const {
    return i + 1 < chunks.size() ? chunks[i + 1].fileOffset : indexOffset;
  }
};

// Throws a Failure if the file can't be opened, or is no regular file. Damage is no failure.
ImageLayout ReadLayout(const std::string& path);

// What one read of a file that may be damaged, or lie on a damaged disk, has come to.
struct PartialRead {
  std::size_t count = 0;  // fewer than asked for at the file's end or before an error
  int error = 0;          // errno
};
PartialRead ReadSome(int fd, std::uint64_t offset, std::span<std::uint8_t> bytes);

// The words for a read that has failed.
std::string ReadErrorText(int error);

enum class ListEnding : std::uint8_t {
  kEndMark,
  kSpace,     // its space ends with an entry
  kBadEntry,  // or one that its space cuts
};

struct RunList {
  std::vector<VolumeRange> runs;  // lengths as they stand there, in whatever unit
  ListEnding ending = ListEnding::kEndMark;
  std::size_t usedBytes = 0;  // the end mark included
};

// Takes a run list apart. The library's own decoder logs what is bad instead of telling it.
RunList ReadRunList(std::span<const std::uint8_t> space);

}  // namespace kqimage

#endif
