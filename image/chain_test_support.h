// What the tests of chains share: images composed into a folder, opened and read through the
// exported functions.
#ifndef KQ_IMAGE_CHAIN_TEST_SUPPORT_H
#define KQ_IMAGE_CHAIN_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/open_image_file.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kq {

using kqtest::Bytes;
using kqtest::ChunkSpec;
using kqtest::ImageLayout;
using kqtest::ImageSpec;
using kqtest::PatternBytes;
using kqtest::RawChunk;
using kqtest::StreamChunk;
using kqtest::VolumeRun;

class ImageFolder {
 public:
  std::string Write(const std::string& name, const ImageSpec& spec, ImageLayout* layout = nullptr) {
    return WriteBytes(name, kqtest::BuildImage(spec, layout));
  }
  std::string WriteBytes(const std::string& name, const Bytes& bytes) {
    kqtest::WriteFile(folder_.Path(name), bytes);
    return folder_.Path(name);
  }
  std::string Path(const std::string& name) const { return folder_.Path(name); }

 private:
  kqtest::TempDir folder_;
};

// Opens, and closes at the end of its life.
struct TestChain {
  std::uint64_t handle = 0xDEAD;  // the open below sets it, also when it fails
  KQStatus opened{};

  explicit TestChain(const std::string& files, const char* password = nullptr)
      : opened(KQImageFilesOpen(files.c_str(), password, 0, &handle)) {}
  TestChain(const TestChain&) = delete;
  TestChain& operator=(const TestChain&) = delete;
  ~TestChain() { Close(); }

  KQStatus Close() {
    if (handle == 0) return {};
    const KQStatus status = KQImageFilesClose(handle, nullptr, nullptr, 0);
    handle = 0;
    return status;
  }
};

struct ReadResult {
  KQStatus status{};
  std::uint32_t count = 0xAAAAAAAA;
  Bytes data;
};

// The buffer is full of garbage before, and what lies around it must stay.
inline ReadResult ReadChain(std::uint64_t handle, std::uint64_t offset, std::uint32_t length,
                            std::size_t misalign = 0) {
  constexpr std::size_t kGuard = 64;
  constexpr std::uint8_t kGarbage = 0xAA;
  Bytes buffer(kGuard + misalign + length + kGuard, kGarbage);
  std::uint8_t* target = buffer.data() + kGuard + misalign;
  ReadResult result;
  result.status = KQImageFilesRead(handle, offset, target, length, &result.count);
  result.data.assign(target, target + length);
  for (std::size_t i = 0; i < buffer.size(); ++i) {
    if (i < kGuard + misalign || i >= kGuard + misalign + length) {
      EXPECT_EQ(buffer[i], kGarbage) << "outside the buffer";
    }
  }
  return result;
}

inline void ExpectRead(std::uint64_t handle, std::uint64_t offset, const Bytes& expected) {
  const ReadResult result = ReadChain(handle, offset, static_cast<std::uint32_t>(expected.size()));
  EXPECT_EQ(result.status.status, 0);
  EXPECT_EQ(result.count, expected.size());
  EXPECT_TRUE(result.data == expected) << "wrong bytes at " << offset;
}

// A failed read gives a count of 0 and a buffer of zeros.
inline KQStatus ExpectFailedRead(std::uint64_t handle, std::uint64_t offset, std::uint32_t length,
                                 std::int32_t status) {
  const ReadResult result = ReadChain(handle, offset, length);
  EXPECT_EQ(result.status.status, status);
  EXPECT_EQ(result.count, 0u);
  EXPECT_TRUE(result.data == Bytes(length)) << "the buffer is not zeroed";
  return result.status;
}

inline Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes joined;
  for (const Bytes& part : parts) kqtest::Append(&joined, part);
  return joined;
}

inline Bytes Slice(const Bytes& bytes, std::size_t offset, std::size_t length) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(offset),
          bytes.begin() + static_cast<std::ptrdiff_t>(offset + length)};
}

inline std::size_t OpenFileCount() {
  const MutexLock lock(openFilesMutex);
  std::size_t count = 0;
  for (const OpenImageFile* file = OpenImageFiles.first(); file != nullptr;
       file = OpenImageFileList::Next(file)) {
    ++count;
  }
  return count;
}

// The file opened last, or null. The lock is let go: the test keeps the file open itself.
inline OpenImageFile* NewestOpenFile() {
  const MutexLock lock(openFilesMutex);
  return OpenImageFiles.first();
}

}  // namespace kq

#endif
