// Writes one new image file through the library.
//
// The library has no call that gives up an image. An ImageWriter that is destroyed before Finish
// leaves the library's object, and the file with its unfinished header, as they are; the OutputFile
// removes the file, and the process is about to end.
#ifndef KQIMAGE_IMAGE_IMAGE_WRITER_H
#define KQIMAGE_IMAGE_IMAGE_WRITER_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "kqimage/image/header_template.h"
#include "kqimage/image/tail_check.h"

namespace kqimage {

// Prints, for an image that has been made with a compression that can't be read back, that it is
// so.
void PrintReadingDoubt(const HeaderTemplate& header, const std::string& image);

class ImageWriter {
 public:
  // path exists and is overwritten; name is what messages call it. The password is needed if the
  // header is that of an enciphered image, and stays the caller's until Finish has returned.
  ImageWriter(const std::string& path, const std::string& name, const HeaderTemplate& header,
              std::uint64_t volumeSize, const char* password);
  ~ImageWriter();
  ImageWriter(const ImageWriter&) = delete;
  ImageWriter& operator=(const ImageWriter&) = delete;

  // Stores bytes at a sector's offset. A length that is no whole number of sectors is rounded up,
  // and the buffer must be readable, and zero, so far.
  void Write(std::uint64_t offset, std::span<const std::byte> bytes);

  // Stores zeros over the range, in the same way.
  void WriteZeros(std::uint64_t offset, std::uint64_t length);

  // Completes the image and reads its end back, as the newest image upon parents (none for a base).
  // Of an image that can't be read back it is checked that all chunks are there.
  void Finish(const std::string& comment, const Chain& parents);

  std::uint64_t StoredBytes() const { return storedBytes_; }

 private:
  std::string path_;
  std::string name_;
  const char* password_;
  std::uint32_t sectorSize_;
  std::uint32_t compressionType_;
  std::uint64_t handle_ = 0;
  std::uint64_t storedBytes_ = 0;
  TailCheck tail_;
};

}  // namespace kqimage

#endif
