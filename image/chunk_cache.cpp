#include "image/chunk_cache.h"

#include "foundation/configuration.h"
#include "image/bucket_index.h"

namespace kq {

constinit Mutex chunkCacheMutex;
constinit ChunkOrder chunkOrder;
constinit std::uint64_t chunkCacheBytes = 0;
constinit std::uint64_t ChunkCacheMaxBytes = Configuration().chunkCacheMaxBytes;

namespace {

constexpr char kModule[] = "utimagefile";

constinit BucketIndex<ChunkCacheEntry, &ChunkCacheEntry::nextInBucket> chunkIndex
    GUARDED_BY(chunkCacheMutex);

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

}  // namespace

ChunkCacheEntry* ChunkFind(const OpenImageFile* file, std::uint64_t fileOffset) {
  const MutexLock lock(chunkCacheMutex);
  return FindAndUse(file, fileOffset);
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
  FreeAll(&evicted);
  return Success();
}

void ChunkPut(ChunkCacheEntry* entry) {
  ChunkOrder evicted;
  {
    const MutexLock lock(chunkCacheMutex);
    if (entry->refCount > 0) --entry->refCount;
    EvictAboveLimit(&evicted);
  }
  FreeAll(&evicted);
}

void PurgeChunks(const OpenImageFile* file) {
  ChunkOrder purged;
  {
    const MutexLock lock(chunkCacheMutex);
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
  while (!chunkOrder.empty()) {
    ChunkCacheEntry* entry = chunkOrder.first();
    Unlink(entry);
    Owned<ChunkCacheEntry>(entry).reset();
  }
}

}  // namespace kq
