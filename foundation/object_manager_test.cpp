#include "foundation/object_manager.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/avl_table.h"
#include "foundation/system_calls_test.h"

namespace {

using kq::ObjectAcquire;
using kq::ObjectCreate;
using kq::ObjectRecord;
using kq::ObjectRelease;
using kq::ObjectTake;
using kqtest::BeforeCall;
using kqtest::Call;
using kqtest::CallCounter;
using kqtest::CallRecord;
using kqtest::FailingCall;

constexpr std::uint64_t kUntouched = 0x7777;

// A gate that threads wait at until another one opens it.
class Gate {
 public:
  void Open() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    opened_.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    opened_.wait(lock, [this] { return open_; });
  }
  bool IsOpen() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

void ExpectFailure(const KQStatus& status, int code) {
  EXPECT_EQ(status.status, code);
  EXPECT_EQ(status.detail1, 0U);
  EXPECT_EQ(status.detail2, 0U);
  EXPECT_STREQ(status.file, "objmgr");
  EXPECT_NE(status.line, 0);
}

// Every test has the handles of a fresh process.
class ObjectManagerTest : public testing::Test {
 protected:
  ObjectManagerTest() { kq::ObjectManagerStart(); }
  ~ObjectManagerTest() override { kq::ObjectManagerFinish(); }

  static std::uint64_t Create(void* object) {
    std::uint64_t handle = 0;
    EXPECT_EQ(ObjectCreate(object, &handle).status, 0);
    return handle;
  }

  static void ExpectUnknown(std::uint64_t handle) {
    for (const std::uint8_t forDelete : {std::uint8_t{0}, std::uint8_t{1}}) {
      auto* record = reinterpret_cast<ObjectRecord*>(&handle);
      void* object = &handle;
      ExpectFailure(ObjectAcquire(handle, forDelete, &record, &object), -87);
      EXPECT_EQ(record, nullptr);
      EXPECT_EQ(object, nullptr);
    }
    void* object = &handle;
    ExpectFailure(ObjectTake(handle, &object), -87);
    EXPECT_EQ(object, nullptr);
  }

  int object_ = 0;
};

TEST_F(ObjectManagerTest, FirstHandleIsOneAndEachNextIsLargerByOne) {
  for (std::uint64_t expected = 1; expected <= 100; ++expected) {
    EXPECT_EQ(Create(&object_), expected);
  }
}

TEST_F(ObjectManagerTest, HandlesAreNotReused) {
  void* taken = nullptr;
  EXPECT_EQ(Create(&object_), 1U);
  EXPECT_EQ(ObjectTake(1, &taken).status, 0);
  EXPECT_EQ(Create(&object_), 2U);
}

TEST_F(ObjectManagerTest, AcquireGivesTheObjectBehindEachHandle) {
  std::vector<int> objects(200);
  for (int& object : objects) Create(&object);
  for (std::size_t i = 0; i < objects.size(); ++i) {
    ObjectRecord* record = nullptr;
    void* object = nullptr;
    ASSERT_EQ(ObjectAcquire(i + 1, 0, &record, &object).status, 0);
    EXPECT_EQ(object, &objects[i]);
    EXPECT_NE(record, nullptr);
    EXPECT_EQ(ObjectRelease(0, record).status, 0);
  }
}

TEST_F(ObjectManagerTest, NullObjectIsAsGoodAsAnyOther) {
  const std::uint64_t handle = Create(nullptr);
  void* object = this;
  EXPECT_EQ(ObjectTake(handle, &object).status, 0);
  EXPECT_EQ(object, nullptr);
}

TEST_F(ObjectManagerTest, UnknownHandleIsInvalid) {
  ExpectUnknown(0);
  ExpectUnknown(1);
  Create(&object_);
  ExpectUnknown(0);
  ExpectUnknown(2);
  ExpectUnknown(~std::uint64_t{0});
  ExpectUnknown((std::uint64_t{1} << 32) + 1);
}

TEST_F(ObjectManagerTest, SecondTakeOfAHandleIsInvalid) {
  const std::uint64_t handle = Create(&object_);
  void* object = nullptr;
  ASSERT_EQ(ObjectTake(handle, &object).status, 0);
  EXPECT_EQ(object, &object_);
  ExpectUnknown(handle);
}

TEST_F(ObjectManagerTest, HandleIsUnknownFromTheAcquireForDeleteOn) {
  const std::uint64_t handle = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(handle, 1, &record, &object).status, 0);
  ExpectUnknown(handle);
  EXPECT_EQ(ObjectRelease(1, record).status, 0);
}

TEST_F(ObjectManagerTest, AnyNonZeroForDeleteTakesTheHandleOut) {
  const std::uint64_t handle = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(handle, 0x80, &record, &object).status, 0);
  ExpectUnknown(handle);
  EXPECT_EQ(ObjectRelease(0x80, record).status, 0);
}

TEST_F(ObjectManagerTest, FailedAllocationGivesTheNumberBack) {
  Create(&object_);
  {
    const FailingCall failing(Call::kMalloc, ENOMEM);
    std::uint64_t handle = kUntouched;
    ExpectFailure(ObjectCreate(&object_, &handle), -8);
    EXPECT_EQ(handle, 0U);
  }
  ExpectUnknown(2);
  EXPECT_EQ(Create(&object_), 2U);
}

TEST_F(ObjectManagerTest, FailedMutexTakesTheItemOutAgain) {
  Create(&object_);
  {
    const FailingCall failing(Call::kMutexInit, ENOMEM);
    const CallCounter allocations(Call::kMalloc);
    const CallCounter frees(Call::kFree);
    std::uint64_t handle = kUntouched;
    ExpectFailure(ObjectCreate(&object_, &handle), -1064);
    EXPECT_EQ(handle, 0U);
    EXPECT_EQ(allocations.count(), 1U);
    EXPECT_EQ(frees.count(), 1U);
  }
  ExpectUnknown(2);
  EXPECT_EQ(Create(&object_), 2U);
}

TEST_F(ObjectManagerTest, FailedLockAtCreateChangesNothing) {
  {
    const FailingCall failing(Call::kMutexLock, EINVAL);
    std::uint64_t handle = kUntouched;
    ExpectFailure(ObjectCreate(&object_, &handle), -1064);
    EXPECT_EQ(handle, 0U);
  }
  EXPECT_EQ(Create(&object_), 1U);
}

TEST_F(ObjectManagerTest, FailedLockAtAcquireChangesNothing) {
  const std::uint64_t handle = Create(&object_);
  for (const std::uint8_t forDelete : {std::uint8_t{0}, std::uint8_t{1}}) {
    const FailingCall failing(Call::kMutexLock, EINVAL);
    auto* record = reinterpret_cast<ObjectRecord*>(this);
    void* object = this;
    ExpectFailure(ObjectAcquire(handle, forDelete, &record, &object), -1064);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(object, nullptr);
  }
  // Neither a reference nor the handle was lost: the take doesn't wait.
  const CallCounter sleeps(Call::kNanosleep);
  void* object = nullptr;
  EXPECT_EQ(ObjectTake(handle, &object).status, 0);
  EXPECT_EQ(object, &object_);
  EXPECT_EQ(sleeps.count(), 0U);
}

TEST_F(ObjectManagerTest, FailedLockAtReleaseStillLetsGoOfTheObject) {
  const std::uint64_t handle = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(handle, 0, &record, &object).status, 0);
  {
    const FailingCall failing(Call::kMutexLock, EINVAL);
    ExpectFailure(ObjectRelease(0, record), -1064);
  }
  // The object's own lock is free: another acquire gets in.
  ASSERT_EQ(ObjectAcquire(handle, 0, &record, &object).status, 0);
  EXPECT_EQ(ObjectRelease(0, record).status, 0);
}

TEST_F(ObjectManagerTest, FailedLockAtDeletingReleaseIsReported) {
  const std::uint64_t handle = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(handle, 1, &record, &object).status, 0);
  const FailingCall failing(Call::kMutexLock, EINVAL);
  ExpectFailure(ObjectRelease(1, record), -1064);
  // The record is still there; it belongs to nobody now.
  kq::AvlFreeItem(0, kq::AvlItemOf(record));
}

TEST_F(ObjectManagerTest, TakeFreesTheRecord) {
  const CallCounter allocations(Call::kMalloc);
  const CallCounter frees(Call::kFree);
  const std::uint64_t handle = Create(&object_);
  void* object = nullptr;
  ASSERT_EQ(ObjectTake(handle, &object).status, 0);
  ASSERT_EQ(allocations.count(), 1U);
  ASSERT_EQ(frees.count(), 1U);
}

TEST_F(ObjectManagerTest, TakeWithoutOtherUsersDoesNotSleep) {
  const std::uint64_t handle = Create(&object_);
  const CallCounter sleeps(Call::kNanosleep);
  void* object = nullptr;
  ASSERT_EQ(ObjectTake(handle, &object).status, 0);
  EXPECT_EQ(sleeps.count(), 0U);
}

TEST_F(ObjectManagerTest, FinishAbandonsOpenHandlesWithoutTouchingTheirObjects) {
  std::vector<int> objects(20, 5);
  const CallCounter allocations(Call::kMalloc);
  for (int& object : objects) Create(&object);
  const CallCounter frees(Call::kFree);
  kq::ObjectManagerFinish();
  EXPECT_EQ(allocations.count(), 20U);
  EXPECT_EQ(frees.count(), 20U);
  EXPECT_EQ(objects, std::vector<int>(20, 5));
  ExpectUnknown(1);
}

TEST_F(ObjectManagerTest, StartBeginsTheNumbersAgain) {
  Create(&object_);
  Create(&object_);
  kq::ObjectManagerFinish();
  kq::ObjectManagerStart();
  EXPECT_EQ(Create(&object_), 1U);
}

// Runs in the thread that is about to wait for the object's own lock: it's the second lock that
// ObjectAcquire takes.
class BeforeObjectLock {
 public:
  explicit BeforeObjectLock(std::function<void()> action)
      : action_(std::move(action)), hook_(Call::kMutexLock, [this](const CallRecord&) {
          if (++locks_ == 2) action_();
        }) {}

 private:
  std::function<void()> action_;
  int locks_ = 0;
  BeforeCall hook_;
};

TEST_F(ObjectManagerTest, OperationsOnOneHandleRunOneAfterTheOther) {
  int counter = 0;
  const std::uint64_t handle = Create(&counter);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([handle] {
      for (int n = 0; n < 1000; ++n) {
        ObjectRecord* record = nullptr;
        void* object = nullptr;
        ASSERT_EQ(ObjectAcquire(handle, 0, &record, &object).status, 0);
        ++*static_cast<int*>(object);
        ASSERT_EQ(ObjectRelease(0, record).status, 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, 4000);
}

TEST_F(ObjectManagerTest, OperationsOnDifferentHandlesRunInParallel) {
  const std::uint64_t first = Create(&object_);
  const std::uint64_t second = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(first, 0, &record, &object).status, 0);
  // While this thread is inside the first handle, everything else goes on.
  std::thread([second] {
    ObjectRecord* otherRecord = nullptr;
    void* otherObject = nullptr;
    EXPECT_EQ(ObjectAcquire(second, 0, &otherRecord, &otherObject).status, 0);
    EXPECT_EQ(ObjectRelease(0, otherRecord).status, 0);
    std::uint64_t third = 0;
    EXPECT_EQ(ObjectCreate(otherObject, &third).status, 0);
    EXPECT_EQ(third, 3U);
    EXPECT_EQ(ObjectTake(second, &otherObject).status, 0);
    EXPECT_EQ(ObjectTake(third, &otherObject).status, 0);
  }).join();
  EXPECT_EQ(ObjectRelease(0, record).status, 0);
}

TEST_F(ObjectManagerTest, CloseWaitsForTheCallInProgress) {
  const std::uint64_t handle = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(handle, 0, &record, &object).status, 0);
  Gate closerWaits;
  Gate callHasFinished;
  std::thread closer([&] {
    void* taken = nullptr;
    const BeforeObjectLock hook([&closerWaits] { closerWaits.Open(); });
    EXPECT_EQ(ObjectTake(handle, &taken).status, 0);
    EXPECT_TRUE(callHasFinished.IsOpen());
    EXPECT_EQ(taken, &object_);
  });
  closerWaits.Wait();
  // The close has the handle out of the table already, and this call is still inside.
  ExpectUnknown(handle);
  object_ = 5;
  callHasFinished.Open();
  EXPECT_EQ(ObjectRelease(0, record).status, 0);
  closer.join();
}

// A caller that has let go of the object's lock but not yet of its reference holds the deleter up,
// in steps of 10 ms.
TEST_F(ObjectManagerTest, CloseSleepsUntilTheLastReferenceIsGone) {
  const std::uint64_t handle = Create(&object_);
  Gate inside;
  Gate closerHasTheHandle;
  Gate closerSleeps;
  std::thread caller([&] {
    ObjectRecord* record = nullptr;
    void* object = nullptr;
    ASSERT_EQ(ObjectAcquire(handle, 0, &record, &object).status, 0);
    inside.Open();
    closerHasTheHandle.Wait();
    // The only lock of the release is objmgrMutex, before the reference goes.
    const BeforeCall hold(Call::kMutexLock, [&](const CallRecord&) { closerSleeps.Wait(); });
    EXPECT_EQ(ObjectRelease(0, record).status, 0);
  });
  inside.Wait();
  std::vector<std::uint64_t> sleeps;
  {
    const BeforeObjectLock hook([&] { closerHasTheHandle.Open(); });
    const BeforeCall onSleep(Call::kNanosleep, [&](const CallRecord& call) {
      sleeps.push_back(call.length);
      closerSleeps.Open();
    });
    void* taken = nullptr;
    EXPECT_EQ(ObjectTake(handle, &taken).status, 0);
    EXPECT_EQ(taken, &object_);
  }
  ASSERT_GE(sleeps.size(), 1U);
  EXPECT_EQ(std::set<std::uint64_t>(sleeps.begin(), sleeps.end()),
            (std::set<std::uint64_t>{10'000'000}));
  caller.join();
}

TEST_F(ObjectManagerTest, ThreadThatWaitedBeforeTheCloseStillGetsItsTurn) {
  const std::uint64_t handle = Create(&object_);
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  ASSERT_EQ(ObjectAcquire(handle, 0, &record, &object).status, 0);
  Gate waiterWaits;
  Gate closerWaits;
  Gate waiterHasFinished;
  std::thread waiter([&] {
    ObjectRecord* own = nullptr;
    void* ownObject = nullptr;
    {
      const BeforeObjectLock hook([&waiterWaits] { waiterWaits.Open(); });
      ASSERT_EQ(ObjectAcquire(handle, 0, &own, &ownObject).status, 0);
    }
    ++*static_cast<int*>(ownObject);
    waiterHasFinished.Open();
    EXPECT_EQ(ObjectRelease(0, own).status, 0);
  });
  waiterWaits.Wait();
  std::thread closer([&] {
    void* taken = nullptr;
    const BeforeObjectLock hook([&closerWaits] { closerWaits.Open(); });
    EXPECT_EQ(ObjectTake(handle, &taken).status, 0);
    // Whoever of the two got the lock first: the close returns after the other's turn.
    EXPECT_TRUE(waiterHasFinished.IsOpen());
    EXPECT_EQ(*static_cast<int*>(taken), 1);
  });
  closerWaits.Wait();
  EXPECT_EQ(ObjectRelease(0, record).status, 0);
  waiter.join();
  closer.join();
}

TEST_F(ObjectManagerTest, ExactlyOneOfManyClosersGetsTheObject) {
  for (int round = 0; round < 50; ++round) {
    const std::uint64_t handle = Create(&object_);
    std::mutex resultsMutex;
    std::multiset<int> results;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        ObjectRecord* record = nullptr;
        void* object = nullptr;
        int result = 0;
        if (i % 2 == 0) {
          result = ObjectTake(handle, &object).status;
        } else if (ObjectAcquire(handle, 0, &record, &object).status == 0) {
          EXPECT_EQ(ObjectRelease(0, record).status, 0);
          return;
        } else {
          return;
        }
        const std::lock_guard<std::mutex> lock(resultsMutex);
        results.insert(result);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(results, (std::multiset<int>{-87, 0}));
  }
}

TEST_F(ObjectManagerTest, ThreadsThatCreateAndCloseNeverShareAHandle) {
  std::mutex seenMutex;
  std::set<std::uint64_t> seen;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      std::vector<std::uint64_t> own;
      int object = 0;
      for (int n = 0; n < 200; ++n) {
        own.push_back(Create(&object));
        if (n % 3 != 0) continue;
        void* taken = nullptr;
        const KQStatus status = ObjectTake(own[own.size() / 2], &taken);
        EXPECT_EQ(taken, status.status == 0 ? &object : nullptr);
      }
      const std::lock_guard<std::mutex> lock(seenMutex);
      for (const std::uint64_t handle : own) EXPECT_TRUE(seen.insert(handle).second);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen.size(), 800U);
  EXPECT_EQ(*seen.begin(), 1U);
  EXPECT_EQ(*seen.rbegin(), 800U);
}

}  // namespace
