// The ChunkCache: whole expanded chunks, shared by all handles and files of the process, limited in
// bytes, and kept in order of use.
//
// An entry belongs to the cache and owns its chunk. It lives until it is evicted, or until its
// file's last user has gone (PurgeChunks). refCount keeps it from eviction while threads copy from
// it; what it holds never changes. chunkCacheMutex guards the list, the counter and the refCounts.
// It is held for list work only, never across a read, a decode or a copy.
//
// The memory of the chunks that were evicted last is kept for the next ones that are decoded, until
// then or until chunks are purged; so is what a few threads have read stored forms into.
//
// A failure leaves the cache as it was. Being over the limit is no failure: entries in use stay.
#ifndef KQ_IMAGE_CHUNK_CACHE_H
#define KQ_IMAGE_CHUNK_CACHE_H

#include <cstdint>

#include "foundation/memory.h"
#include "foundation/mutex.h"
#include "foundation/status.h"
#include "image/linked_list.h"

namespace kq {

struct OpenImageFile;

extern Mutex chunkCacheMutex;

// A chunk as expanded: the ChunkHead sector, then the data sectors. Only the first PresentBytes are
// in memory and all bytes behind them are zero, so that a chunk of zeros, or one that claims more
// than its file holds, costs no more than what it really has.
struct ExpandedChunk {
  HeapBuffer Data;
  std::uint32_t PresentBytes = 0;
  std::uint32_t Size = 0;  // ExpandedSectors times WorkSectorSize
};

struct ChunkCacheEntry {
  ExpandedChunk Chunk;
  const OpenImageFile* File = nullptr;  // no reference: the purge comes before the file goes
  std::uint64_t FileOffset = 0;         // with File the key
  std::uint32_t refCount GUARDED_BY(chunkCacheMutex) = 0;  // threads now copying from the entry
  ListLinks<ChunkCacheEntry> orderLinks;
  ChunkCacheEntry* nextInBucket = nullptr;
};

using ChunkOrder = LinkedList<ChunkCacheEntry, &ChunkCacheEntry::orderLinks>;

extern ChunkOrder chunkOrder GUARDED_BY(chunkCacheMutex);          // most recently used first
extern std::uint64_t chunkCacheBytes GUARDED_BY(chunkCacheMutex);  // sum of Size over the entries
extern std::uint64_t ChunkCacheMaxBytes;                           // constant after start

// The chunk at that place of the file with its refCount raised, or null.
ChunkCacheEntry* ChunkFind(const OpenImageFile* file, std::uint64_t fileOffset);

// Memory for an expanded chunk, not initialised: an evicted chunk's of the same size if there is
// one. Its pages are there already; new ones would cost a read of an image from end to end more
// than the reading. Empty: out of memory.
HeapBuffer AllocateChunk(std::uint64_t size);

// Memory for the stored form of a chunk, which a thread is done with as soon as it is expanded. A
// new mapping for each costs a read from end to end a sixth of its time, most of all where another
// processor must be told that it is gone.
struct StoredMemory {
  HeapBuffer Bytes;  // at least what was asked for
  StoredMemory* next = nullptr;
};

// Not initialised. Empty: out of memory.
Owned<StoredMemory> TakeStoredMemory(std::uint64_t size);
void GiveBackStoredMemory(Owned<StoredMemory> memory);

// Hands an expanded chunk over, and evicts what is above the limit. *entry comes with its refCount
// raised; it is another thread's if that was faster. -8 frees the chunk.
KQStatus ChunkInsert(const OpenImageFile* file, std::uint64_t fileOffset, ExpandedChunk chunk,
                     ChunkCacheEntry** entry);

// Ends a use, and evicts what is above the limit: a chunk larger than the limit goes here.
void ChunkPut(ChunkCacheEntry* entry);

// Frees all chunks of one file, whose last user has gone.
void PurgeChunks(const OpenImageFile* file);

// Empties the cache, at load and unload.
void ResetChunkCache();

}  // namespace kq

#endif
