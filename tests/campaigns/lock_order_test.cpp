// That the watch on the order of locks sees each violation. What it watches in the library is in
// threads_test.cpp.
#include "tests/campaigns/lock_order.h"

#include <gtest/gtest.h>

#include <memory>

#include "foundation/mutex.h"

namespace kqtest {
namespace {

// This program stands for the library here.
kq::Mutex manager;
kq::Mutex cacheLock;
kq::Mutex otherCacheLock;

class LockOrder : public testing::Test {
 protected:
  void SetUp() override {
    WatchLocks(&manager, [] { const kq::MutexLock lock(manager); });
  }

  std::unique_ptr<kq::Mutex> handle_ = std::make_unique<kq::Mutex>();
};

void ExpectViolations(const LockReport& report, std::size_t twoLibraryLocks,
                      std::size_t handleUnderLibrary, std::size_t managerUnderHandle) {
  EXPECT_EQ(report.twoLibraryLocks, twoLibraryLocks);
  EXPECT_EQ(report.handleUnderLibrary, handleUnderLibrary);
  EXPECT_EQ(report.managerUnderHandle, managerUnderHandle);
}

TEST_F(LockOrder, HandleThenOneLibraryLockIsGood) {
  {
    const kq::MutexLock first(*handle_);
    { const kq::MutexLock second(cacheLock); }
    const kq::MutexLock third(otherCacheLock);
  }
  { const kq::MutexLock alone(manager); }
  const LockReport report = EndOfWatch();
  ExpectViolations(report, 0, 0, 0);
  EXPECT_EQ(report.libraryLocks, 3u);
  EXPECT_EQ(report.nested, 2u);
}

TEST_F(LockOrder, TwoLibraryLocksAtOnceAreSeen) {
  {
    const kq::MutexLock first(cacheLock);
    const kq::MutexLock second(otherCacheLock);
  }
  ExpectViolations(EndOfWatch(), 1, 0, 0);
}

TEST_F(LockOrder, HandleUnderALibraryLockIsSeen) {
  {
    const kq::MutexLock first(cacheLock);
    const kq::MutexLock second(*handle_);
  }
  ExpectViolations(EndOfWatch(), 0, 1, 0);
}

TEST_F(LockOrder, ManagerUnderAHandleIsSeen) {
  {
    const kq::MutexLock first(*handle_);
    const kq::MutexLock second(manager);
  }
  ExpectViolations(EndOfWatch(), 0, 0, 1);
}

TEST_F(LockOrder, HandleUnderTheManagerIsSeen) {
  {
    const kq::MutexLock first(manager);
    const kq::MutexLock second(*handle_);
  }
  ExpectViolations(EndOfWatch(), 0, 1, 0);
}

}  // namespace
}  // namespace kqtest
