#include "foundation/memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "foundation/system_calls_test.h"

namespace {

using kq::HeapBuffer;
using kq::SecretBuffer;
using kqtest::BeforeCall;
using kqtest::Call;
using kqtest::CallRecord;
using kqtest::FailingCall;

bool IsZero(std::span<const std::uint8_t> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0; });
}

TEST(HeapBuffer, IsEmptyUntilAllocated) {
  const HeapBuffer buffer;
  EXPECT_FALSE(buffer);
  EXPECT_EQ(buffer.data(), nullptr);
  EXPECT_EQ(buffer.size(), 0U);
}

TEST(HeapBuffer, ZeroBytesGiveAnOwnerThatIsNotEmpty) {
  for (const HeapBuffer& buffer :
       {HeapBuffer::Allocate(0), HeapBuffer::AllocateZeroed(0),
        HeapBuffer::AllocateAligned(4096, 0), HeapBuffer::AllocateAlignedZeroed(4096, 0)}) {
    EXPECT_TRUE(buffer);
    EXPECT_EQ(buffer.size(), 0U);
    EXPECT_TRUE(buffer.bytes().empty());
  }
}

TEST(HeapBuffer, AllBytesCanBeWritten) {
  HeapBuffer buffer = HeapBuffer::Allocate(1000);
  ASSERT_TRUE(buffer);
  ASSERT_EQ(buffer.bytes().size(), 1000U);
  std::fill(buffer.bytes().begin(), buffer.bytes().end(), std::uint8_t{0x5A});
  EXPECT_EQ(buffer.data()[999], 0x5A);
}

TEST(HeapBuffer, ZeroedIsZeroOnMemoryThatWasUsedBefore) {
  for (int i = 0; i < 8; ++i) {
    HeapBuffer used = HeapBuffer::AllocateAligned(4096, 5000);
    ASSERT_TRUE(used);
    std::memset(used.data(), 0xFF, used.size());
    used.Reset();
    EXPECT_FALSE(used);
    const HeapBuffer aligned = HeapBuffer::AllocateAlignedZeroed(4096, 5000);
    ASSERT_TRUE(aligned);
    EXPECT_TRUE(IsZero(aligned.bytes()));
    const HeapBuffer plain = HeapBuffer::AllocateZeroed(5000);
    ASSERT_TRUE(plain);
    EXPECT_TRUE(IsZero(plain.bytes()));
  }
}

TEST(HeapBuffer, AlignedMemoryStartsAtAMultiple) {
  for (const std::size_t alignment : {16U, 128U, 512U, 4096U}) {
    const HeapBuffer buffer = HeapBuffer::AllocateAligned(alignment, 33);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % alignment, 0U);
    EXPECT_EQ(buffer.size(), 33U);
  }
}

TEST(HeapBuffer, FailedAllocationIsEmptyWithSizeZero) {
  const FailingCall noMalloc(Call::kMalloc, ENOMEM, 1);
  const FailingCall noCalloc(Call::kCalloc, ENOMEM, 1);
  const FailingCall noAligned(Call::kAlignedMalloc, ENOMEM, 2);
  for (const HeapBuffer& buffer :
       {HeapBuffer::Allocate(10), HeapBuffer::AllocateZeroed(10),
        HeapBuffer::AllocateAligned(4096, 10), HeapBuffer::AllocateAlignedZeroed(4096, 10)}) {
    EXPECT_FALSE(buffer);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(buffer.size(), 0U);
  }
}

TEST(HeapBuffer, MovingLeavesTheSourceEmpty) {
  HeapBuffer source = HeapBuffer::Allocate(10);
  const std::uint8_t* bytes = source.data();
  HeapBuffer target(std::move(source));
  EXPECT_EQ(target.data(), bytes);
  EXPECT_EQ(target.size(), 10U);
  EXPECT_FALSE(source);
  EXPECT_EQ(source.size(), 0U);
  HeapBuffer assigned = HeapBuffer::Allocate(3);
  assigned = std::move(target);
  EXPECT_EQ(assigned.data(), bytes);
  EXPECT_EQ(assigned.size(), 10U);
  EXPECT_EQ(target.size(), 0U);
}

TEST(Wipe, OverwritesExactlyTheGivenBytes) {
  std::array<std::uint8_t, 6> bytes = {1, 2, 3, 4, 5, 6};
  kq::Wipe(bytes.data() + 1, 4);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 6>{1, 0, 0, 0, 0, 6}));
}

TEST(SecretBuffer, HoldsACopy) {
  const std::array<std::uint8_t, 4> bytes = {9, 8, 7, 6};
  const SecretBuffer copy = SecretBuffer::CopyOf(bytes.data(), bytes.size());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy.size(), 4U);
  EXPECT_NE(copy.data(), bytes.data());
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), copy.data()));
  const SecretBuffer empty = SecretBuffer::CopyOf(nullptr, 0);
  EXPECT_TRUE(empty);
  EXPECT_EQ(empty.size(), 0U);
  const SecretBuffer zeroed = SecretBuffer::AllocateZeroed(100);
  ASSERT_TRUE(zeroed);
  EXPECT_TRUE(IsZero(zeroed.bytes()));
}

TEST(SecretBuffer, StringCountsItsNul) {
  const SecretBuffer text = SecretBuffer::CopyOfString("secret");
  ASSERT_TRUE(text);
  EXPECT_EQ(text.size(), 7U);
  EXPECT_STREQ(text.text(), "secret");
  EXPECT_EQ(SecretBuffer::CopyOfString("").size(), 1U);
}

TEST(SecretBuffer, FailedAllocationIsEmpty) {
  const FailingCall noMalloc(Call::kMalloc, ENOMEM, 2);
  const FailingCall noCalloc(Call::kCalloc, ENOMEM, 1);
  EXPECT_FALSE(SecretBuffer::CopyOf("abc", 3));
  EXPECT_FALSE(SecretBuffer::CopyOfString("abc"));
  EXPECT_FALSE(SecretBuffer::AllocateZeroed(3));
}

// Looks at the memory in the moment it is freed.
class FreedMemory {
 public:
  explicit FreedMemory(const SecretBuffer& secret)
      : address_(reinterpret_cast<std::uintptr_t>(secret.data())), size_(secret.size()) {}

  bool freed() const { return freed_; }
  bool wasZero() const { return wasZero_; }

 private:
  std::uint64_t address_;
  std::size_t size_;
  bool freed_ = false;
  bool wasZero_ = false;
  BeforeCall hook_{Call::kFree, [this](const CallRecord& record) {
                     if (record.address != address_) return;
                     freed_ = true;
                     wasZero_ = IsZero({reinterpret_cast<const std::uint8_t*>(address_), size_});
                   }};
};

TEST(SecretBuffer, IsWipedBeforeItIsFreed) {
  auto secret = std::make_unique<SecretBuffer>(SecretBuffer::CopyOfString("a password"));
  const FreedMemory watch(*secret);
  secret.reset();
  EXPECT_TRUE(watch.freed());
  EXPECT_TRUE(watch.wasZero());
}

TEST(SecretBuffer, IsWipedWhenReset) {
  SecretBuffer secret = SecretBuffer::CopyOfString("a password");
  const FreedMemory watch(secret);
  secret.Reset();
  EXPECT_FALSE(secret);
  EXPECT_TRUE(watch.freed());
  EXPECT_TRUE(watch.wasZero());
}

TEST(SecretBuffer, IsWipedWhenAnotherIsMovedOntoIt) {
  SecretBuffer secret = SecretBuffer::CopyOfString("a password");
  SecretBuffer other = SecretBuffer::CopyOfString("the next one");
  const FreedMemory watch(secret);
  secret = std::move(other);
  EXPECT_TRUE(watch.freed());
  EXPECT_TRUE(watch.wasZero());
  EXPECT_STREQ(secret.text(), "the next one");
  EXPECT_FALSE(other);
}

using Table = std::unique_ptr<std::uint8_t, kq::FreeDeleter>;

Table MakeTable(std::size_t size) {
  return Table(static_cast<std::uint8_t*>(kq::AllocateTable(size)));
}

TEST(AllocateTable, AllBytesOfAnySizeCanBeWritten) {
  for (const std::size_t size : {0U, 1U, 5000U, 0x3FFFFFU, 0x400000U, 0x400001U, 0x5FFFFFU}) {
    const Table table = MakeTable(size);
    ASSERT_NE(table, nullptr) << size;
    std::memset(table.get(), 0x5A, size);
    HeapBuffer buffer = HeapBuffer::AllocateAligned(512, size);
    ASSERT_TRUE(buffer) << size;
    EXPECT_EQ(buffer.size(), size);
    std::memset(buffer.data(), 0x5A, size);
    EXPECT_TRUE(IsZero(HeapBuffer::AllocateAlignedZeroed(512, size).bytes())) << size;
  }
}

// Without that none of its pages can be large but by chance.
TEST(AllocateTable, LargeOnesBeginAtALargePage) {
  constexpr std::size_t kLargePage = 0x200000;
  for (const std::size_t size : {2 * kLargePage, 2 * kLargePage + 1, 5 * kLargePage}) {
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(MakeTable(size).get()) % kLargePage, 0U);
    const HeapBuffer buffer = HeapBuffer::AllocateAligned(512, size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % kLargePage, 0U);
  }
}

TEST(AllocateTable, IsNullWithoutMemory) {
  const FailingCall noMalloc(Call::kMalloc, ENOMEM, 1);
  const FailingCall noAligned(Call::kAlignedMalloc, ENOMEM, 1);
  EXPECT_EQ(MakeTable(100), nullptr);
  EXPECT_EQ(MakeTable(0x400000), nullptr);
}

struct Counted {
  explicit Counted(int* count) : alive(count) { ++*alive; }
  ~Counted() { --*alive; }
  int* alive;
};
struct alignas(4096) Page {
  int value = 3;
};

TEST(MakeOwned, ConstructsAndDestroys) {
  int alive = 0;
  {
    const kq::Owned<Counted> object = kq::MakeOwned<Counted>(&alive);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
}

TEST(MakeOwned, HonoursLargeAlignment) {
  const kq::Owned<Page> page = kq::MakeOwned<Page>();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(page.get()) % 4096, 0U);
  EXPECT_EQ(page->value, 3);
}

TEST(MakeOwned, FailedAllocationConstructsNothing) {
  int alive = 0;
  const FailingCall noMalloc(Call::kMalloc, ENOMEM, 1);
  const FailingCall noAligned(Call::kAlignedMalloc, ENOMEM, 1);
  EXPECT_EQ(kq::MakeOwned<Counted>(&alive), nullptr);
  EXPECT_EQ(kq::MakeOwned<Page>(), nullptr);
  EXPECT_EQ(alive, 0);
}

}  // namespace
