// One open image file, shared by all chains of the process that use it.
//
// An OpenImageFile exists from the first open of its path until the last release; meanwhile nothing
// in it changes but CachedHeads and refCount, so any number of threads may read through it. It owns
// its descriptor, key, index and password. The caches borrow it, and the last release purges its
// entries. openFilesMutex guards the list of open files and their refCounts; it is never held
// across a file's I/O, nor together with another lock.
//
// What a failed open leaves: nothing.
#ifndef KQ_IMAGE_OPEN_IMAGE_FILE_H
#define KQ_IMAGE_OPEN_IMAGE_FILE_H

#include <cstdint>
#include <memory>

#include "crypto/image_key.h"
#include "foundation/memory.h"
#include "foundation/mutex.h"
#include "foundation/os_file.h"
#include "foundation/status.h"
#include "image/chunk_header_cache.h"
#include "image/linked_list.h"

namespace kq {

// Longest path that is kept and compared, without its NUL.
inline constexpr std::uint32_t kLongestPath = 4095;
// The largest WorkSectorSize, and the alignment of all buffers that the file is read into: with it
// no read goes through a bounce buffer.
inline constexpr std::uint32_t kLargestWorkSector = 4096;
inline constexpr std::uint32_t kSectorAlignment = 4096;

extern Mutex openFilesMutex;

struct ChunkIndexEntry {
  std::uint64_t VolumeOffset;  // byte offset in the volume of the chunk's first data byte
  std::uint64_t FileOffset;    // where the chunk begins in the file
};

struct OpenImageFile {
  char Path[kLongestPath + 1] = {};
  OSAlignedFile File;
  std::uint64_t FileSize = 0;    // at open
  std::uint64_t SourceSize = 0;  // this and all below as in the header, where not said otherwise
  // The unit of every read and of all chunk arithmetic: SectorSize, but never below 512. So an
  // image of 256-byte sectors is read in units that its writer didn't mean; readers have always
  // done so, and what they make of such a file stays the same.
  std::uint32_t WorkSectorSize = 512;
  std::uint32_t HeaderSectors = 0;
  std::uint32_t CompressionType = 0;
  std::uint32_t EncryptionType = 0;
  std::uint16_t KeyBlobLength = 0;
  SecretBuffer KeyBlob;         // a copy, spent by the key set-up; empty if not enciphered
  Owned<CryptoContext> Crypto;  // null if not enciphered
  std::unique_ptr<ChunkIndexEntry[], FreeDeleter> IndexEntries;  // null without chunks
  std::uint32_t ChunkCount = 0;
  std::uint64_t IndexOffset = 0;
  std::uint32_t IndexLength = 0;                                 // from the ChunkIndex
  CachedHeadList CachedHeads GUARDED_BY(chunkHeaderCacheMutex);  // most recently used first
  SecretBuffer Password;  // of the first open, with its NUL; empty if none was given
  std::uint32_t SectorSize = 0;
  std::uint8_t ImageId[16] = {};
  std::uint8_t ParentImageId[16] = {};
  std::uint8_t ImageSetId[16] = {};
  std::uint32_t Generation = 0;
  std::uint32_t NextGeneration = 0;
  std::uint32_t PartIndex = 0;
  std::uint32_t LastPart = 0;  // from the ChunkIndex

  bool usesSharedCompressor = false;
  std::uint32_t refCount GUARDED_BY(openFilesMutex) = 0;
  ListLinks<OpenImageFile> openLinks;
  OpenImageFile* nextOfPath = nullptr;  // this and below: chains of the list's indexes
  OpenImageFile* nextOfIdentity = nullptr;
  OpenImageFile* nextOfAddress = nullptr;

  OpenImageFile() = default;
  ~OpenImageFile();

  std::uint64_t HeaderBytes() const { return std::uint64_t{WorkSectorSize} * HeaderSectors; }
};

using OpenImageFileList = LinkedList<OpenImageFile, &OpenImageFile::openLinks>;

extern OpenImageFileList OpenImageFiles GUARDED_BY(openFilesMutex);  // newest first

// Opens an image file, or takes one more reference on the object that has it open.
//
// A file is known again by its path, or, under another path, by its identity. A path that is open
// already is not looked at, and the password is not tried: the file keeps that of its first open.
// Clients that open one image several times rely on it.
//
// -87 null path; -1392 a bad header or tail; -1630 a compression type that can't be read; -86
// password missing or wrong; -8; or errno mapped. *file is null on failure.
KQStatus OpenImageFileOpen(const char* path, const char* password, OpenImageFile** file);

// Gives a reference back. The last one purges the file's cache entries, closes the file and wipes
// what is secret. Always succeeds, also for null and for an object that is not open.
KQStatus OpenImageFileRelease(OpenImageFile* file);

// Reads the file at path into a new object that nobody shares yet (load_image_file.cpp).
KQStatus LoadImageFile(const char* path, const char* password, Owned<OpenImageFile>* file);

// Reads one work sector. What the file does not hold of it is zero.
KQStatus ReadWorkSector(const OpenImageFile& file, std::uint64_t offset, std::uint8_t* sector);

// Cuts a read of wanted bytes from offset down to what the file held at its open, so that no count
// in a file makes us allocate more than the file's size justifies. A read that is cut still reaches
// beyond the file's end by a byte or more, so that OSFileReadAligned answers it as it would the
// whole one: with a short count, or with a failure where the offset is not aligned.
std::uint64_t ReadableLength(const OpenImageFile& file, std::uint64_t offset, std::uint64_t wanted);

}  // namespace kq

#endif
