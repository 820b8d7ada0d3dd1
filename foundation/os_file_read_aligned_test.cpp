#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "foundation/os_file.h"
#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_seed.h"

namespace {

using kq::HeapBuffer;
using kq::OSAlignedFile;
using kq::OSFile;
using kq::OSFileOwner;
using kq::OSFileReadAligned;
using kqtest::BeforeCall;
using kqtest::Bytes;
using kqtest::Call;
using kqtest::CallCounter;
using kqtest::CallRecord;
using kqtest::ExpectOwnFailure;
using kqtest::ExpectSystemFailure;
using kqtest::FailingCall;
using kqtest::Pattern;
using kqtest::ShortTransfers;

constexpr std::uint32_t kUntouched = 0x7777;
constexpr std::uint8_t kFill = 0xE7;

class OSFileReadAlignedTest : public testing::Test {
 protected:
  static constexpr std::size_t kBufferBytes = 16384;

  OSFileReadAlignedTest() : buffer_(HeapBuffer::AllocateAligned(4096, kBufferBytes)) {
    std::fill(buffer_.bytes().begin(), buffer_.bytes().end(), kFill);
  }

  OSAlignedFile Make(std::size_t size, std::uint32_t blockSize = 512) {
    const std::string path = dir_.Path("file");
    content_ = Pattern(size);
    kqtest::WriteFile(path, content_);
    return Open(path, blockSize);
  }

  OSAlignedFile Open(const std::string& path, std::uint32_t blockSize = 512) {
    OSFile* opened = nullptr;
    EXPECT_EQ(kq::OSFileOpen(path.c_str(), O_RDWR, 0, &opened).status, 0);
    owner_.reset(opened);
    return {opened, blockSize};
  }

  // The buffer from at on holds the file's bytes from offset on, and nothing else was written.
  void ExpectBytes(std::size_t at, std::size_t offset, std::size_t length) {
    Bytes expected(kBufferBytes, kFill);
    std::copy_n(content_.begin() + static_cast<std::ptrdiff_t>(offset), length,
                expected.begin() + static_cast<std::ptrdiff_t>(at));
    const auto wrong = std::mismatch(expected.begin(), expected.end(), buffer_.data());
    EXPECT_EQ(wrong.first, expected.end()) << "byte " << wrong.first - expected.begin();
  }

  kqtest::TempDir dir_;
  OSFileOwner owner_;
  Bytes content_;
  HeapBuffer buffer_;
};

TEST_F(OSFileReadAlignedTest, NullBufferIsRefusedFirst) {
  const OSAlignedFile file = Make(4096);
  std::uint32_t count = kUntouched;
  ExpectOwnFailure(OSFileReadAligned(file, 0, nullptr, 512, &count), -87, "kqos");
  EXPECT_EQ(count, 0U);
  ExpectOwnFailure(OSFileReadAligned(file, 0, nullptr, 0, &count), -87, "kqos");
}

TEST_F(OSFileReadAlignedTest, LengthZeroSucceedsAtAnyOffsetWithoutTouchingTheFile) {
  const OSAlignedFile file = Make(4096);
  const CallCounter seeks(Call::kSeek);
  const CallCounter reads(Call::kPread);
  for (const std::uint64_t offset :
       {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{1} << 50, ~std::uint64_t{0}}) {
    std::uint32_t count = kUntouched;
    EXPECT_EQ(OSFileReadAligned(file, offset, buffer_.data() + 1, 0, &count).status, 0);
    EXPECT_EQ(count, 0U);
  }
  EXPECT_EQ(seeks.count() + reads.count(), 0U);
}

TEST_F(OSFileReadAlignedTest, AlignedReadGoesStraightIntoTheBuffer) {
  const OSAlignedFile file = Make(8192);
  const CallCounter allocations(Call::kAlignedMalloc);
  const CallCounter reads(Call::kPread);
  std::uint32_t count = 0;
  ASSERT_EQ(OSFileReadAligned(file, 1024, buffer_.data() + 512, 1536, &count).status, 0);
  EXPECT_EQ(count, 1536U);
  EXPECT_EQ(allocations.count(), 0U);
  ASSERT_EQ(reads.count(), 1U);
  EXPECT_EQ(reads.seen()[0].address, reinterpret_cast<std::uintptr_t>(buffer_.data() + 512));
  ExpectBytes(512, 1024, 1536);
}

TEST_F(OSFileReadAlignedTest, AlignedReadPastTheEndIsShortWithoutFailure) {
  const OSAlignedFile file = Make(1000);
  std::uint32_t count = 0;
  ASSERT_EQ(OSFileReadAligned(file, 512, buffer_.data(), 1024, &count).status, 0);
  EXPECT_EQ(count, 488U);
  ExpectBytes(0, 512, 488);
  count = kUntouched;
  EXPECT_EQ(OSFileReadAligned(file, 4096, buffer_.data(), 1024, &count).status, 0);
  EXPECT_EQ(count, 0U);
}

TEST_F(OSFileReadAlignedTest, MisalignedReadPastTheEndIsGeneralFailure) {
  const OSAlignedFile file = Make(1000);
  struct Case {
    std::uint64_t offset;
    std::size_t bufferAt;
    std::uint32_t length;
  };
  for (const Case& c : {Case{513, 0, 1024}, Case{512, 1, 1024}, Case{512, 0, 1023}, Case{999, 0, 2},
                        Case{1000, 0, 1}, Case{4097, 0, 1}, Case{0, 0, 1001}}) {
    std::uint32_t count = kUntouched;
    ExpectOwnFailure(
        OSFileReadAligned(file, c.offset, buffer_.data() + c.bufferAt, c.length, &count), -31,
        "kqos");
    EXPECT_EQ(count, 0U);
    ExpectBytes(0, 0, 0);
  }
}

TEST_F(OSFileReadAlignedTest, MisalignedReadUpToTheExactEndSucceeds) {
  const OSAlignedFile file = Make(1000);
  std::uint32_t count = 0;
  ASSERT_EQ(OSFileReadAligned(file, 999, buffer_.data(), 1, &count).status, 0);
  EXPECT_EQ(count, 1U);
  ASSERT_EQ(OSFileReadAligned(file, 513, buffer_.data(), 487, &count).status, 0);
  EXPECT_EQ(count, 487U);
  ExpectBytes(0, 513, 487);
}

// Each of the three misalignments alone takes the bounce buffer, whose place and size are whole
// blocks.
TEST_F(OSFileReadAlignedTest, BounceBufferCoversWholeBlocks) {
  const OSAlignedFile file = Make(8192);
  struct Case {
    std::uint64_t offset;
    std::size_t bufferAt;
    std::uint32_t length;
    std::int64_t start;
    std::uint64_t size;
  };
  for (const Case& c :
       {Case{1024, 1, 512, 1024, 512}, Case{1024, 1, 513, 1024, 1024},
        Case{1025, 0, 512, 1024, 1024}, Case{1025, 0, 511, 1024, 512}, Case{1535, 0, 2, 1024, 1024},
        Case{1024, 0, 1, 1024, 512}, Case{1023, 7, 1026, 512, 2048}}) {
    std::fill(buffer_.bytes().begin(), buffer_.bytes().end(), kFill);
    const CallCounter allocations(Call::kAlignedMalloc);
    const CallCounter reads(Call::kPread);
    std::uint32_t count = 0;
    ASSERT_EQ(
        OSFileReadAligned(file, c.offset, buffer_.data() + c.bufferAt, c.length, &count).status, 0);
    EXPECT_EQ(count, c.length);
    ASSERT_EQ(allocations.count(), 1U);
    EXPECT_EQ(allocations.seen()[0].flags, 4096U);
    EXPECT_EQ(allocations.seen()[0].length, c.size);
    ASSERT_EQ(reads.count(), 1U);
    EXPECT_EQ(reads.seen()[0].offset, c.start);
    EXPECT_EQ(reads.seen()[0].length, c.size);
    ExpectBytes(c.bufferAt, c.offset, c.length);
  }
}

TEST_F(OSFileReadAlignedTest, AnyRangeMatchesAPlainModel) {
  const unsigned seed = kqtest::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (const std::uint32_t blockSize : {128U, 512U, 4096U}) {
    const OSAlignedFile file = Make(9000 + random() % 300, blockSize);
    for (int i = 0; i < 400; ++i) {
      const std::uint32_t grain = random() % 2 == 0 ? blockSize : 1;
      const std::uint64_t offset = random() % 9600 / grain * grain;
      const auto length = static_cast<std::uint32_t>(random() % 9000 / grain * grain);
      const std::size_t at = random() % 2 == 0 ? 0 : random() % 5;
      std::fill(buffer_.bytes().begin(), buffer_.bytes().end(), kFill);
      std::uint32_t count = kUntouched;
      const KQStatus status = OSFileReadAligned(file, offset, buffer_.data() + at, length, &count);

      const std::uint64_t held =
          offset < content_.size() ? std::min<std::uint64_t>(length, content_.size() - offset) : 0;
      const bool direct = offset % blockSize == 0 && length % blockSize == 0 && at == 0;
      if (direct || held == length) {
        ASSERT_EQ(status.status, 0) << offset << " " << length << " " << at;
        ASSERT_EQ(count, held);
        ExpectBytes(at, held == 0 ? 0 : offset, held);
      } else {
        ASSERT_EQ(status.status, -31) << offset << " " << length << " " << at;
        ASSERT_EQ(count, 0U);
        ExpectBytes(0, 0, 0);
      }
      ASSERT_FALSE(HasFailure()) << offset << " " << length << " " << at;
    }
  }
}

TEST_F(OSFileReadAlignedTest, ShortAndInterruptedReadsGoOnToTheEnd) {
  const OSAlignedFile file = Make(8192);
  const ShortTransfers limit(100);
  std::uint32_t count = 0;
  {
    const FailingCall failing(Call::kPread, EINTR, 3, 2);
    ASSERT_EQ(OSFileReadAligned(file, 512, buffer_.data(), 1024, &count).status, 0);
    EXPECT_EQ(failing.failures(), 3);
  }
  EXPECT_EQ(count, 1024U);
  ExpectBytes(0, 512, 1024);
  const FailingCall failing(Call::kPread, EINTR, 3, 2);
  ASSERT_EQ(OSFileReadAligned(file, 700, buffer_.data(), 1024, &count).status, 0);
  EXPECT_EQ(failing.failures(), 3);
  ExpectBytes(0, 700, 1024);
}

TEST_F(OSFileReadAlignedTest, FailedReadIsMappedWithCountZero) {
  const OSAlignedFile file = Make(8192);
  const ShortTransfers limit(100);
  for (const std::uint64_t offset : {512U, 513U}) {
    const FailingCall failing(Call::kPread, EIO, 1, 3);
    std::uint32_t count = kUntouched;
    ExpectSystemFailure(OSFileReadAligned(file, offset, buffer_.data(), 1024, &count), -23, EIO);
    EXPECT_EQ(count, 0U);
  }
}

TEST_F(OSFileReadAlignedTest, FailedSeekIsMappedWithCountZero) {
  const OSAlignedFile file = Make(8192);
  for (const std::uint64_t offset : {512U, 513U}) {
    const FailingCall failing(Call::kSeek, EIO);
    const CallCounter reads(Call::kPread);
    std::uint32_t count = kUntouched;
    ExpectSystemFailure(OSFileReadAligned(file, offset, buffer_.data(), 1024, &count), -23, EIO);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(reads.count(), 0U);
  }
}

TEST_F(OSFileReadAlignedTest, SeekThatFailsWithErrnoZeroCountsAsDone) {
  const OSAlignedFile file = Make(8192);
  for (const std::uint64_t offset : {512U, 513U}) {
    const FailingCall failing(Call::kSeek, 0);
    std::uint32_t count = 0;
    EXPECT_EQ(OSFileReadAligned(file, offset, buffer_.data(), 1024, &count).status, 0);
    EXPECT_EQ(failing.failures(), 1);
    EXPECT_EQ(count, 1024U);
    ExpectBytes(0, offset, 1024);
  }
}

TEST_F(OSFileReadAlignedTest, PipeIsRefusedByTheSeek) {
  const std::string path = dir_.Path("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const OSAlignedFile file = Open(path, 4096);
  ASSERT_EQ(write(owner_->fd, "abc", 3), 3);
  for (const std::uint32_t length : {4096U, 3U}) {
    std::uint32_t count = kUntouched;
    ExpectSystemFailure(OSFileReadAligned(file, 0, buffer_.data(), length, &count), -31, ESPIPE);
    EXPECT_EQ(count, 0U);
  }
}

TEST_F(OSFileReadAlignedTest, DirectoryIsGeneralFailureOfTheSystem) {
  OSFile* opened = nullptr;
  ASSERT_EQ(kq::OSFileOpen(dir_.Path().c_str(), O_RDONLY, 0, &opened).status, 0);
  const OSFileOwner owner(opened);
  std::uint32_t count = kUntouched;
  ExpectSystemFailure(OSFileReadAligned({opened, 4096}, 0, buffer_.data(), 5, &count), -31, EISDIR);
}

TEST_F(OSFileReadAlignedTest, OffsetsThatTheFileSystemRefusesFailAsTheSeekDoes) {
  const OSAlignedFile file = Make(8192);
  constexpr std::uint64_t kTop = std::uint64_t{1} << 63;
  for (const std::uint64_t offset :
       {kTop - 512, kTop - 1, kTop, kTop + 1, ~std::uint64_t{0} - 511, ~std::uint64_t{0}}) {
    for (const std::uint32_t length : {512U, 4096U, 513U}) {
      // What the file system says to the place where the read starts.
      const bool direct = offset % 512 == 0 && length % 512 == 0;
      errno = 0;
      const bool accepted =
          lseek(owner_->fd, static_cast<off_t>(offset - offset % 512), SEEK_SET) >= 0;
      const int error = errno;
      std::uint32_t count = kUntouched;
      const KQStatus status = OSFileReadAligned(file, offset, buffer_.data(), length, &count);
      EXPECT_EQ(count, 0U);
      if (!accepted) {
        ExpectSystemFailure(status, error == EINVAL ? -87 : -31, error);
      } else if (direct) {
        EXPECT_EQ(status.status, 0);
      } else {
        ExpectOwnFailure(status, -31, "kqos");
      }
      if (offset >= kTop) {
        EXPECT_FALSE(accepted);
      }
    }
  }
}

TEST_F(OSFileReadAlignedTest, SizeOfTheBounceBufferDoesNotWrapAtFourGigabytes) {
  const OSAlignedFile file = Make(8192);
  const CallCounter allocations(Call::kAlignedMalloc);
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM, 2);
  std::uint32_t count = kUntouched;
  ExpectOwnFailure(OSFileReadAligned(file, 511, buffer_.data(), 0xFFFFFFFF, &count), -8, "kqos");
  EXPECT_EQ(count, 0U);
  ExpectOwnFailure(OSFileReadAligned(file, 0, buffer_.data(), 0xFFFFFFFF, &count), -8, "kqos");
  ASSERT_EQ(allocations.count(), 2U);
  EXPECT_EQ(allocations.seen()[0].length, 0x100000200U);
  EXPECT_EQ(allocations.seen()[1].length, 0x100000000U);
}

// A thread that moves the file's position between seek and read changes nothing: the bytes come
// from the offset that was asked for.
TEST_F(OSFileReadAlignedTest, ReadsAtItsOwnOffsetWhereverThePositionIs) {
  const OSAlignedFile file = Make(8192);
  const ShortTransfers limit(300);
  const BeforeCall move(Call::kPread,
                        [this](const CallRecord&) { lseek(owner_->fd, 5000, SEEK_SET); });
  std::uint32_t count = 0;
  ASSERT_EQ(OSFileReadAligned(file, 512, buffer_.data(), 1024, &count).status, 0);
  ExpectBytes(0, 512, 1024);
  ASSERT_EQ(OSFileReadAligned(file, 513, buffer_.data(), 1024, &count).status, 0);
  ExpectBytes(0, 513, 1024);
}

TEST_F(OSFileReadAlignedTest, ThreadsOnOneFileGetTheirOwnBytes) {
  const OSAlignedFile file = Make(65536);
  std::vector<std::thread> threads;
  for (unsigned id = 0; id < 4; ++id) {
    threads.emplace_back([this, &file, id] {
      std::mt19937 random(id);
      Bytes own(3000);
      for (int i = 0; i < 500; ++i) {
        const std::uint64_t offset = random() % 60000;
        const auto length = static_cast<std::uint32_t>(1 + random() % 3000);
        std::uint32_t count = 0;
        ASSERT_EQ(OSFileReadAligned(file, offset, own.data(), length, &count).status, 0);
        ASSERT_TRUE(std::equal(own.begin(), own.begin() + length,
                               content_.begin() + static_cast<std::ptrdiff_t>(offset)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
