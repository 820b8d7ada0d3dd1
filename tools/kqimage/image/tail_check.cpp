#include "kqimage/image/tail_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

void CheckTail(const ChainReader& volume, std::span<const WrittenPiece> pieces,
               const std::string& image) {
  std::vector<std::byte> read;
  for (const WrittenPiece& piece : pieces) {
    read.resize(piece.bytes.size());
    volume.Read(piece.offset, read);
    if (!std::equal(read.begin(), read.end(), piece.bytes.begin())) {
      throw Failure(fmt::format("{} does not hold what was written at byte {} of the volume",
                                Printable(image), piece.offset));
    }
  }
}

}  // namespace kqimage
