#include "image/chunk_cache.h"

#include <sanitizer/asan_interface.h>

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

// The chunks that were evicted last, newest first, for their memory: one for each of a few threads
// that decode at the same time.
constexpr std::uint32_t kMostSpares = 2;
constinit ChunkOrder spares GUARDED_BY(chunkCacheMutex);
constinit std::uint32_t spareCount GUARDED_BY(chunkCacheMutex) = 0;

void TakeSpare(ChunkCacheEntry* entry) REQUIRES(chunkCacheMutex) {
  spares.Remove(entry);
  --spareCount;
}

void FreeSpares() REQUIRES(chunkCacheMutex) {
  while (!spares.empty()) {
    ChunkCacheEntry* entry = spares.first();
    TakeSpare(entry);
    Owned<ChunkCacheEntry>(entry).reset();
  }
}

// Memory of stored forms that nobody uses, newest first, and how much there is of it at most.
constexpr std::uint32_t kMostStored = 2;
constexpr std::size_t kLargestStored = 0x200000;
constinit StoredMemory* spareStored GUARDED_BY(chunkCacheMutex) = nullptr;
constinit std::uint32_t spareStoredCount GUARDED_BY(chunkCacheMutex) = 0;

// The newest that is large enough, or empty.
Owned<StoredMemory> TakeSpareStored(std::uint64_t size) REQUIRES(chunkCacheMutex) {
  StoredMemory** link = &spareStored;
  while (*link != nullptr && (*link)->Bytes.size() < size) link = &(*link)->next;
  Owned<StoredMemory> taken(*link);
  if (taken) {
    *link = std::exchange(taken->next, nullptr);
    --spareStoredCount;
  }
  return taken;
}

void FreeSpareStored() REQUIRES(chunkCacheMutex) {
  while (TakeSpareStored(0)) {
  }
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

// The same for what has been evicted, of which the last is kept as a spare one.
void FreeEvicted(ChunkOrder* evicted) {
  ChunkCacheEntry* last = evicted->last();
  if (last != nullptr && last->Chunk.Data.size() <= kLargestSpare) {
    evicted->Remove(last);
    const MutexLock lock(chunkCacheMutex);
    spares.PushFront(last);
    if (++spareCount > kMostSpares) {
      ChunkCacheEntry* oldest = spares.last();
      TakeSpare(oldest);
      evicted->PushBack(oldest);
    }
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
    ChunkCacheEntry* entry = spares.first();
    while (entry != nullptr && entry->Chunk.Data.size() != size) entry = ChunkOrder::Next(entry);
    if (entry != nullptr) {
      TakeSpare(entry);
      former.reset(entry);
    }
  }
  return former ? std::move(former->Chunk.Data)
                : HeapBuffer::AllocateAligned(kSectorAlignment, size);
}

Owned<StoredMemory> TakeStoredMemory(std::uint64_t size) {
  Owned<StoredMemory> memory;
  {
    const MutexLock lock(chunkCacheMutex);
    memory = TakeSpareStored(size);
  }
  if (!memory) {
    memory = MakeOwned<StoredMemory>();
    if (memory) memory->Bytes = HeapBuffer::AllocateAligned(kSectorAlignment, size);
    if (memory && !memory->Bytes) memory.reset();
  }
  // Who reads beyond what was asked for is to be found out.
  if (memory) ASAN_POISON_MEMORY_REGION(memory->Bytes.data() + size, memory->Bytes.size() - size);
  return memory;
}

void GiveBackStoredMemory(Owned<StoredMemory> memory) {
  ASAN_UNPOISON_MEMORY_REGION(memory->Bytes.data(), memory->Bytes.size());
  if (memory->Bytes.size() > kLargestStored) return;
  Owned<StoredMemory> oldest;
  const MutexLock lock(chunkCacheMutex);
  memory->next = spareStored;
  spareStored = memory.release();
  if (++spareStoredCount <= kMostStored) return;
  StoredMemory* last = spareStored;
  while (last->next->next != nullptr) last = last->next;
  oldest.reset(std::exchange(last->next, nullptr));
  --spareStoredCount;
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
  {
    const MutexLock lock(chunkCacheMutex);
    FreeSpares();
    FreeSpareStored();
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
  FreeSpares();
  FreeSpareStored();
  while (!chunkOrder.empty()) {
    ChunkCacheEntry* entry = chunkOrder.first();
    Unlink(entry);
    Owned<ChunkCacheEntry>(entry).reset();
  }
}

}  // namespace kq
