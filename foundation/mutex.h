// The one lock type, with the annotations that clang's -Wthread-safety checks.
//
// Order of locks: a handle's mutex first, then any one of openFilesMutex, chunkCacheMutex,
// chunkHeaderCacheMutex, compressorMutex and timeZoneMutex, never two of these five at once.
// objmgrMutex is never held together with a handle's mutex. The caches' mutexes are held for list
// work only, never across a read, a decode or a copy; compressorMutex is held across the decoding
// of one chunk of compression type 6, timeZoneMutex across the look at the zone for one stamp.
#ifndef KQ_FOUNDATION_MUTEX_H
#define KQ_FOUNDATION_MUTEX_H

#include <pthread.h>

#if defined(__clang__)
#define KQ_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KQ_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KQ_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KQ_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KQ_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KQ_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) KQ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KQ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KQ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KQ_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) KQ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) KQ_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KQ_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace kq {

class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  // Not destroyed: it holds nothing but its bytes, and with a trivial destructor the process-wide
  // locks stay usable while the process exits, when the library's finish routine runs after the
  // destructors of static objects.
  ~Mutex() = default;

  void Lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
  void Unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }
  // For callers that must report a lock that could not be taken.
  [[nodiscard]] bool LockChecked() TRY_ACQUIRE(true) { return pthread_mutex_lock(&mutex_) == 0; }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() RELEASE() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace kq

#endif
