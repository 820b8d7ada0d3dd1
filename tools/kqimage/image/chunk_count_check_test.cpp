#include "kqimage/image/chunk_count_check.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kqimage/image/image_writer.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {
namespace {

constexpr std::size_t kWritten = std::size_t{5} << 19;  // three chunks, the last one not full

class ChunkCountCheckTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    std::vector<std::byte> bytes(kWritten);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = std::byte((i * i >> 7) & 0x3F);
    ImageWriter writer(MakeBaseTemplate(512, KQ_COMPRESSION_LZW, KQ_ENCRYPTION_NONE),
                       {.path = Path(), .name = Path(), .volumeSize = kWritten});
    for (std::size_t at = 0; at < bytes.size(); at += 65536) {
      writer.Write(at, std::span(bytes).subspan(at, 65536));
    }
    writer.Finish({});
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Path() const { return folder_ + "/a.twf"; }

  bool IsComplete(std::uint64_t storedBytes) const {
    try {
      CheckChunkCount(Path(), "the image", storedBytes);
      return true;
    } catch (const Failure& failure) {
      EXPECT_STREQ(failure.what(), "the image does not hold all that was written");
      return false;
    }
  }

  void Put(std::uint64_t offset, std::uint32_t value) const {
    std::fstream file(Path(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char*>(&value), sizeof value);
  }
  std::uint32_t Get(std::uint64_t offset) const {
    std::ifstream file(Path(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::uint32_t value = 0;
    file.read(reinterpret_cast<char*>(&value), sizeof value);
    return value;
  }

  std::string folder_;
};

TEST_F(ChunkCountCheckTest, AnImageWithAllItsChunksPasses) { EXPECT_TRUE(IsComplete(kWritten)); }

TEST_F(ChunkCountCheckTest, AChunkThatIsMissingIsFound) {
  EXPECT_FALSE(IsComplete(kWritten + 512));
  EXPECT_FALSE(IsComplete(kWritten - 512));
}

TEST_F(ChunkCountCheckTest, AChunkThatReachesIntoTheIndexIsFound) {
  const std::uint64_t second = 512 + 512 * std::uint64_t{Get(512)};
  const std::uint64_t third = second + 512 * std::uint64_t{Get(second)};
  Put(third, Get(third) + 1);
  EXPECT_FALSE(IsComplete(kWritten));
}

TEST_F(ChunkCountCheckTest, AHeadThatWasNeverWrittenIsFound) {
  Put(512, 0);
  EXPECT_FALSE(IsComplete(kWritten));
}

}  // namespace
}  // namespace kqimage
