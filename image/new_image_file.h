// A new image file under construction: from a header template and a stream of sectors to a finished
// file.
//
// The road: PrepareHeader copies and stamps the template, DecryptTemplateSectors and
// AssignImageIdentifiers make it a new member of its chain, OpenNewImageFile creates the file with
// the magic "OPEN" (new_image_create.cpp). AppendSectors collects sectors in ChunkBuffer
// (new_image_write.cpp), FlushChunk appends a chunk to the file (flush_chunk.cpp,
// chunk_encode.cpp). FinishNewImageFile appends the chunk index and rewrites sector 0 with the
// magic "TWFI", which alone makes the file valid (new_image_close.cpp, header_tail.cpp).
//
// The object owns its file, buffers, key and codec. It has no lock: one thread at a time may use
// it, and two objects share nothing. Its address is the handle that clients hold.
//
// What a failure leaves: the object stays whole and its owner destroys it. The file is never
// removed by a failure; without its last write it reads "OPEN", and no reader accepts it.
#ifndef KQ_IMAGE_NEW_IMAGE_FILE_H
#define KQ_IMAGE_NEW_IMAGE_FILE_H

#include <cstdint>
#include <memory>

#include "codec/run_list.h"
#include "crypto/image_key.h"
#include "foundation/memory.h"
#include "foundation/os_file.h"
#include "foundation/status.h"
#include "image/chunk_encode.h"
#include "image/new_chunk.h"
#include "kqimageformat.h"

namespace kq {

// A header and the buffer of one chunk share this budget, so no chunk is larger.
inline constexpr std::uint32_t kHeaderAndChunkBytes = 0x100000;

struct NewImageFile {
  OSFileOwner File;  // null until created, and after a successful finish
  // The template's; the unit of every size below, and not only one of those that readers accept.
  std::uint32_t SectorSize = 0;

  bool HasExtendedRecord = false;  // the template held one, kept here until the close
  ::ExtendedRecord ExtendedRecord{};
  bool ReplaceCarriedValues = false;
  std::uint64_t CarriedValues[2] = {};  // for CarriedValue1 and CarriedValue2 of the record

  // All header sectors, as they go to the file. First the template's KeyBlob and at the end the new
  // one stand in it, so it is wiped.
  HeapBuffer Header;
  // Set by a writer that has called CompleteHeaderSector ahead of the finish.
  bool HeaderIsComplete = false;

  NewChunk Chunk;  // its ChunkBufferSize is kHeaderAndChunkBytes minus the header's bytes

  // What the index tells as the length of the next chunk's entry: the distance in the file from the
  // previous chunk's start, or the header's bytes for the first chunk.
  std::int32_t PreviousStoredBytes = 0;
  // The ChunkIndex block. Only IndexCapacity bytes of the allocation belong to it; the rest lets it
  // grow by a sector at a time without a copy each time.
  HeapBuffer IndexBuffer;
  std::uint32_t IndexCapacity = 0;  // multiple of SectorSize
  RunWriter IndexRuns;
  std::uint64_t ChunkCount = 0;  // chunks written

  Owned<CryptoContext> Key;  // null if EncryptionType is 0
  SecretBuffer KeyBlob;      // for the final header
  std::uint32_t KeyBlobSize = 0;

  ImageHeader* header() { return reinterpret_cast<ImageHeader*>(Header.data()); }
  std::uint32_t headerBytes() const { return static_cast<std::uint32_t>(Header.size()); }
};

// Closes the file, wipes what is secret and frees everything. Never removes the file from disk.
void DestroyNewImageFile(NewImageFile* image);

struct NewImageFileDestroyer {
  void operator()(NewImageFile* image) const { DestroyNewImageFile(image); }
};
using NewImageFileOwner = std::unique_ptr<NewImageFile, NewImageFileDestroyer>;

// Copies a template's first sector (SectorSize bytes at headerTemplate) and furtherSectors sectors
// at rest (zeros if rest is null) into a new object, and stamps the header as an unfinished one
// made now.
//
// -87 magic not "TWFI", SectorSize 0, more than 1 MiB of header, less header than the fixed 114
// bytes, or sectors too small for a chunk's head with one run; -8. *image is null on failure.
KQStatus PrepareHeader(const std::uint8_t* headerTemplate, const std::uint8_t* rest,
                       std::uint32_t furtherSectors, NewImageFileOwner* image);

// Deciphers the further sectors in place with the password and the template's own KeyBlob, as they
// come out of an enciphered image. In every case, also on failure, it then clears sector 0 behind
// the fixed fields: the old KeyBlob, Comment and record are gone.
//
// headerBytes: bytes at header, whole sectors.
// -87 no password; -86 wrong password; -8; or as ImageKeyOpen and ImageDecipherRun tell.
KQStatus DecryptTemplateSectors(std::uint32_t sectorSize, std::uint8_t* header,
                                std::uint32_t headerBytes, const char* password);

// Makes the template's image the parent, counts the generation on, and sets ImageId: the 16 bytes
// given, or a generated identifier for null. -1392 the identifier is all zero or the parent's.
KQStatus AssignImageIdentifiers(ImageHeader* header, const std::uint8_t* imageId);

// Builds the codec and the key that the header asks for, enciphers the further sectors, creates the
// file (an existing one is truncated) and writes the header with the magic "OPEN".
//
// -8 out of memory or unknown compression type; -87 enciphered, and no password; -86 password not
// UTF-8 or no randomness; -6000; or errno mapped. After a failure the object can only be destroyed.
KQStatus OpenNewImageFile(NewImageFile* image, const char* fileName, const char* password);

// What a client asks for; all but the template and the file's name may be null.
struct NewImageOrder {
  const std::uint8_t* headerTemplate = nullptr;
  std::uint32_t templateBytes = 0;  // at least the fields up to SectorSize, which is not 0
  const char* password = nullptr;
  const char* fileName = nullptr;
  const std::uint64_t* sourceSize = nullptr;
  const std::uint64_t* carriedValue1 = nullptr;
  const std::uint64_t* carriedValue2 = nullptr;
  const std::uint8_t* imageId = nullptr;
};

// The whole road from a template to an open file, with the statuses of the steps above. *image is
// left alone on failure.
KQStatus CreateNewImageFile(const NewImageOrder& order, NewImageFileOwner* image);

// Takes size bytes at the volume's byte offset. Both should be whole sectors: a piece's run counts
// whole sectors only.
//
// -13 the image cannot hold any chunk, or a chunk is too small to compress; others as FlushChunk.
// After a failure the file can only be abandoned.
KQStatus AppendSectors(NewImageFile* image, const std::uint8_t* data, std::uint32_t size,
                       std::uint64_t offset);

// The same for data that is fetched when a chunk has room for it: fetch copies count bytes, which
// stand position bytes behind the first, to target. Its failure ends the call; the pieces fetched
// before stay in the image.
using SectorFetch = KQStatus (*)(void* context, std::uint32_t position, std::uint8_t* target,
                                 std::uint32_t count);
KQStatus AppendFetchedSectors(NewImageFile* image, SectorFetch fetch, void* context,
                              std::uint32_t size, std::uint64_t offset);

// Appends what ChunkBuffer holds to the file as one chunk, in one write, enters it in the index and
// begins a new chunk. An empty chunk is only begun anew.
//
// -13 fewer than 4 bytes to compress; -8; -6000; or errno mapped. On failure the chunk is not begun
// anew: its data stays, though it may be enciphered already.
KQStatus FlushChunk(NewImageFile* image);

// Appends an encoded chunk to the file and enters it in the index, as FlushChunk does: the writer's
// own chunk is left alone. -8; or errno mapped.
KQStatus AppendChunk(NewImageFile* image, const EncodedChunk& chunk);

// Flushes the last chunk, whose failure does not show, appends the chunk index and completes sector
// 0. Without any chunk the file is removed instead. On success *image is destroyed and null; on
// failure it stays alive.
//
// comment: UTF-8, cut to the room in sector 0; may be null; one that is not valid is left out. It
// is not looked at under HeaderIsComplete.
// -8; or errno mapped.
KQStatus FinishNewImageFile(NewImageFileOwner* image, const char* comment);

}  // namespace kq

#endif
