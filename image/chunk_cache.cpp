#include "image/chunk_cache.h"

#include <utility>

#include "foundation/configuration.h"
#include "image/bucket_index.h"
#include "image/open_image_file.h"

namespace kq {

constinit Mutex chunkCacheMutex;
constinit ChunkOrder chunkOrder;
constinit std::uint64_t chunkCacheBytes = 0;
constinit std::uint64_t ChunkCacheMaxBytes = Configuration().chunkCacheMaxBytes;

namespace {

constexpr char kModule[] = "utimagefile";

constinit BucketIndex<ChunkCacheEntry, &ChunkCacheEntry::nextInBucket> chunkIndex
    GUARDED_BY(chunkCacheMutex);

// More than any chunk that our writer makes; larger ones are not worth holding.
constexpr std::size_t kLargestSpare = 0x400000;

// The chunk that was evicted last, for its memory; in no list any more.
constinit ChunkCacheEntry* spare GUARDED_BY(chunkCacheMutex) = nullptr;

Owned<ChunkCacheEntry> TakeSpare() REQUIRES(chunkCacheMutex) {
  return Owned<ChunkCacheEntry>(std::exchange(spare, nullptr));
}

// Finds an entry and raises its refCount.
ChunkCacheEntry* FindAndUse(const OpenImageFile* file, std::uint64_t fileOffset)
    REQUIRES(chunkCacheMutex) {
  ChunkCacheEntry* entry = chunkIndex.First(HashOf(file, fileOffset));
  while (entry != nullptr && (entry->File != file || entry->FileOffset != fileOffset)) {
    entry = chunkIndex.Next(entry);
  }
  if (entry == nullptr) return nullptr;
  ++entry->refCount;
  chunkOrder.MoveToFront(entry);
  return entry;
}

void Unlink(ChunkCacheEntry* entry) REQUIRES(chunkCacheMutex) {
  chunkIndex.Remove(HashOf(entry->File, entry->FileOffset), entry);
  chunkOrder.Remove(entry);
  chunkCacheBytes -= entry->Chunk.Size;
}

// Unlinks what is above the limit and moves it to a list that FreeAll empties behind the lock:
// giving a chunk's memory back may take longer than all other list work.
void EvictAboveLimit(ChunkOrder* evicted) REQUIRES(chunkCacheMutex) {
  ChunkCacheEntry* entry = chunkOrder.last();
  while (chunkCacheBytes > ChunkCacheMaxBytes && entry != nullptr) {
    ChunkCacheEntry* candidate = entry;
    entry = ChunkOrder::Previous(entry);
    if (candidate->refCount != 0) continue;
    Unlink(candidate);
    evicted->PushBack(candidate);
  }
}

void FreeAll(ChunkOrder* entries) {
  while (!entries->empty()) {
    ChunkCacheEntry* entry = entries->first();
    entries->Remove(entry);
    Owned<ChunkCacheEntry>(entry).reset();
  }
}

// The same for what has been evicted, of which the last is kept as the spare one.
void FreeEvicted(ChunkOrder* evicted) {
  ChunkCacheEntry* last = evicted->last();
  if (last != nullptr && last->Chunk.Data.size() <= kLargestSpare) {
    evicted->Remove(last);
    const MutexLock lock(chunkCacheMutex);
    if (spare != nullptr) evicted->PushBack(spare);
    spare = last;
  }
  FreeAll(evicted);
}

}  // namespace

ChunkCacheEntry* ChunkFind(const OpenImageFile* file, std::uint64_t fileOffset) {
  const MutexLock lock(chunkCacheMutex);
  return FindAndUse(file, fileOffset);
}

HeapBuffer AllocateChunk(std::uint64_t size) {
  Owned<ChunkCacheEntry> former;
  {
    const MutexLock lock(chunkCacheMutex);
    if (spare != nullptr && spare->Chunk.Data.size() == size) former = TakeSpare();
  }
  return former ? std::move(former->Chunk.Data)
                : HeapBuffer::AllocateAligned(kSectorAlignment, size);
}

KQStatus ChunkInsert(const OpenImageFile* file, std::uint64_t fileOffset, ExpandedChunk chunk,
                     ChunkCacheEntry** entry) {
  *entry = nullptr;
  ChunkOrder evicted;
  {
    const MutexLock lock(chunkCacheMutex);
    // Another thread may have decoded the same chunk meanwhile; then its entry is used.
    *entry = FindAndUse(file, fileOffset);
    if (*entry != nullptr) return Success();

    Owned<ChunkCacheEntry> made = MakeOwned<ChunkCacheEntry>();
    if (!made) return KQ_FAIL(kNotEnoughMemory);
    ChunkCacheEntry* added = made.release();
    added->Chunk = std::move(chunk);
    added->File = file;
    added->FileOffset = fileOffset;
    added->refCount = 1;
    chunkIndex.Add(HashOf(file, fileOffset), added);
    chunkOrder.PushFront(added);
    chunkCacheBytes += added->Chunk.Size;
    EvictAboveLimit(&evicted);
    *entry = added;
  }
  FreeEvicted(&evicted);
  return Success();
}

void ChunkPut(ChunkCacheEntry* entry) {
  ChunkOrder evicted;
  {
    const MutexLock lock(chunkCacheMutex);
    if (entry->refCount > 0) --entry->refCount;
    EvictAboveLimit(&evicted);
  }
  FreeEvicted(&evicted);
}

void PurgeChunks(const OpenImageFile* file) {
  ChunkOrder purged;
  Owned<ChunkCacheEntry> former;
  {
    const MutexLock lock(chunkCacheMutex);
    former = TakeSpare();
    for (ChunkCacheEntry* entry = chunkOrder.first(); entry != nullptr;) {
      ChunkCacheEntry* next = ChunkOrder::Next(entry);
      if (entry->File == file) {
        Unlink(entry);
        purged.PushBack(entry);
      }
      entry = next;
    }
  }
  FreeAll(&purged);
}

void ResetChunkCache() {
  const MutexLock lock(chunkCacheMutex);
  TakeSpare().reset();
  while (!chunkOrder.empty()) {
    ChunkCacheEntry* entry = chunkOrder.first();
    Unlink(entry);
    Owned<ChunkCacheEntry>(entry).reset();
  }
}

}  // namespace kq
