// How a repair writes: one write of whole blocks, then one fsync; and what each of them, and each
// allocation, leaves when it fails.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "header/allocation_watch_test.h"
#include "header/header_repair_test.h"

namespace {

struct WriteRecord {
  std::int64_t offset;
  std::uint64_t length;
  bool operator==(const WriteRecord&) const = default;
};

// What the library's calls of this thread meet and do.
thread_local std::uint64_t smallestRead = 0;
thread_local int writeError = 0;
thread_local int fsyncError = 0;
thread_local bool watching = false;
thread_local std::vector<WriteRecord>* writes = nullptr;
thread_local int fsyncs = 0;

}  // namespace

// The linker sends the library's calls here.
extern "C" {
ssize_t __real_read(int fd, void* buffer, size_t length);
ssize_t __real_write(int fd, const void* buffer, size_t length);
int __real_fsync(int fd);

ssize_t __wrap_read(int fd, void* buffer, size_t length) {
  if (watching && length < smallestRead) {
    errno = EINVAL;
    return -1;
  }
  return __real_read(fd, buffer, length);
}
ssize_t __wrap_write(int fd, const void* buffer, size_t length) {
  if (watching) {
    if (writeError != 0) {
      errno = writeError;
      return -1;
    }
    writes->push_back({lseek(fd, 0, SEEK_CUR), length});
    EXPECT_EQ(fsyncs, 0) << "a write behind the fsync";
  }
  return __real_write(fd, buffer, length);
}
int __wrap_fsync(int fd) {
  if (watching) {
    ++fsyncs;
    if (fsyncError != 0) {
      errno = fsyncError;
      return -1;
    }
  }
  return __real_fsync(fd);
}
}

namespace kqtest {
namespace {

class HeaderRepairFaultsTest : public HeaderRepairTest {
 protected:
  HeaderRepairFaultsTest() { writes = &writes_; }
  ~HeaderRepairFaultsTest() override {
    smallestRead = 0;
    writeError = fsyncError = fsyncs = 0;
    writes = nullptr;
  }

  KQStatus WatchedRepair(std::uint64_t issues, const char* password = nullptr) {
    writes_.clear();
    fsyncs = 0;
    watching = true;
    const KQStatus status = Repair(issues, password);
    watching = false;
    return status;
  }

  std::vector<WriteRecord> writes_;
};

TEST_F(HeaderRepairFaultsTest, OneWriteOfOneSectorForTheGenerationAndOneFsync) {
  Write(DefectiveImage(6, 512));
  EXPECT_EQ(WatchedRepair(1).status, 0);
  EXPECT_EQ(writes_, (std::vector<WriteRecord>{{0, 512}}));
  EXPECT_EQ(fsyncs, 1);
}

TEST_F(HeaderRepairFaultsTest, OneWriteOfTheWholeHeaderForTheGptAndOneFsync) {
  for (const std::uint64_t issues : {2u, 3u}) {
    Write(DefectiveImage(6, 512, 2));
    EXPECT_EQ(WatchedRepair(issues, "secret").status, 0);
    EXPECT_EQ(writes_, (std::vector<WriteRecord>{{0, 6ul * 512}}));
    EXPECT_EQ(fsyncs, 1);
  }
}

TEST_F(HeaderRepairFaultsTest, NothingIsWrittenOrSyncedWithoutARepair) {
  ImageSpec spec = DefectiveImage();
  Write(spec);
  EXPECT_EQ(WatchedRepair(0).status, 0);
  spec.header.generation = 0;
  Write(spec);
  EXPECT_EQ(WatchedRepair(1).status, -87);
  watching = true;
  std::uint64_t issues = 0;
  EXPECT_EQ(Check(&issues).status, 0);
  Listener listener;
  EXPECT_EQ(Repair(1, nullptr, &listener).status, 0);
  watching = false;
  EXPECT_TRUE(writes_.empty());
  EXPECT_EQ(fsyncs, 0);
}

TEST_F(HeaderRepairFaultsTest, WritesAreWholeFileBlocksWithTheFilesOwnBytesBehindTheHeader) {
  for (const std::uint64_t blockSize : {256u, 1024u, 2048u, 4096u}) {
    smallestRead = blockSize;
    for (const std::uint32_t headerSectors : {1u, 2u, 6u, 8u, 9u}) {
      for (std::uint64_t issues = 1; issues <= (headerSectors == 1 ? 1u : 3u); ++issues) {
        const ImageSpec spec = DefectiveImage(headerSectors, 512, 4);
        Write(spec);
        EXPECT_EQ(WatchedRepair(issues, "secret").status, 0);
        EXPECT_EQ(ReadFile(path_), RepairedFile(spec, issues)) << blockSize;
        const std::uint64_t bytes = issues == 1 ? 512 : headerSectors * 512;
        const std::uint64_t whole = (bytes + blockSize - 1) / blockSize * blockSize;
        EXPECT_EQ(writes_, (std::vector<WriteRecord>{{0, whole}}));
      }
    }
  }
}

TEST_F(HeaderRepairFaultsTest, BlockSizeThatCantBeHadIs4096) {
  smallestRead = 8192;
  const ImageSpec spec = DefectiveImage();
  Write(spec);
  EXPECT_EQ(WatchedRepair(3).status, 0);
  EXPECT_EQ(writes_, (std::vector<WriteRecord>{{0, 4096}}));
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 3));
}

TEST_F(HeaderRepairFaultsTest, FileThatEndsWithinTheLastBlockIsACrcError) {
  smallestRead = 4096;
  ImageSpec spec = DefectiveImage(2);
  spec.chunks = {RawChunk({{0x10000, 1}}, PatternBytes(8, 512))};
  Write(spec);
  ASSERT_LT(BuildImage(spec).size(), 4096u);
  const KQStatus status = WatchedRepair(3);
  EXPECT_EQ(status.status, -23);
  EXPECT_EQ(status.detail1, 0u);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_TRUE(writes_.empty());
  EXPECT_EQ(ReadFile(path_), BuildImage(spec));
  // Of two blocks the second counts.
  spec = DefectiveImage(9);
  spec.chunks.clear();
  spec.gapBeforeIndex = Bytes(4ul * 512, 0x11);
  Write(spec);
  ASSERT_EQ(BuildImage(spec).size(), 15u * 512);
  EXPECT_EQ(WatchedRepair(2).status, -23);
  EXPECT_EQ(WatchedRepair(1).status, 0);
  EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 1));
}

TEST_F(HeaderRepairFaultsTest, FailedWriteEndsTheCall) {
  Write(DefectiveImage());
  writeError = ENOSPC;
  const KQStatus status = WatchedRepair(3);
  EXPECT_EQ(status.status, -112);
  EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(ENOSPC));
  EXPECT_EQ(status.detail2, 2u);
  EXPECT_STREQ(status.file, "kqos_linux");
  EXPECT_EQ(fsyncs, 0);
  EXPECT_EQ(ReadFile(path_), BuildImage(DefectiveImage()));
}

TEST_F(HeaderRepairFaultsTest, FailedFsyncIsMappedLikeEveryErrno) {
  struct Case {
    int error;
    std::int32_t status;
  };
  for (const Case& test : {Case{EIO, -23}, Case{ENOSPC, -112}, Case{EINVAL, -87},
                           Case{EINTR, -1223}, Case{EFBIG, -31}, Case{EDQUOT, -112}}) {
    Write(DefectiveImage());
    fsyncError = test.error;
    const KQStatus status = WatchedRepair(3);
    EXPECT_EQ(status.status, test.status);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(test.error));
    EXPECT_EQ(status.detail2, 2u);
    EXPECT_STREQ(status.file, "kqos_linux");
    EXPECT_EQ(fsyncs, 1);
  }
}

TEST_F(HeaderRepairFaultsTest, FailedAllocationLeavesTheFileAlone) {
  smallestRead = 4096;
  for (std::uint32_t type = 0; type <= 4; ++type) {
    const ImageSpec spec = DefectiveImage(6, 512, type);
    Write(spec);
    int contexts = 0;
    int refused = 0;
    for (int before = 0;; ++before) {
      SCOPED_TRACE(before);
      KQStatus status{};
      bool happened = false;
      writes_.clear();
      writes_.reserve(4);  // so that watching allocates nothing
      fsyncs = 0;
      {
        const FailingAllocation failing(before);
        std::uint64_t issues = 3;
        watching = true;
        status = KQImageFileFixHeader(path_.c_str(), "secret", &issues, 0, nullptr, nullptr);
        watching = false;
        happened = failing.happened();
      }
      if (status.status == 0) {
        EXPECT_EQ(ReadFile(path_), RepairedFile(spec, 3));
        Write(spec);
      } else {
        EXPECT_TRUE(status.status == -8 || status.status == -6000) << status.status;
        EXPECT_EQ(ReadFile(path_), BuildImage(spec));
        ++refused;
        if (status.status == -6000) ++contexts;
      }
      if (!happened) break;
    }
    EXPECT_GE(refused, type == 0 ? 4 : 8);
    // Of the context that enciphers; the one that deciphers is -8.
    EXPECT_EQ(contexts, type == 0 ? 0 : 1);
  }
}

}  // namespace
}  // namespace kqtest
