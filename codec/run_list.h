// The run-list encoding: delta-coded pairs of a 64-bit offset and a 32-bit length. Used inside each
// chunk's first sector (volume byte offset, sectors) and in the chunk index (volume byte offset,
// bytes from the previous chunk's start in the file). Neither side allocates or locks, and the
// space is the caller's.
//
// The list is a string of entries, each the difference of its run from the one before; the first is
// taken against (0, 0). Behind a run of length 0, and so at the start, an entry has the full form:
//   8 bytes  difference of the offsets
//   4 bytes  difference of the lengths, modulo 2^32
// Otherwise the short form:
//   1 byte   header: bit 7 the sign of the offset difference, bits 6 to 3 the count P of its bytes,
//            bits 2 to 0 the count Q of the length difference's bytes
//   P bytes  the lowest of the offset difference; those above are all 0xFF or all 0, by the sign
//   Q bytes  the lowest of the length difference; those above are 0
// The list ends before a byte 0xFF where an entry would begin, or with its space.
#ifndef KQ_CODEC_RUN_LIST_H
#define KQ_CODEC_RUN_LIST_H

#include <cstdint>

namespace kq {

struct Run {
  std::uint64_t offset = 0;
  std::uint32_t length = 0;

  friend bool operator==(const Run&, const Run&) = default;
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

// Enters a run: lengthens the last run if this one continues it exactly, MergeUnit allows and the
// length doesn't overflow, otherwise appends an entry. Returns false if there is no room. A run of
// length 0 is entered like any other; whether to warn of one is the caller's business.
bool EnterRun(RunWriter* writer, const Run& run);

// Reads one entry and adds it to the running pair, which is the result. Returns false, leaving the
// results and the running pair alone, at the end of the list or on a bad entry, which is told in
// the log only. Cursor then stands before the end mark or the bad entry, or at End if the entry is
// cut.
bool NextRun(RunReader* reader, std::uint64_t* offset, std::uint32_t* length);

}  // namespace kq

#endif
