#include "image/chunk_header_cache.h"

#include <cstring>

#include "codec/run_list.h"
#include "foundation/configuration.h"
#include "foundation/little_endian.h"
#include "image/bucket_index.h"
#include "image/open_image_file.h"
#include "kqimageformat.h"

namespace kq {

constinit Mutex chunkHeaderCacheMutex;
constinit ChunkHeaderOrder chunkHeaderOrder;
constinit std::uint64_t chunkHeaderCacheBytes = 0;
constinit std::uint64_t ChunkHeaderCacheMaxBytes = Configuration().chunkHeaderCacheMaxBytes;

namespace {

constexpr char kModule[] = "utimagefile";

// What an entry counts for, besides its run table.
constexpr std::uint64_t kEntryCost = 80;

constinit BucketIndex<ChunkHeaderEntry, &ChunkHeaderEntry::nextInBucket> chunkHeaderIndex
    GUARDED_BY(chunkHeaderCacheMutex);

// Run tables come in three size classes, and beyond those as large as needed.
std::uint64_t RunTableBytes(std::uint32_t runCount) {
  if (runCount == 0) return 0;
  if (runCount <= 16) return 256;
  if (runCount <= 32) return 512;
  if (runCount <= 64) return 1024;
  return std::uint64_t{sizeof(ChunkRun)} * runCount;
}

ChunkHeaderEntry* Find(const OpenImageFile* file, std::uint32_t chunkNumber)
    REQUIRES(chunkHeaderCacheMutex) {
  ChunkHeaderEntry* entry = chunkHeaderIndex.First(HashOf(file, chunkNumber));
  while (entry != nullptr && (entry->File != file || entry->ChunkNumber != chunkNumber)) {
    entry = chunkHeaderIndex.Next(entry);
  }
  return entry;
}

void Use(ChunkHeaderEntry* entry) REQUIRES(chunkHeaderCacheMutex) {
  ++entry->refCount;
  chunkHeaderOrder.MoveToFront(entry);
  entry->File->CachedHeads.MoveToFront(entry);
}

void UnlinkAndFree(ChunkHeaderEntry* entry) REQUIRES(chunkHeaderCacheMutex) {
  chunkHeaderIndex.Remove(HashOf(entry->File, entry->ChunkNumber), entry);
  chunkHeaderOrder.Remove(entry);
  entry->File->CachedHeads.Remove(entry);
  Owned<ChunkHeaderEntry>(entry).reset();
}

void EvictAboveLimit() REQUIRES(chunkHeaderCacheMutex) {
  while (chunkHeaderCacheBytes > ChunkHeaderCacheMaxBytes && ChunkHeaderEvictOne()) {
  }
}

RunReader ReaderOf(const std::uint8_t* head, std::uint32_t headBytes) {
  RunReader reader;
  reader.Cursor = head + sizeof(ChunkHead);
  reader.End = head + headBytes;
  return reader;
}

// Decodes a ChunkHead sector. The run list is read twice, to count and to fill, and what is bad in
// it is told in the log each time.
KQStatus MakeEntry(OpenImageFile* file, const ChunkIndexEntry& place, std::uint32_t chunkNumber,
                   const std::uint8_t* head, Owned<ChunkHeaderEntry>* result) {
  ChunkRun run{};
  std::uint32_t runCount = 0;
  RunReader counter = ReaderOf(head, file->WorkSectorSize);
  while (NextRun(&counter, &run.VolumeOffset, &run.Sectors)) ++runCount;

  Owned<ChunkHeaderEntry> entry = MakeOwned<ChunkHeaderEntry>();
  if (!entry) return KQ_FAIL(kNotEnoughMemory);
  entry->FileOffset = place.FileOffset;
  entry->VolumeOffset = place.VolumeOffset;
  entry->StoredSectors = LoadU32(head + offsetof(ChunkHead, StoredSectors));
  entry->ExpandedSectors = LoadU32(head + offsetof(ChunkHead, ExpandedSectors));
  entry->ChunkNumber = chunkNumber;
  entry->RunCount = runCount;
  entry->File = file;
  if (runCount != 0) {
    entry->Runs.reset(static_cast<ChunkRun*>(std::calloc(1, RunTableBytes(runCount))));
    if (!entry->Runs) return KQ_FAIL(kNotEnoughMemory);
    RunReader reader = ReaderOf(head, file->WorkSectorSize);
    run.FirstSector = 1;
    for (std::uint32_t i = 0; i < runCount && NextRun(&reader, &run.VolumeOffset, &run.Sectors);
         ++i) {
      entry->Runs[i] = run;
      run.FirstSector += run.Sectors;
    }
    // The call that meets the list's end, as in the first pass.
    NextRun(&reader, &run.VolumeOffset, &run.Sectors);
  }
  *result = std::move(entry);
  return Success();
}

}  // namespace

KQStatus ChunkHeaderGet(OpenImageFile* file, const ChunkIndexEntry& place,
                        std::uint32_t chunkNumber, ChunkHeaderEntry** entry) {
  *entry = nullptr;
  {
    const MutexLock lock(chunkHeaderCacheMutex);
    if (ChunkHeaderEntry* found = Find(file, chunkNumber)) {
      Use(found);
      *entry = found;
      return Success();
    }
  }

  alignas(kSectorAlignment) std::uint8_t head[kLargestWorkSector];
  KQ_RETURN_IF_FAILED(ReadWorkSector(*file, place.FileOffset, head));
  Owned<ChunkHeaderEntry> made;
  KQ_RETURN_IF_FAILED(MakeEntry(file, place, chunkNumber, head, &made));

  const MutexLock lock(chunkHeaderCacheMutex);
  // Another thread may have read the same chunk meanwhile; then its entry is used.
  if (ChunkHeaderEntry* found = Find(file, chunkNumber)) {
    Use(found);
    *entry = found;
    return Success();
  }
  ChunkHeaderEntry* added = made.release();
  added->refCount = 1;
  chunkHeaderIndex.Add(HashOf(file, chunkNumber), added);
  chunkHeaderOrder.PushFront(added);
  file->CachedHeads.PushFront(added);
  chunkHeaderCacheBytes += kEntryCost + RunTableBytes(added->RunCount);
  EvictAboveLimit();
  *entry = added;
  return Success();
}

void ChunkHeaderPut(ChunkHeaderEntry* entry) {
  const MutexLock lock(chunkHeaderCacheMutex);
  if (entry->refCount > 0) --entry->refCount;
  EvictAboveLimit();
}

bool ChunkHeaderEvictOne() {
  ChunkHeaderEntry* entry = chunkHeaderOrder.last();
  while (entry != nullptr && entry->refCount != 0) entry = ChunkHeaderOrder::Previous(entry);
  if (entry == nullptr) return false;
  // An entry without runs was counted when it came and takes nothing away when it goes: the
  // counter's drift, see the header.
  const std::uint64_t cost = entry->RunCount == 0 ? 0 : kEntryCost + RunTableBytes(entry->RunCount);
  UnlinkAndFree(entry);
  chunkHeaderCacheBytes -= cost;
  return true;
}

void PurgeChunkHeaders(OpenImageFile* file) {
  const MutexLock lock(chunkHeaderCacheMutex);
  while (!file->CachedHeads.empty()) UnlinkAndFree(file->CachedHeads.first());
}

void ResetChunkHeaderCache() {
  const MutexLock lock(chunkHeaderCacheMutex);
  while (!chunkHeaderOrder.empty()) UnlinkAndFree(chunkHeaderOrder.first());
  chunkHeaderCacheBytes = 0;
}

}  // namespace kq
