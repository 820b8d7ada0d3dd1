// Writes one new image file, with all processors (chunk_pipeline.h).
//
// An ImageWriter that is destroyed before Finish leaves a file with an unfinished header; the
// OutputFile removes it.
#ifndef KQIMAGE_IMAGE_IMAGE_WRITER_H
#define KQIMAGE_IMAGE_IMAGE_WRITER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "kqimage/image/chunk_pipeline.h"
#include "kqimage/image/header_template.h"

namespace kqimage {

// Prints, for an image that has been made with a compression that can't be read back, that it is
// so.
void PrintReadingDoubt(const HeaderTemplate& header, const std::string& image);

class ImageWriter {
 public:
  struct Wish {
    std::string path;  // exists and is overwritten
    std::string name;  // what messages call the image
    std::uint64_t volumeSize = 0;
    // Needed if the header is that of an enciphered image; the caller's until Finish has returned.
    const char* password = nullptr;
    std::string comment = {};
    bool withSum = false;  // compute the file's SHA-256 while it grows
  };
  ImageWriter(const HeaderTemplate& header, const Wish& wish);

  // Stores bytes at a sector's offset. A length that is no whole number of sectors is rounded up,
  // and the buffer must be readable, and zero, so far.
  void Write(std::uint64_t offset, std::span<const std::byte> bytes);

  // Stores zeros over the range, in the same way.
  void WriteZeros(std::uint64_t offset, std::uint64_t length);

  // Completes the image and reads its end back, as the newest image upon parents (none for a base).
  // Of an image that can't be read back it is checked that all chunks are there.
  void Finish(const Chain& parents);

  // Of the finished file; none unless it is wanted.
  std::optional<std::string> Sum();

  std::uint64_t StoredBytes() const { return storedBytes_; }

 private:
  Wish wish_;
  std::uint32_t sectorSize_;
  std::uint32_t compressionType_;
  ChunkPipeline pipeline_;
  std::uint64_t storedBytes_ = 0;
};

}  // namespace kqimage

#endif
