// Every allocation of opening, reading and closing a chain fails once. The call that needed it then
// answers -8 and leaves nothing behind; leaks show under the address sanitizer. The linker sends
// the library's allocations here (CMakeLists.txt).
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "image/allocation_calls_test.h"
#include "image/chain_test_support.h"
#include "image/image_room.h"

namespace {

thread_local int allocationsLeft = -1;  // negative: none fails
thread_local bool allocationFailed = false;
thread_local std::function<void()>* beforeNext = nullptr;

bool FailsNow() {
  if (beforeNext != nullptr) {
    const std::function<void()>* const action = std::exchange(beforeNext, nullptr);
    (*action)();
  }
  if (allocationsLeft < 0 || allocationsLeft-- > 0) return false;
  allocationFailed = true;
  return true;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
int __real_posix_memalign(void** memory, std::size_t alignment, std::size_t size);

void* __wrap_malloc(std::size_t size) { return FailsNow() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return FailsNow() ? nullptr : __real_calloc(count, size);
}
int __wrap_posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  return FailsNow() ? ENOMEM : __real_posix_memalign(memory, alignment, size);
}
}

namespace kqtest {

BeforeNextAllocation::BeforeNextAllocation(std::function<void()> action)
    : action_(std::move(action)) {
  beforeNext = &action_;
}
BeforeNextAllocation::~BeforeNextAllocation() { beforeNext = nullptr; }

}  // namespace kqtest

namespace kq {
namespace {

class ChainAllocationTest : public ::testing::Test {
 protected:
  ImageFolder folder_;

  void SetUp() override { ImageRoomStart(Configuration()); }
  void TearDown() override { ImageRoomStart(Configuration()); }

  // Returns how often a call was refused.
  static int FailEachAllocation(const std::string& files, const char* password,
                                const Bytes& expected) {
    int refused = 0;
    bool failed = true;
    for (int before = 0; failed; ++before) {
      SCOPED_TRACE(before);
      Bytes buffer(expected.size(), 0xAA);
      std::uint32_t count = 7;
      std::uint64_t handle = 7;
      KQStatus read{};
      allocationFailed = false;
      allocationsLeft = before;
      const KQStatus opened = KQImageFilesOpen(files.c_str(), password, 0, &handle);
      if (opened.status == 0) {
        read = KQImageFilesRead(handle, 0, buffer.data(), static_cast<std::uint32_t>(buffer.size()),
                                &count);
        EXPECT_EQ(KQImageFilesClose(handle, nullptr, nullptr, 0).status, 0);
      }
      allocationsLeft = -1;
      failed = allocationFailed;
      EXPECT_EQ(OpenFileCount(), 0u);
      if (opened.status != 0) {
        ++refused;
        // The key set-up has one word for all that may fail in it.
        EXPECT_TRUE(opened.status == -8 || (password != nullptr && opened.status == -86))
            << opened.status;
        EXPECT_EQ(handle, 0u);
      } else if (read.status != 0) {
        ++refused;
        EXPECT_EQ(read.status, -8);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(buffer, Bytes(expected.size()));
      } else {
        EXPECT_EQ(count, expected.size());
        EXPECT_EQ(buffer, expected);
      }
    }
    return refused;
  }
};

TEST_F(ChainAllocationTest, EachFailureIsToldAndLeavesNothing) {
  for (const std::uint32_t compression : {0u, 5u, 6u}) {
    ImageSpec base;
    base.header.compressionType = compression;
    Bytes expected(64 * 512, 'x');
    base.chunks = {compression == 5 ? StreamChunk({{0, 64}}, kqtest::LzoFrame(expected))
                                    : RawChunk({{0, 64}}, expected)};
    ImageSpec next;
    next.header = kqtest::IncrementOf(base.header, kqtest::MakeId(2));
    // More pieces than a list holds without an allocation.
    std::vector<VolumeRun> runs;
    for (std::uint64_t i = 0; i < 30; ++i) runs.push_back({i * 1024, 1});
    const Bytes data = PatternBytes(1, 30 * 512);
    next.chunks = {RawChunk(runs, data)};
    for (std::size_t i = 0; i < 30; ++i) {
      kqtest::SetBytes(&expected, i * 1024, Slice(data, i * 512, 512));
    }
    EXPECT_GE(FailEachAllocation(folder_.Write("a", base) + "|" + folder_.Write("b", next), nullptr,
                                 expected),
              15);
  }
}

TEST_F(ChainAllocationTest, EachFailureWithAnEncipheredImageIsTold) {
  ImageSpec spec;
  spec.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 2048))};
  kqtest::EncipherImage(&spec, 4, "password");
  EXPECT_GE(FailEachAllocation(folder_.Write("a", spec), "password", PatternBytes(1, 2048)), 10);
}

}  // namespace
}  // namespace kq
