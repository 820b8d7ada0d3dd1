#include "foundation/system_calls_test.h"

#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>

namespace kqtest {
namespace {

struct Plan {
  int error;
  int passesLeft;
  int failuresLeft;
  int failures;
  BeforeCall::Action* action;
};

constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};

thread_local constinit std::array<Plan, static_cast<std::size_t>(Call::kCount)> plans{};
thread_local constinit std::uint64_t transferLimit = kNoLimit;

Plan& PlanOf(Call call) { return plans[static_cast<std::size_t>(call)]; }

// Whether this call has to fail; errno is set then.
bool Intercept(const CallRecord& record) {
  Plan& plan = PlanOf(record.call);
  if (plan.action != nullptr) {
    // What the action itself calls goes through.
    BeforeCall::Action* action = plan.action;
    plan.action = nullptr;
    (*action)(record);
    plan.action = action;
  }
  if (plan.failuresLeft == 0) return false;
  if (plan.passesLeft > 0) {
    --plan.passesLeft;
    return false;
  }
  --plan.failuresLeft;
  ++plan.failures;
  errno = plan.error;
  return true;
}

std::uint64_t AddressOf(const void* pointer) { return reinterpret_cast<std::uintptr_t>(pointer); }

std::size_t Limited(std::size_t length) {
  return static_cast<std::size_t>(std::min<std::uint64_t>(length, transferLimit));
}

}  // namespace

FailingCall::FailingCall(Call call, int error, int times, int after) : call_(call) {
  Plan& plan = PlanOf(call);
  plan.error = error;
  plan.passesLeft = after;
  plan.failuresLeft = times;
  plan.failures = 0;
}
FailingCall::~FailingCall() { PlanOf(call_).failuresLeft = 0; }
int FailingCall::failures() const { return PlanOf(call_).failures; }

ShortTransfers::ShortTransfers(std::uint64_t maxBytes) { transferLimit = maxBytes; }
ShortTransfers::~ShortTransfers() { transferLimit = kNoLimit; }

BeforeCall::BeforeCall(Call call, Action action) : call_(call) {
  PlanOf(call).action = new Action(std::move(action));
}
BeforeCall::~BeforeCall() {
  Action* action = PlanOf(call_).action;
  PlanOf(call_).action = nullptr;
  delete action;
}

}  // namespace kqtest

using kqtest::AddressOf;
using kqtest::Call;
using kqtest::Intercept;
using kqtest::Limited;

// The linker sends the program's calls to the __wrap_ names, and __real_ ones to the system.
extern "C" {

int __real_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (Intercept({.call = Call::kOpen, .flags = static_cast<std::uint64_t>(flags), .mode = mode})) {
    return -1;
  }
  return __real_open64(path, flags, mode);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) { return Intercept({.call = Call::kClose}) ? -1 : __real_close(fd); }

int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation);
int __wrap_flock(int fd, int operation) {
  const bool fails =
      Intercept({.call = Call::kFlock, .flags = static_cast<std::uint64_t>(operation)});
  return fails ? -1 : __real_flock(fd, operation);
}

ssize_t __real_read(int fd, void* buffer, std::size_t length);
ssize_t __wrap_read(int fd, void* buffer, std::size_t length);
ssize_t __wrap_read(int fd, void* buffer, std::size_t length) {
  const bool fails =
      Intercept({.call = Call::kRead, .address = AddressOf(buffer), .length = length});
  return fails ? -1 : __real_read(fd, buffer, Limited(length));
}

ssize_t __real_pread64(int fd, void* buffer, std::size_t length, off64_t offset);
ssize_t __wrap_pread64(int fd, void* buffer, std::size_t length, off64_t offset);
ssize_t __wrap_pread64(int fd, void* buffer, std::size_t length, off64_t offset) {
  const bool fails = Intercept(
      {.call = Call::kPread, .address = AddressOf(buffer), .length = length, .offset = offset});
  return fails ? -1 : __real_pread64(fd, buffer, Limited(length), offset);
}

ssize_t __real_write(int fd, const void* buffer, std::size_t length);
ssize_t __wrap_write(int fd, const void* buffer, std::size_t length);
ssize_t __wrap_write(int fd, const void* buffer, std::size_t length) {
  const bool fails =
      Intercept({.call = Call::kWrite, .address = AddressOf(buffer), .length = length});
  return fails ? -1 : __real_write(fd, buffer, Limited(length));
}

off64_t __real_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
  return Intercept({.call = Call::kSeek, .offset = offset}) ? -1
                                                            : __real_lseek64(fd, offset, whence);
}

int __real_fstat64(int fd, struct stat64* found);
int __wrap_fstat64(int fd, struct stat64* found);
int __wrap_fstat64(int fd, struct stat64* found) {
  return Intercept({.call = Call::kFstat}) ? -1 : __real_fstat64(fd, found);
}

int __real_stat64(const char* path, struct stat64* found);
int __wrap_stat64(const char* path, struct stat64* found);
int __wrap_stat64(const char* path, struct stat64* found) {
  return Intercept({.call = Call::kStat}) ? -1 : __real_stat64(path, found);
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path);
int __wrap_unlink(const char* path) {
  return Intercept({.call = Call::kUnlink}) ? -1 : __real_unlink(path);
}

int __real_nanosleep(const timespec* time, timespec* left);
int __wrap_nanosleep(const timespec* time, timespec* left);
int __wrap_nanosleep(const timespec* time, timespec* left) {
  const auto nanoseconds = static_cast<std::uint64_t>(time->tv_sec) * 1'000'000'000 +
                           static_cast<std::uint64_t>(time->tv_nsec);
  const bool fails = Intercept({.call = Call::kNanosleep, .length = nanoseconds});
  return fails ? -1 : __real_nanosleep(time, left);
}

void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
  return Intercept({.call = Call::kMalloc, .length = size}) ? nullptr : __real_malloc(size);
}

void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size) {
  const bool fails = Intercept({.call = Call::kCalloc, .length = count * size});
  return fails ? nullptr : __real_calloc(count, size);
}

int __real_posix_memalign(void** memory, std::size_t alignment, std::size_t size);
int __wrap_posix_memalign(void** memory, std::size_t alignment, std::size_t size);
int __wrap_posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  const bool fails = Intercept({.call = Call::kAlignedMalloc, .length = size, .flags = alignment});
  return fails ? errno : __real_posix_memalign(memory, alignment, size);
}

void __real_free(void* memory);
void __wrap_free(void* memory);
void __wrap_free(void* memory) {
  static_cast<void>(Intercept({.call = Call::kFree, .address = AddressOf(memory)}));
  __real_free(memory);
}

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  const bool fails = Intercept({.call = Call::kMutexLock, .address = AddressOf(mutex)});
  return fails ? errno : __real_pthread_mutex_lock(mutex);
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  const bool fails = Intercept({.call = Call::kMutexInit, .address = AddressOf(mutex)});
  return fails ? errno : __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes);
int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes);
int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) {
  const bool fails = Intercept({.call = Call::kConditionInit, .address = AddressOf(condition)});
  return fails ? errno : __real_pthread_cond_init(condition, attributes);
}

}  // extern "C"
