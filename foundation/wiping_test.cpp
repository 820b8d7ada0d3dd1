// What is overwritten when memory that held secrets goes, and when a read fails.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "foundation/memory.h"
#include "foundation/os_file.h"
#include "foundation/system_calls_test.h"
#include "tests/support/temp_dir.h"

namespace {

using kq::HeapBuffer;
using kqtest::BeforeCall;
using kqtest::Call;
using kqtest::CallRecord;
using kqtest::FailingCall;

std::vector<std::uint8_t> Filled(std::size_t size) {
  return std::vector<std::uint8_t>(size, std::uint8_t{0x5A});
}

// How many bytes of a block are zero in the moment it is freed, counted from its start.
class WipedBytes {
 public:
  explicit WipedBytes(const HeapBuffer& buffer) : block_(buffer.data()), size_(buffer.size()) {}

  std::optional<std::size_t> count() const { return count_; }

 private:
  const std::uint8_t* block_;
  std::size_t size_;
  std::optional<std::size_t> count_;
  BeforeCall hook_{
      Call::kFree, [this](const CallRecord& record) {
        if (record.address != reinterpret_cast<std::uintptr_t>(block_)) return;
        count_ = static_cast<std::size_t>(
            std::find_if(block_, block_ + size_, [](auto b) { return b != 0; }) - block_);
      }};
};

HeapBuffer FilledBuffer(std::size_t size) {
  HeapBuffer buffer = HeapBuffer::Allocate(size);
  std::memset(buffer.data(), 0x5A, size);
  return buffer;
}

TEST(HeapBufferWipeWhenFreed, WipesTheFirstBytesAndNoMore) {
  for (const std::size_t secret : {0U, 1U, 70U, 100U}) {
    HeapBuffer buffer = FilledBuffer(100);
    buffer.WipeWhenFreed(secret);
    EXPECT_EQ(buffer.data()[0], 0x5A);
    const WipedBytes wiped(buffer);
    buffer.Reset();
    EXPECT_EQ(wiped.count(), secret);
  }
}

TEST(HeapBufferWipeWhenFreed, EndsAtTheBuffersEnd) {
  HeapBuffer buffer = FilledBuffer(100);
  buffer.WipeWhenFreed(SIZE_MAX);
  const WipedBytes wiped(buffer);
  buffer.Reset();
  EXPECT_EQ(wiped.count(), 100U);
}

TEST(HeapBufferWipeWhenFreed, GoesWithTheMemoryToItsNextOwner) {
  HeapBuffer secret = FilledBuffer(100);
  secret.WipeWhenFreed(40);
  HeapBuffer owner = FilledBuffer(100);
  {
    const WipedBytes wiped(owner);
    owner = std::move(secret);
    EXPECT_EQ(wiped.count(), 0U);
  }
  {
    const WipedBytes wiped(owner);
    owner = FilledBuffer(100);
    EXPECT_EQ(wiped.count(), 40U);
  }
  const WipedBytes wiped(owner);
  owner.Reset();
  EXPECT_EQ(wiped.count(), 0U);
}

class WipedReadTest : public testing::Test {
 protected:
  WipedReadTest() {
    kqtest::WriteFile(dir_.Path("file"), Filled(10000));
    kq::OSFile* opened = nullptr;
    EXPECT_EQ(kq::OSFileOpen(dir_.Path("file").c_str(), O_RDONLY, 0, &opened).status, 0);
    file_.reset(opened);
  }

  kqtest::TempDir dir_;
  kq::OSFileOwner file_;
};

TEST_F(WipedReadTest, AlignedReadThatFailsHalfwayTakesBackWhatHasCome) {
  HeapBuffer buffer = HeapBuffer::AllocateAlignedZeroed(4096, 4096);
  const kqtest::ShortTransfers pieces(1000);
  const FailingCall failing(Call::kPread, EIO, 1, 2);
  std::uint32_t count = 0;
  EXPECT_NE(kq::OSFileReadAligned({file_.get(), 512}, 0, buffer.data(), 4096, &count).status, 0);
  EXPECT_EQ(failing.failures(), 1);
  EXPECT_TRUE(std::all_of(buffer.bytes().begin(), buffer.bytes().end(),
                          [](std::uint8_t byte) { return byte == 0; }));
}

TEST_F(WipedReadTest, BounceBufferIsWipedAsFarAsItWasRead) {
  struct Case {
    std::uint64_t offset;
    std::size_t held;  // bytes of the two or more blocks around the range that the file holds
  };
  for (const Case& read : {Case{1, 1024}, Case{9000, 1024}, Case{9800, 272}}) {
    std::optional<std::ptrdiff_t> left;
    const BeforeCall hook(Call::kFree, [&](const CallRecord& record) {
      const auto* block = reinterpret_cast<const std::uint8_t*>(record.address);
      if (record.address % 4096 == 0) left = std::count(block, block + read.held, 0x5A);
    });
    std::uint8_t buffer[700];
    std::uint32_t count = 0;
    const bool whole =
        kq::OSFileReadAligned({file_.get(), 512}, read.offset, buffer, sizeof buffer, &count)
            .status == 0;
    EXPECT_EQ(whole, read.held == 1024) << read.offset;
    EXPECT_EQ(left, 0) << read.offset;
  }
}

}  // namespace
