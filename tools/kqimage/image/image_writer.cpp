#include "kqimage/image/image_writer.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "kqimage/image/chunk_count_check.h"
#include "kqimage/pieces/block_compare.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

// Handles of images that were given up. They stay referred to until the process ends, so that a
// leak checker can tell them from memory that was lost.
std::vector<std::uint64_t>& GivenUp() {
  static auto* handles = new std::vector<std::uint64_t>;
  return *handles;
}

}  // namespace

void PrintReadingDoubt(const HeaderTemplate& header, const std::string& image) {
  const std::uint32_t type = header.Fields().CompressionType;
  if (IsReadable(type)) return;
  fmt::print("{} is for other readers: this program can't read {} back\n", Printable(image),
             CompressionText(type));
}

ImageWriter::ImageWriter(const std::string& path, const std::string& name,
                         const HeaderTemplate& header, std::uint64_t volumeSize,
                         const char* password)
    : path_(path),
      name_(name),
      password_(password),
      sectorSize_(header.sectorSize),
      compressionType_(header.Fields().CompressionType) {
  GivenUp().reserve(GivenUp().size() + 1);
  Check(KQNewImageFileCreate2(header.bytes.data(), static_cast<std::uint32_t>(header.bytes.size()),
                              password, path.c_str(), &volumeSize, nullptr, nullptr, nullptr,
                              &handle_),
        "create the image", name);
}

ImageWriter::~ImageWriter() {
  if (handle_ != 0) GivenUp().push_back(handle_);
}

void ImageWriter::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
  const std::size_t whole = (bytes.size() + sectorSize_ - 1) / sectorSize_ * sectorSize_;
  bytes = {bytes.data(), whole};
  Check(KQNewImageFileWrite(handle_, bytes.data(), static_cast<std::uint32_t>(whole), offset),
        "write the image", name_);
  tail_.Keep(offset, bytes);
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

void ImageWriter::Finish(const std::string& comment, const Chain& parents) {
  Check(KQNewImageFileClose(handle_, comment.c_str()), "complete the image", name_);
  handle_ = 0;
  if (!IsReadable(compressionType_)) {
    CheckChunkCount(path_, name_, storedBytes_);
    return;
  }
  Chain chain = parents;
  chain.push_back(ReadImageFile(path_));
  tail_.Verify(ChainReader(chain, password_), name_);
}

}  // namespace kqimage
