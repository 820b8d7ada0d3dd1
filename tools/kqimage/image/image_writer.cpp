#include "kqimage/image/image_writer.h"

#include <fmt/format.h>

#include <algorithm>

#include "kqimage/image/chunk_count_check.h"
#include "kqimage/image/tail_check.h"
#include "kqimage/pieces/block_compare.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

void PrintReadingDoubt(const HeaderTemplate& header, const std::string& image) {
  const std::uint32_t type = header.Fields().CompressionType;
  if (IsReadable(type)) return;
  fmt::print("{} is for other readers: this program can't read {} back\n", Printable(image),
             CompressionText(type));
}

ImageWriter::ImageWriter(const HeaderTemplate& header, const Wish& wish)
    : wish_(wish),
      sectorSize_(header.sectorSize),
      compressionType_(header.Fields().CompressionType) {
  Check(pipeline_.Open(wish_.path, header.bytes, wish_.password, wish_.volumeSize,
                       wish_.comment.c_str(), {.withSum = wish_.withSum}),
        "create the image", wish_.name);
}

void ImageWriter::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
  const std::size_t whole = (bytes.size() + sectorSize_ - 1) / sectorSize_ * sectorSize_;
  bytes = {bytes.data(), whole};
  Check(pipeline_.Write(offset, bytes), "write the image", wish_.name);
  storedBytes_ += whole;
}

void ImageWriter::WriteZeros(std::uint64_t offset, std::uint64_t length) {
  static const std::vector<std::byte> zeros(std::size_t{64} << 10);
  while (length > 0) {
    const std::uint64_t part = std::min<std::uint64_t>(length, zeros.size());
    Write(offset, std::span(zeros).first(static_cast<std::size_t>(part)));
    offset += part;
    length -= part;
  }
}

void ImageWriter::Finish(const Chain& parents) {
  Check(pipeline_.Flush(), "write the image", wish_.name);
  Check(pipeline_.Finish(), "complete the image", wish_.name);
  if (!IsReadable(compressionType_)) {
    CheckChunkCount(wish_.path, wish_.name, storedBytes_);
    return;
  }
  Chain chain = parents;
  chain.push_back(ReadImageFile(wish_.path));
  CheckTail(ChainReader(chain, wish_.password), pipeline_.LastPieces(), wish_.name);
}

std::optional<std::string> ImageWriter::Sum() {
  if (!wish_.withSum) return std::nullopt;
  return pipeline_.Sum();
}

}  // namespace kqimage
