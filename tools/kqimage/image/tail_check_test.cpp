#include "kqimage/image/tail_check.h"

#include <gtest/gtest.h>
#include <kqimageformat.h>
#include <stdlib.h>

#include <filesystem>
#include <random>

#include "kqimage/image/header_template.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

using Bytes = std::vector<std::byte>;

constexpr std::size_t kMiB = std::size_t{1} << 20;

Bytes RandomBytes(std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  Bytes bytes(size);
  for (std::byte& byte : bytes) byte = static_cast<std::byte>(random() | 1);
  return bytes;
}

class TailCheckTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    const HeaderTemplate header = MakeBaseTemplate(512, KQ_COMPRESSION_NONE, KQ_ENCRYPTION_NONE);
    ASSERT_EQ(KQNewImageFileCreate2(header.bytes.data(), 512, nullptr, Path().c_str(), nullptr,
                                    nullptr, nullptr, nullptr, &handle_)
                  .status,
              0);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Path() const { return (folder_ / "a.twf").string(); }

  void Write(std::uint64_t offset, const Bytes& bytes) const {
    ASSERT_EQ(
        KQNewImageFileWrite(handle_, bytes.data(), static_cast<std::uint32_t>(bytes.size()), offset)
            .status,
        0);
  }
  void Check(const std::vector<WrittenPiece>& pieces) const {
    ASSERT_EQ(KQNewImageFileClose(handle_, nullptr).status, 0);
    CheckTail(ChainReader({ReadImageFile(Path())}), pieces, "a.twf");
  }

  std::filesystem::path folder_;
  std::uint64_t handle_ = 0;
};

TEST_F(TailCheckTest, WhatIsThereInPiecesOfAnySizePasses) {
  std::vector<Bytes> written;
  std::vector<WrittenPiece> pieces;
  std::uint64_t offset = 0;
  for (const std::size_t size : {std::size_t{4096}, 3 * kMiB, std::size_t{512}, kMiB / 2, kMiB}) {
    written.push_back(RandomBytes(size));
    Write(offset, written.back());
    pieces.push_back({offset, written.back()});
    offset += size + 512;
  }
  EXPECT_NO_THROW(Check(pieces));
}

TEST_F(TailCheckTest, AMissingPieceIsNoticed) {
  const Bytes bytes = RandomBytes(64 << 10);
  std::vector<WrittenPiece> pieces;
  for (std::uint64_t piece = 0; piece < 4; ++piece) {
    pieces.push_back({piece * bytes.size(), bytes});
    if (piece != 2) Write(pieces.back().offset, bytes);
  }
  EXPECT_THROW(Check(pieces), Failure);
}

TEST_F(TailCheckTest, ALastByteThatDiffersIsNoticed) {
  Bytes bytes = RandomBytes(4 * kMiB);
  Write(0, bytes);
  bytes.back() ^= std::byte{1};
  EXPECT_THROW(Check({{0, bytes}}), Failure);
}

}  // namespace
}  // namespace kqimage
