// Header sectors of an image file, read without knowing its sector size: first the fixed 114 bytes,
// and everything further sized from those. Nothing is held between calls; every buffer belongs to
// the caller that receives it.
#ifndef KQ_HEADER_READ_HEADER_H
#define KQ_HEADER_READ_HEADER_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/os_file.h"
#include "foundation/status.h"
#include "kqimageformat.h"

namespace kq {

// Reads count header sectors from start (0 or 2); a count of 0 means up to the header's end.
//
// password: UTF-8, may be null; needed for sectors 1 onward of an enciphered image.
// tolerate: neither a failed decipher nor a file that is too short for the range is a reason to
//   withhold the bytes. The first come as stored, together with the failure's record. What the file
//   lacks reads as zero, where its block size divides the sectors; elsewhere it stays a failure.
// sectors: receives count * SectorSize bytes, and is empty if no bytes are had. The buffer's own
//   size is larger than that. With start 0 it begins with the 114 bytes that were checked, even
//   where SectorSize is smaller. Since the KeyBlob is among them, what came from the file is wiped
//   when the buffer is freed.
// size: receives the bytes, 0 if there are none; may be null.
//
// -1392 no finished image; -2 range beyond the header; -86 password missing or wrong; -87 a key
// blob of the wrong length; -13 key blob cut short; -31 file too short; -8, also for a range of 4
// GiB and more; or errno mapped.
KQStatus ReadHeaderSectors(const OSAlignedFile& file, const char* password, std::uint64_t start,
                           std::uint64_t count, bool tolerate, HeapBuffer* sectors,
                           std::uint32_t* size);

// The same by path; opens and closes the file.
KQStatus ReadHeaderSectorsFromPath(const char* path, const char* password, std::uint64_t start,
                                   std::uint64_t count, bool tolerate, HeapBuffer* sectors,
                                   std::uint32_t* size);

// Reads the first sector of the file's ChunkIndex, SectorSize bytes; the buffer holds at least a
// whole ChunkIndexHead, with zero behind a smaller sector. header: as the file has it.
//
// The block's own fields are not checked, and an index that lies beyond the file's end may go
// unnoticed. -1392 the file is too small, its last sector holds more than the index's place, or
// that place lies in the header; -8; or errno mapped. head is empty on failure.
KQStatus ReadChunkIndexHead(const OSAlignedFile& file, const ImageHeader& header, HeapBuffer* head);

// What can be told of the file at path without a password: count header sectors from the first (0:
// all), as they are stored, and the head of its ChunkIndex. Opens the file once; the statuses are
// those of the two reads above, in that order, but that of a decipher that nobody asked for. A
// failure leaves nothing that counts.
KQStatus ReadHeaderAndIndexHead(const char* path, std::uint64_t count, HeapBuffer* sectors,
                                ChunkIndexHead* indexHead);

}  // namespace kq

#endif
