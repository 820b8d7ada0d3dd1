// Every allocation of every query fails once: the query then answers -8 with its outputs empty, or,
// where the memory served only to find a better way, what it answers otherwise. Leaks show under
// the address sanitizer.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <string>

#include "header/allocation_watch_test.h"
#include "header/read_header.h"
#include "kqimageapi.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::Bytes;

struct Result {
  std::int32_t status = 0;
  Bytes output;
  bool operator==(const Result&) const = default;
};

class AllocationFailureTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  AllocationFailureTest() {
    kqtest::ImageSpec spec;
    spec.header.laterSectors = kqtest::PatternBytes(1, 3ul * 512);
    spec.header.record.emplace();
    spec.chunks = {kqtest::RawChunk({{0, 1}}, kqtest::PatternBytes(2, 512))};
    if (GetParam() != 0) kqtest::EncipherImage(&spec, GetParam(), "secret");
    kqtest::WriteFile(path_, kqtest::BuildImage(spec));
  }

  static std::ptrdiff_t OpenFiles() {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
  }

  // emptied: what a failure leaves.
  void FailEachAllocation(const std::function<Result()>& query, const Bytes& emptied) {
    const Result whole = query();
    ASSERT_EQ(whole.status, 0);
    const std::ptrdiff_t openFiles = OpenFiles();
    int refused = 0;
    for (int before = 0;; ++before) {
      SCOPED_TRACE(before);
      Result result;
      bool failed = false;
      {
        const kqtest::FailingAllocation failing(before);
        result = query();
        failed = failing.happened();
      }
      EXPECT_EQ(OpenFiles(), openFiles);
      if (result.status == 0) {
        EXPECT_EQ(result, whole);
      } else {
        ++refused;
        EXPECT_EQ(result, (Result{-8, emptied}));
      }
      if (!failed) break;
    }
    EXPECT_GE(refused, 2);
  }

  kqtest::TempDir dir_;
  std::string path_ = dir_.Path("image.twf");
};

TEST_P(AllocationFailureTest, GetInfo) {
  FailEachAllocation(
      [&] {
        Result result{0, Bytes(sizeof(ImageFileInfo), 0xEE)};
        result.status = KQImageFileGetInfo(path_.c_str(),
                                           reinterpret_cast<ImageFileInfo*>(result.output.data()))
                            .status;
        return result;
      },
      Bytes(sizeof(ImageFileInfo)));
}

TEST_P(AllocationFailureTest, GetInfo2) {
  FailEachAllocation(
      [&] {
        Result result{0, Bytes(sizeof(ImageFileInfo2), 0xEE)};
        result.status = KQImageFileGetInfo2(path_.c_str(),
                                            reinterpret_cast<ImageFileInfo2*>(result.output.data()))
                            .status;
        return result;
      },
      Bytes(sizeof(ImageFileInfo2)));
}

TEST_P(AllocationFailureTest, HeaderSectors) {
  for (const auto query : {KQImageFileGetAllHeaderSectors, KQImageFileGetExtraSectors}) {
    FailEachAllocation(
        [&] {
          Result result{0, Bytes(4ul * 512, 0xEE)};
          std::uint32_t size = 4 * 512;
          result.status = query(path_.c_str(), "secret", result.output.data(), &size).status;
          EXPECT_EQ(size,
                    result.status != 0 || query == KQImageFileGetAllHeaderSectors ? 2048u : 1024u);
          return result;
        },
        Bytes(4ul * 512, 0xEE));
  }
}

TEST_P(AllocationFailureTest, ChunkIndexHead) {
  ImageHeader header{};
  header.SectorSize = 512;
  header.HeaderSectors = 4;
  FailEachAllocation(
      [&] {
        HeapBuffer head;
        Result result;
        OSFile* opened = nullptr;
        result.status = OSFileOpen(path_.c_str(), O_RDONLY, 0, &opened).status;
        if (result.status != 0) return result;
        const OSFileOwner owner(opened);
        result.status = ReadChunkIndexHead(MakeAlignedFile(opened), header, &head).status;
        if (head) result.output.assign(head.data(), head.data() + 512);
        return result;
      },
      {});
}

// A password that can't be converted for want of memory is told like a wrong one, so here a failed
// allocation may also show as success with the answer false.
TEST_P(AllocationFailureTest, TestPassword) {
  for (int before = 0;; ++before) {
    SCOPED_TRACE(before);
    const kqtest::FailingAllocation failing(before);
    bool opens = true;
    const KQStatus status = KQImageFileTestPassword(path_.c_str(), "secret", &opens);
    EXPECT_TRUE(status.status == 0 || status.status == -8);
    EXPECT_FALSE(status.status != 0 && opens);
    if (!failing.happened()) {
      EXPECT_TRUE(opens);
      break;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllTypes, AllocationFailureTest, testing::Range(0u, 5u));

}  // namespace
}  // namespace kq
