// What becomes of files when the disk is full, tried with disks of all sizes up to the one on which
// everything fits: never does a reader accept a file that is not complete, and what has been
// written to a sparse file stays.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include "kqimageapi.h"
#include "tests/faults/fault_images.h"
#include "tests/faults/small_disk.h"

namespace kqtest {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::uint32_t kPieceBytes = 512;
constexpr std::uint64_t kSpacing = 0x10000;

class FullDisk : public testing::Test {
 protected:
  // Runs the checks on ever larger disks until they are content with one.
  void OnGrowingDisks(const std::function<bool(const SmallDisk& disk)>& fits) {
    InOwnProcess([&] {
      const std::string folder = folder_.Path("disk");
      std::filesystem::create_directory(folder);
      bool fitted = false;
      for (std::uint64_t pages = 1; !fitted && !HasFailure(); ++pages) {
        SCOPED_TRACE(std::to_string(pages) + " pages");
        const SmallDisk disk(folder, pages * kPage);
        fitted = fits(disk);
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
          std::filesystem::remove(entry.path());
        }
        EXPECT_TRUE(pages < 200);
      }
    });
  }

  static void ExpectFull(const KQStatus& status, const SmallDisk& disk) {
    const bool isFull = disk.errnoWhenFull() == ENOSPC;
    EXPECT_EQ(status.status, isFull ? KQ_STATUS_DISK_FULL : KQ_STATUS_GEN_FAILURE);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(disk.errnoWhenFull()));
    EXPECT_EQ(status.detail2, 2u);
  }

  static void ExpectNoReaderAccepts(const std::string& path) {
    ImageFileInfo info;
    std::uint64_t chain = 0;
    EXPECT_NE(KQImageFileGetInfo(path.c_str(), &info).status, 0);
    EXPECT_NE(KQImageFilesOpen(path.c_str(), kPassword, 0, &chain).status, 0);
  }

  TempDir folder_;
};

struct Written {
  KQStatus status{};         // the first failure
  std::uint32_t pieces = 0;  // that were taken
};

// Pieces far apart, so that a chunk is full after a hundred of them.
Written WritePieces(std::uint64_t image) {
  Written written;
  for (; written.pieces < 250 && written.status.status == 0; ++written.pieces) {
    const Bytes piece = PatternBytes(written.pieces + 1, kPieceBytes);
    written.status =
        KQNewImageFileWrite(image, piece.data(), kPieceBytes, written.pieces * kSpacing);
  }
  return written;
}

class FullDiskImage : public FullDisk, public testing::WithParamInterface<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(CompressionTypes, FullDiskImage, testing::Values(0u, 3u, 4u, 5u, 6u));

TEST_P(FullDiskImage, NoReaderAcceptsAnImageThatDoesNotFit) {
  ImageSpec spec = HeaderOnly(2);
  spec.header.compressionType = GetParam();
  const Bytes headerTemplate = BuildHeader(spec);
  const std::string path = folder_.Path("disk/new.twi");
  const auto create = [&](std::uint64_t* image) {
    return KQNewImageFileCreate2(headerTemplate.data(),
                                 static_cast<std::uint32_t>(headerTemplate.size()), kPassword,
                                 path.c_str(), nullptr, nullptr, nullptr, nullptr, image);
  };
  int refused = 0;
  OnGrowingDisks([&](const SmallDisk& disk) {
    std::uint64_t image = 0;
    const KQStatus created = create(&image);
    if (created.status != 0) {
      ExpectFull(created, disk);
      EXPECT_EQ(image, 0u);
      return false;
    }
    const Written written = WritePieces(image);
    if (written.status.status != 0) ExpectFull(written.status, disk);
    const KQStatus closed = KQNewImageFileClose(image, "what the image is");
    if (closed.status != 0) {
      ++refused;
      ExpectFull(closed, disk);
      ExpectNoReaderAccepts(path);
      return false;
    }
    // Without a single chunk there is no image.
    if (!std::filesystem::exists(path)) return false;
    const ParsedImage parsed = ParseFile(path, kPassword);
    EXPECT_EQ(parsed.error, "");
    if (written.status.status != 0) return false;
    EXPECT_GT(refused, 0);
    EXPECT_EQ(parsed.ReadVolume(0, kPieceBytes), PatternBytes(1, kPieceBytes));
    return parsed.Holds((written.pieces - 1) * kSpacing);
  });
}

// The extents fill several chunks. Those that can't be written are left out, whatever the
// conversion says; a file that is there in the end and is accepted has all others.
TEST_F(FullDisk, NoReaderAcceptsABrokenIncrement) {
  const std::string parent = WriteImage(folder_, "image.twf", RawImage(2));
  const std::string sparse = folder_.Path("sparse");
  const std::string path = folder_.Path("disk/new.twi");
  constexpr std::uint32_t kExtents = 250;
  std::uint64_t handle = 0;
  ASSERT_EQ(KQSparseFileOpen(sparse.c_str(), 0, 0, 1, &handle).status, 0);
  for (std::uint32_t i = 0; i < kExtents; ++i) {
    const Bytes piece = PatternBytes(i + 1, kPieceBytes);
    ASSERT_EQ(KQSparseFileWrite(handle, i * kSpacing, piece.data(), kPieceBytes, nullptr).status,
              0);
  }
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
  const Bytes before = ReadFile(sparse);

  int refused = 0;
  OnGrowingDisks([&](const SmallDisk& disk) {
    const KQStatus converted = KQConvertSparseToIncremental(sparse.c_str(), parent.c_str(),
                                                            kPassword, path.c_str(), nullptr);
    EXPECT_TRUE(ReadFile(sparse) == before);
    if (converted.status != 0) {
      ++refused;
      ExpectFull(converted, disk);
      ExpectNoReaderAccepts(path);
      return false;
    }
    if (!std::filesystem::exists(path)) return false;
    const ParsedImage image = ParseFile(path, kPassword);
    EXPECT_EQ(image.error, "");
    std::uint32_t held = 0;
    for (; held < kExtents && image.Holds(held * kSpacing); ++held) {
      EXPECT_EQ(image.ReadVolume(held * kSpacing, kPieceBytes),
                PatternBytes(held + 1, kPieceBytes));
    }
    EXPECT_GT(refused, 0);
    return held == kExtents;
  });
}

TEST_F(FullDisk, SparseFileKeepsWhatHasBeenWritten) {
  const std::string path = folder_.Path("disk/sparse");
  constexpr std::uint32_t kExtents = 20;
  const auto expectExtents = [](std::uint64_t handle, std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
      Bytes found(kPage);
      EXPECT_EQ(KQSparseFileRead(handle, i * kSpacing, found.data(), kPage, nullptr).status, 0);
      EXPECT_TRUE(found == PatternBytes(i + 1, kPage));
    }
  };
  testing::internal::CaptureStderr();
  OnGrowingDisks([&](const SmallDisk& disk) {
    std::uint64_t handle = 0;
    const KQStatus opened = KQSparseFileOpen2(path.c_str(), KQ_SPARSE_CREATE_NEW, 0, 1, &handle);
    if (opened.status != 0) {
      ExpectFull(opened, disk);
      EXPECT_FALSE(std::filesystem::exists(path));
      return false;
    }
    std::uint32_t count = 0;
    KQStatus written{};
    for (; count < kExtents; ++count) {
      const Bytes data = PatternBytes(count + 1, kPage);
      written = KQSparseFileWrite(handle, count * kSpacing, data.data(), kPage, nullptr);
      if (written.status != 0) break;
    }
    if (written.status != 0) ExpectFull(written, disk);
    expectExtents(handle, count);
    EXPECT_EQ(KQSparseFileClose(handle, 0).status, 0);
    EXPECT_EQ(KQSparseFileOpen2(path.c_str(), KQ_SPARSE_OPEN_EXISTING, 1, 1, &handle).status, 0);
    expectExtents(handle, count);
    EXPECT_EQ(KQSparseFileClose(handle, 0).status, 0);
    return count == kExtents;
  });
  testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace kqtest
