#include "kqimage/image/tail_check.h"

#include <fmt/format.h>

#include <algorithm>

#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

void TailCheck::Keep(std::uint64_t offset, std::span<const std::byte> bytes) {
  if (bytes.size() > kTailBytes) {
    offset += bytes.size() - kTailBytes;
    bytes = bytes.last(kTailBytes);
  }
  pieces_.push_back({offset, bytes.size()});
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  // Cut the front only when as much again has gathered, so that each byte moves at most once.
  if (bytes_.size() <= 2 * kTailBytes) return;
  std::size_t cut = 0;
  while (bytes_.size() - cut - pieces_.front().length >= kTailBytes) {
    cut += pieces_.front().length;
    pieces_.pop_front();
  }
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(cut));
}

void TailCheck::Verify(const ChainReader& volume, const std::string& image) const {
  std::vector<std::byte> read;
  std::span<const std::byte> rest(bytes_);
  for (const Written& piece : pieces_) {
    read.resize(piece.length);
    volume.Read(piece.offset, read);
    if (!std::equal(read.begin(), read.end(), rest.begin())) {
      throw Failure(fmt::format("{} does not hold what was written at byte {} of the volume",
                                Printable(image), piece.offset));
    }
    rest = rest.subspan(piece.length);
  }
}

}  // namespace kqimage
