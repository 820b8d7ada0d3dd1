// The ChunkHeaderCache: the decoded run lists of ChunkHead sectors, shared by all handles and files
// of the process, limited in bytes, and kept in order of use.
//
// An entry belongs to the cache and lives until it is evicted, or until its file's last user has
// gone (PurgeChunkHeaders). refCount keeps it from eviction while threads use it; what it holds
// never changes once it can be found. chunkHeaderCacheMutex guards the lists, counters and
// refCounts. It is held for list work only, never across a read.
//
// A failure leaves the cache as it was. Being over the limit is no failure: entries in use stay.
#ifndef KQ_IMAGE_CHUNK_HEADER_CACHE_H
#define KQ_IMAGE_CHUNK_HEADER_CACHE_H

#include <cstdint>
#include <memory>

#include "foundation/memory.h"
#include "foundation/mutex.h"
#include "foundation/status.h"
#include "image/linked_list.h"

namespace kq {

struct ChunkIndexEntry;
struct OpenImageFile;

extern Mutex chunkHeaderCacheMutex;

// One entry of a chunk's inner run list.
struct ChunkRun {
  std::uint64_t VolumeOffset;  // byte offset in the volume of the run's first byte
  std::uint32_t Sectors;       // of WorkSectorSize bytes
  // Position of the run's first sector in the expanded chunk, where sector 0 is the ChunkHead.
  std::uint32_t FirstSector;
};
static_assert(sizeof(ChunkRun) == 16, "the cost of an entry is counted in runs of 16 bytes");

struct ChunkHeaderEntry {
  std::uint64_t FileOffset = 0;    // where the chunk begins in the file
  std::uint64_t VolumeOffset = 0;  // as the file's index tells it
  std::uint32_t ExpandedSectors = 0;
  std::uint32_t StoredSectors = 0;
  std::uint32_t ChunkNumber = 0;  // position in the file's IndexEntries, from 1
  std::uint32_t RunCount = 0;
  std::unique_ptr<ChunkRun[], FreeDeleter> Runs;                 // null when RunCount is 0
  OpenImageFile* File = nullptr;                                 // with ChunkNumber the key
  std::uint32_t refCount GUARDED_BY(chunkHeaderCacheMutex) = 0;  // threads now using the entry
  ListLinks<ChunkHeaderEntry> orderLinks;
  ListLinks<ChunkHeaderEntry> fileLinks;
  ChunkHeaderEntry* nextInBucket = nullptr;
};

using ChunkHeaderOrder = LinkedList<ChunkHeaderEntry, &ChunkHeaderEntry::orderLinks>;
using CachedHeadList = LinkedList<ChunkHeaderEntry, &ChunkHeaderEntry::fileLinks>;

// Most recently used first.
extern ChunkHeaderOrder chunkHeaderOrder GUARDED_BY(chunkHeaderCacheMutex);
// Not the sum over the entries: an entry without runs is never subtracted, and neither is what a
// purge takes away, so the counter drifts upward with every file that is closed. Once it stays
// above the limit, the cache holds only what is in use. Clients' memory use rests on this.
extern std::uint64_t chunkHeaderCacheBytes GUARDED_BY(chunkHeaderCacheMutex);
extern std::uint64_t ChunkHeaderCacheMaxBytes;  // constant after start

// Finds the chunk's entry, or reads and decodes its ChunkHead, whose words are not checked here.
// The entry comes with its refCount raised; give it back with ChunkHeaderPut. -8; or errno mapped.
KQStatus ChunkHeaderGet(OpenImageFile* file, const ChunkIndexEntry& place,
                        std::uint32_t chunkNumber, ChunkHeaderEntry** entry);

// Ends a use, and evicts what is above the limit.
void ChunkHeaderPut(ChunkHeaderEntry* entry);

// Frees the least recently used entry that nobody uses. False if there is none.
bool ChunkHeaderEvictOne() REQUIRES(chunkHeaderCacheMutex);

// Frees all entries of one file, whose last user has gone.
void PurgeChunkHeaders(OpenImageFile* file);

// Empties the cache and sets its counter to 0, at load and unload.
void ResetChunkHeaderCache();

}  // namespace kq

#endif
