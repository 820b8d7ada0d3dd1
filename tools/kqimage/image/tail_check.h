// Checks that the end of a new image is really there.
//
// The library collects what is written in a chunk of up to 1 MiB, and completes the image even if
// the last chunk, which goes out at the close, could not be written. So the client keeps the last
// MiB and reads it back from the finished image.
#ifndef KQIMAGE_IMAGE_TAIL_CHECK_H
#define KQIMAGE_IMAGE_TAIL_CHECK_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "kqimage/image/chain_reader.h"

namespace kqimage {

class TailCheck {
 public:
  // Remembers what was written last.
  void Keep(std::uint64_t offset, std::span<const std::byte> bytes);

  // Throws a Failure that names the image if the volume reads otherwise.
  void Verify(const ChainReader& volume, const std::string& image) const;

 private:
  static constexpr std::size_t kTailBytes = std::size_t{1} << 20;

  struct Written {
    std::uint64_t offset;
    std::size_t length;
  };

  std::deque<Written> pieces_;    // in the order of writing
  std::vector<std::byte> bytes_;  // theirs, one behind the other
};

}  // namespace kqimage

#endif
