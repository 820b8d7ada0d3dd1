// Checks single chunks of an image: head, run list, and the stream decoded to its exact length.
//
// It works with the library's codecs and ciphers themselves, not through the library: a chain's
// reader takes a damaged stream for zeros and says nothing.
#ifndef KQIMAGE_VERIFY_VERIFY_CHUNK_H
#define KQIMAGE_VERIFY_VERIFY_CHUNK_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kqimage/verify/range_set.h"
#include "kqimage/verify/verify_layout.h"

namespace kqimage {

// The data key of an enciphered image, opened by its password. Read-only, for any thread.
class DataKey {
 public:
  // Null if the password does not open it.
  static std::unique_ptr<DataKey> Open(const ImageLayout& image, const char* password);
  ~DataKey();

  // False if the length is none that the cipher can take.
  bool Decipher(std::span<std::uint8_t> run, std::uint64_t volumeOffset) const;

 private:
  struct Context;

  explicit DataKey(std::unique_ptr<Context> context);

  std::unique_ptr<Context> context_;
};

// What the head of a chunk says.
struct ChunkHeadReading {
  std::vector<VolumeRange> runs;  // in bytes; what can be told of them
  std::uint32_t storedSectors = 0;
  std::uint32_t expandedSectors = 0;
  std::optional<Damage> damage = {};
  bool hasAllRuns = false;  // the runs tell all that the chunk holds
};

// Reads chunk i's head and checks all in it that can be checked without the body. bytes as for
// ChunkChecker::Check.
ChunkHeadReading ReadChunkHead(const ImageLayout& image, std::uint32_t i,
                               std::span<const std::uint8_t> bytes = {});

// Where the volume's bytes of the chunk can be at most, for a chunk whose runs can't be told.
VolumeRange SpanOfChunk(const ImageLayout& image, std::uint32_t i);

// The chunks that fill the bytes between two places of the file although the index lacks them.
struct UnlistedChunks {
  std::vector<VolumeRange> runs;
  std::uint64_t count = 0;
  bool fill = false;  // false: something else is there
};
UnlistedChunks FindUnlistedChunks(const ImageLayout& image, std::uint64_t begin, std::uint64_t end);

struct ChunkVerdict {
  std::optional<Damage> damage = {};
  bool isLost = false;  // its data can't be had
  bool isStream = false;
  std::uint32_t storedSectors = 0;  // 0: not known
};

// One for each thread; it keeps the buffers and decoders.
class ChunkChecker {
 public:
  ChunkChecker();
  ~ChunkChecker();
  ChunkChecker(const ChunkChecker&) = delete;
  ChunkChecker& operator=(const ChunkChecker&) = delete;

  // key: of an enciphered image. bytes: the file's from the chunk's first one, as many as have been
  // read already; the file is read where they don't do.
  ChunkVerdict Check(const ImageLayout& image, std::uint32_t i, const DataKey* key,
                     std::span<const std::uint8_t> bytes = {});

 private:
  struct Decoders;
  class Buffer {
   public:
    std::span<std::uint8_t> Take(std::size_t size);

   private:
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::size_t size_ = 0;
  };

  std::optional<Damage> CheckBody(const ImageLayout& image, std::uint32_t i, const DataKey* key,
                                  const ChunkHeadReading& head, std::span<const std::uint8_t> bytes,
                                  ChunkVerdict& verdict);
  bool Decodes(std::uint32_t compression, std::span<const std::uint8_t> stream,
               std::uint64_t expectedBytes);

  std::unique_ptr<Decoders> decoders_;
  Buffer stored_;
  Buffer expanded_;
};

}  // namespace kqimage

#endif
