// The library as the loader brings it up: its configuration file, its silence, its first handle.
// Each test loads a copy of its own from a temporary folder, so that the folder can hold a
// configuration.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "kqimageformat.h"
#include "tests/support/loaded_library.h"
#include "tests/support/temp_dir.h"

namespace {

using kqtest::LoadedLibrary;

// A base image of type 5 with three chunks' worth of data.
std::vector<std::uint8_t> WriteImage(const std::string& path) {
  std::vector<std::uint8_t> header(512);
  ImageHeader record{};
  std::memcpy(record.Magic, KQ_MAGIC_FINISHED, 4);
  record.SectorSize = 512;
  record.CompressionType = KQ_COMPRESSION_LZO;
  record.SourceSize = 3 << 20;
  std::memcpy(header.data(), &record, sizeof record);
  std::vector<std::uint8_t> volume(3 << 20);
  for (std::size_t i = 0; i < volume.size(); ++i) volume[i] = static_cast<std::uint8_t>(i / 1000);
  std::uint64_t image = 0;
  EXPECT_EQ(KQNewImageFileCreate2(header.data(), 512, nullptr, path.c_str(), nullptr, nullptr,
                                  nullptr, nullptr, &image)
                .status,
            0);
  EXPECT_EQ(KQNewImageFileWrite(image, volume.data(), static_cast<std::uint32_t>(volume.size()), 0)
                .status,
            0);
  EXPECT_EQ(KQNewImageFileClose(image, nullptr).status, 0);
  return volume;
}

void OpenReadClose(const LoadedLibrary& library, const std::string& path,
                   const std::vector<std::uint8_t>& volume) {
  std::uint64_t chain = 0;
  ASSERT_EQ(KQ_FIND(library, KQImageFilesOpen)(path.c_str(), nullptr, 0, &chain).status, 0);
  EXPECT_EQ(chain, 1u) << "the first handle of a fresh library";
  std::vector<std::uint8_t> read(volume.size());
  for (int pass = 0; pass < 2; ++pass) {
    ASSERT_EQ(KQ_FIND(library, KQImageFilesRead)(chain, 0, read.data(),
                                                 static_cast<std::uint32_t>(read.size()), nullptr)
                  .status,
              0);
    EXPECT_EQ(read, volume);
  }
  EXPECT_EQ(KQ_FIND(library, KQImageFilesClose)(chain, nullptr, nullptr, 0).status, 0);
}

TEST(LibraryLoad, WithoutConfigurationFileNothingIsPrinted) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("a.twf");
  const std::vector<std::uint8_t> volume = WriteImage(path);
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  {
    const LoadedLibrary library(KQ_LIBRARY_FILE, folder.Path());
    OpenReadClose(library, path, volume);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(LibraryLoad, CacheLimitsOfOneByteStillReadEveryByte) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("a.twf");
  const std::vector<std::uint8_t> volume = WriteImage(path);
  const std::string text = "ChunkCache_MaxCachedBytes = 1\nChunkHeaderCache_MaxCachedBytes = 1\n";
  kqtest::WriteFile(folder.Path("kqimageapi.conf"),
                    {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  const LoadedLibrary library(KQ_LIBRARY_FILE, folder.Path());
  OpenReadClose(library, path, volume);
}

TEST(LibraryLoad, UnreadableConfigurationMeansDefaultsInSilence) {
  const kqtest::TempDir folder;
  const std::string path = folder.Path("a.twf");
  const std::vector<std::uint8_t> volume = WriteImage(path);
  std::filesystem::create_directory(folder.Path("kqimageapi.conf"));
  testing::internal::CaptureStderr();
  const LoadedLibrary library(KQ_LIBRARY_FILE, folder.Path());
  OpenReadClose(library, path, volume);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
