#include "foundation/mutex.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <type_traits>
#include <vector>

#include "foundation/system_calls_test.h"

namespace {

// Process-wide locks are there before any code runs, and stay usable until the last.
constinit kq::Mutex processWide;
static_assert(std::is_trivially_destructible_v<kq::Mutex>);
static_assert(!std::is_copy_constructible_v<kq::Mutex>);

bool IsFree(kq::Mutex& mutex) {
  bool free = false;
  std::thread([&mutex, &free]() NO_THREAD_SAFETY_ANALYSIS {
    // kq::Mutex has no trylock: the library never needs one.
    auto* native = reinterpret_cast<pthread_mutex_t*>(&mutex);
    free = pthread_mutex_trylock(native) == 0;
    if (free) pthread_mutex_unlock(native);
  }).join();
  return free;
}

TEST(MutexLock, HoldsTheMutexForItsScope) {
  kq::Mutex mutex;
  {
    const kq::MutexLock lock(mutex);
    EXPECT_FALSE(IsFree(mutex));
  }
  EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, LockCheckedTellsWhetherTheLockWasTaken) {
  kq::Mutex mutex;
  if (mutex.LockChecked()) {
    EXPECT_FALSE(IsFree(mutex));
    mutex.Unlock();
  } else {
    ADD_FAILURE() << "a free mutex was refused";
  }
  const kqtest::FailingCall failing(kqtest::Call::kMutexLock, EINVAL);
  if (mutex.LockChecked()) {
    ADD_FAILURE() << "a failed lock went unnoticed";
    mutex.Unlock();
  }
}

TEST(Mutex, OneThreadAtATimeIsInside) {
  int counter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&counter] {
      for (int n = 0; n < 2000; ++n) {
        const kq::MutexLock lock(processWide);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, 8000);
}

}  // namespace
