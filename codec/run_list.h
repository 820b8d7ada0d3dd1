// The run-list encoding: delta-coded pairs of a 64-bit offset and a 32-bit length. Used inside each
// chunk's first sector (volume byte offset, sectors) and in the chunk index (volume byte offset,
// bytes from the previous chunk's start in the file). Neither side allocates.
#ifndef KQ_CODEC_RUN_LIST_H
#define KQ_CODEC_RUN_LIST_H

#include <cstdint>

namespace kq {

struct Run {
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
};

// Byte that ends a list that does not fill its space.
inline constexpr std::uint8_t kRunListEnd = 0xFF;
// No entry is longer.
inline constexpr std::uint32_t kLongestRunEntry = 13;

struct RunWriter {
  std::uint8_t* Cursor = nullptr;         // next free byte
  std::uint8_t* PreviousEntry = nullptr;  // first byte of the last entry, or null
  std::uint8_t* End = nullptr;            // past the list's space
  Run LastRun;
  Run PriorRun;                 // the run before LastRun
  std::uint64_t MergeUnit = 0;  // bytes that one unit of length covers; 0: runs are never merged
};

struct RunReader {
  const std::uint8_t* Cursor = nullptr;
  const std::uint8_t* End = nullptr;
  std::uint64_t Offset = 0;
  std::uint32_t Length = 0;
};

// Writes one entry at position, as the difference of newRun from previousRun. Returns false, with
// nothing changed, if it does not fit before End. On success Cursor stands behind the entry and
// LastRun is newRun; if MergeUnit is not 0, PreviousEntry and PriorRun are set as well, so that the
// entry can be replaced later.
bool PutRun(RunWriter* writer, std::uint8_t* position, const Run& previousRun, const Run& newRun);

// Enters a run: lengthens the last run if this one continues it exactly and MergeUnit allows,
// otherwise appends an entry. Returns false if there is no room.
bool EnterRun(RunWriter* writer, const Run& run);

// Reads one entry and adds it to the running pair, which is the result. Returns false at the end of
// the list or on a bad entry, which is told in the log only.
bool NextRun(RunReader* reader, std::uint64_t* offset, std::uint32_t* length);

}  // namespace kq

#endif
