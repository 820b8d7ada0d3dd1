// Makes an image file with all processors: chunks are encoded side by side and appended in order.
//
// The caller's thread fills chunks exactly as the library's writer does, with the library's own
// code, so the file is the same, byte for byte; but for streams of type 6, whose code lengths may
// depend on the chunk that the codec had before, and here don't. Full chunks are compressed and
// enciphered side by side, appended in the order of the volume, and added in that order to the
// SHA-256 of the file. That is possible because nothing in the first sector, which is written last,
// depends on the chunks.
//
// There are as many threads as processors, none of which is for one kind of work: each does what
// is most urgent, a sum before an append before an encoding, and so does the caller's thread while
// all chunks are in use. So no processor waits while there is work, and the SHA-256, which nobody
// can share, does not wait for anything but its bytes.
//
// Memory: 2 x threads + 2 chunks of up to 1 MiB with as much again for their encoded form, and a
// codec for each thread (up to 2 MiB); all of it bounded whatever the volume. A thread that fails
// ends the work of all; the failure comes out of the caller's next call, that of the first chunk
// that failed.
//
// An object that is destroyed before Finish leaves a file that no reader accepts.
#ifndef KQIMAGE_IMAGE_CHUNK_PIPELINE_H
#define KQIMAGE_IMAGE_CHUNK_PIPELINE_H

#include <kqimageapi.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kqimage/image/tail_check.h"

namespace kqimage {

struct ChunkPipelineOptions {
  std::size_t threads = 0;        // that encode; 0: one for each processor
  bool withSum = false;           // compute the file's SHA-256
  const char* imageId = nullptr;  // 16 bytes; null: a new one
};

class ChunkPipeline {
 public:
  ChunkPipeline();
  ~ChunkPipeline();
  ChunkPipeline(const ChunkPipeline&) = delete;
  ChunkPipeline& operator=(const ChunkPipeline&) = delete;

  // Creates the file; the statuses are those of KQNewImageFileCreate2. Nothing else may be called
  // after a failure. The comment is the one that the finished image has.
  KQStatus Open(const std::string& path, std::span<const std::byte> headerTemplate,
                const char* password, std::uint64_t volumeSize, const char* comment,
                const ChunkPipelineOptions& options);

  // As KQNewImageFileWrite, but a failure may be that of a chunk filled earlier.
  KQStatus Write(std::uint64_t offset, std::span<const std::byte> bytes);

  // Appends what is left, and waits until all is written. Nothing but what follows here may be
  // called then.
  KQStatus Flush();

  // What the last two chunks hold, as it was written; valid as long as the object lives.
  std::vector<WrittenPiece> LastPieces() const;

  // Completes the file, as KQNewImageFileClose does.
  KQStatus Finish();

  // Of the finished file, as hexadecimal digits; empty without withSum. Throws a Failure if the
  // file's end can't be read.
  std::string Sum();

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace kqimage

#endif
