#include "kqimage/mount/sparse_commit.h"

#include <fmt/format.h>
#include <kqimageapi.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <random>
#include <span>
#include <vector>

#include "kqimage/image/chain_reader.h"
#include "kqimage/mount/sparse_file.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

// A sparse file that is open for reading.
class OpenedSparse {
 public:
  explicit OpenedSparse(const std::string& path)
      : path_(path), handle_(OpenSparse(path, SparseAccess::kRead)) {}
  ~OpenedSparse() { KQSparseFileClose(handle_, 0); }
  OpenedSparse(const OpenedSparse&) = delete;
  OpenedSparse& operator=(const OpenedSparse&) = delete;

  std::uint64_t Held() const { return HeldBytes(handle_, path_); }

  // Lays what the file holds over the bytes.
  void Overlay(std::uint64_t offset, std::span<std::byte> bytes) const {
    Check(KQSparseFileRead(handle_, offset, bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                           nullptr),
          "read the sparse file", path_);
  }

 private:
  std::string path_;
  std::uint64_t handle_;
};

// The library converts what it can read of a sparse file, and calls that a success. So everything
// is compared.
//
// What a sparse file holds shows in what it leaves of two patterns that differ in every byte: where
// both come out the same, it holds that byte.
class Comparison {
 public:
  Comparison(const OpenedSparse& sparse, const ChainReader& volume)
      : sparse_(sparse), volume_(volume), pattern_(kPieceBytes), inverse_(kPieceBytes) {
    std::minstd_rand random(std::random_device{}());
    for (std::size_t i = 0; i < kPieceBytes; ++i) {
      pattern_[i] = static_cast<std::byte>(random() >> 16);
      inverse_[i] = ~pattern_[i];
    }
    first_ = pattern_;
    second_ = inverse_;
  }

  // Whether the volume reads as the sparse file says. Counts the bytes held so far.
  bool IsSame(std::uint64_t offset, std::size_t length) {
    const std::span<std::byte> first = std::span(first_).first(length);
    sparse_.Overlay(offset, first);
    if (std::equal(first.begin(), first.end(), pattern_.begin())) return true;
    const std::span<std::byte> second = std::span(second_).first(length);
    sparse_.Overlay(offset, second);
    read_.resize(length);
    volume_.Read(offset, read_);
    std::size_t held = 0;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < length; ++i) {
      const bool isHeld = first[i] == second[i];
      held += isHeld ? 1 : 0;
      wrong += isHeld && first[i] != read_[i] ? 1 : 0;
    }
    held_ += held;
    first_ = pattern_;
    second_ = inverse_;
    return wrong == 0;
  }

  std::uint64_t Held() const { return held_; }

 private:
  const OpenedSparse& sparse_;
  const ChainReader& volume_;
  std::vector<std::byte> pattern_;
  std::vector<std::byte> inverse_;
  std::vector<std::byte> first_;
  std::vector<std::byte> second_;
  std::vector<std::byte> read_;
  std::uint64_t held_ = 0;
};

void Compare(const OpenedSparse& sparse, const ChainReader& volume, std::uint64_t end,
             const SparseCommit& commit) {
  const std::uint64_t expected = sparse.Held();
  Comparison comparison(sparse, volume);
  for (std::uint64_t offset = 0; offset < end && comparison.Held() < expected;
       offset += kPieceBytes) {
    ThrowIfInterrupted();
    const auto length =
        static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, end - offset));
    if (comparison.IsSame(offset, length)) continue;
    throw Failure(
        fmt::format("{} does not read as {} says from byte {} of the volume on: the "
                    "sparse file is damaged, or does not belong to the image",
                    Printable(commit.out), Printable(commit.sparse), offset));
  }
  if (comparison.Held() != expected) {
    throw Failure(
        fmt::format("of the {} bytes that {} says to hold, {} are found in the volume: "
                    "it is damaged, or belongs to another image",
                    expected, Printable(commit.sparse), comparison.Held()));
  }
}

// The volume's end, with the rest of its last sector.
std::uint64_t EndOfSectors(const ImageFileInfo& info) {
  const std::uint64_t rest = info.sourceSize % info.sectorSize;
  if (rest == 0) return info.sourceSize;
  const std::uint64_t fill = info.sectorSize - rest;
  return std::min(info.sourceSize, std::numeric_limits<std::uint64_t>::max() - fill) + fill;
}

}  // namespace

std::uint64_t CommitSparse(const SparseCommit& commit, const Chain& chain, const char* password) {
  const OpenedSparse sparse(commit.sparse);
  if (sparse.Held() == 0) return 0;
  ImageOutput output(commit.out, commit.output);
  Check(KQConvertSparseToIncremental(commit.sparse.c_str(), chain.back().path.c_str(), password,
                                     output.WritePath().c_str(), commit.comment.c_str()),
        "make the image", commit.out);
  ThrowIfInterrupted();
  Chain grown = chain;
  grown.push_back(ReadImageFile(output.WritePath()));
  const ChainReader volume(grown, password);
  Compare(sparse, volume, EndOfSectors(grown.back().info), commit);
  output.Commit();
  return sparse.Held();
}

}  // namespace kqimage
