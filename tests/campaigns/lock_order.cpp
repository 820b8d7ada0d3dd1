#include "tests/campaigns/lock_order.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>

namespace kqtest {
namespace {

// All of it without a lock and without memory of the heap: it runs within every lock. And relaxed,
// so that it orders nothing between threads: the thread sanitizer would take what passes here for
// an order of the library's own.
constexpr auto kRelaxed = std::memory_order_relaxed;

struct Watch {
  std::atomic<bool> on{false};
  std::atomic<std::uintptr_t> begin{0};  // of the library's memory
  std::atomic<std::uintptr_t> end{0};
  std::atomic<const void*> manager{nullptr};
  std::array<std::atomic<const void*>, 32> libraryLocks{};
  std::atomic<std::size_t> nested{0};
  std::atomic<std::size_t> twoLibraryLocks{0};
  std::atomic<std::size_t> handleUnderLibrary{0};
  std::atomic<std::size_t> managerUnderHandle{0};
};
constinit Watch watch;

struct HeldLocks {
  std::array<const void*, 32> locks{};
  std::size_t count = 0;
};
constinit thread_local HeldLocks held;

bool IsLibraryLock(const void* lock) {
  const auto address = reinterpret_cast<std::uintptr_t>(lock);
  return address >= watch.begin.load(kRelaxed) && address < watch.end.load(kRelaxed);
}

void NoteLibraryLock(const void* lock) {
  for (std::atomic<const void*>& slot : watch.libraryLocks) {
    const void* known = nullptr;
    if (slot.compare_exchange_strong(known, lock, kRelaxed) || known == lock) return;
  }
}

void Count(std::atomic<std::size_t>* counter) { counter->fetch_add(1, kRelaxed); }

void Taken(const void* lock) {
  const void* const manager = watch.manager.load(kRelaxed);
  const bool ofLibrary = IsLibraryLock(lock);
  if (ofLibrary) NoteLibraryLock(lock);
  for (std::size_t i = 0; i < held.count; ++i) {
    const bool underLibrary = IsLibraryLock(held.locks[i]);
    if (ofLibrary && underLibrary) Count(&watch.twoLibraryLocks);
    if (ofLibrary && !underLibrary) Count(&watch.nested);
    if (!ofLibrary && underLibrary) Count(&watch.handleUnderLibrary);
    if (lock == manager && !underLibrary) Count(&watch.managerUnderHandle);
  }
  if (held.count < held.locks.size()) held.locks[held.count++] = lock;
}

void GivenBack(const void* lock) {
  for (std::size_t i = held.count; i-- > 0;) {
    if (held.locks[i] != lock) continue;
    for (std::size_t j = i + 1; j < held.count; ++j) held.locks[j - 1] = held.locks[j];
    --held.count;
    return;
  }
}

using MutexCall = int (*)(pthread_mutex_t*);

MutexCall NextCall(std::atomic<MutexCall>* call, const char* name) {
  MutexCall next = call->load(kRelaxed);
  if (next == nullptr) {
    next = reinterpret_cast<MutexCall>(dlsym(RTLD_NEXT, name));
    call->store(next, kRelaxed);
  }
  return next;
}
constinit std::atomic<MutexCall> nextLock{nullptr};
constinit std::atomic<MutexCall> nextUnlock{nullptr};

struct Segment {
  std::uintptr_t address = 0;
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

// The library's writable memory, if the address lies anywhere in it.
int FindSegment(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  auto* const wanted = static_cast<Segment*>(data);
  bool inside = false;
  Segment writable;
  for (std::size_t i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD) continue;
    const std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
    const std::uintptr_t end = begin + header.p_memsz;
    if (wanted->address >= begin && wanted->address < end) inside = true;
    if ((header.p_flags & PF_W) != 0) writable = {0, begin, end};
  }
  if (!inside) return 0;
  wanted->begin = writable.begin;
  wanted->end = writable.end;
  return 1;
}

}  // namespace

void WatchLocks(const void* inLibrary, const std::function<void()>& takeManager) {
  Segment segment{.address = reinterpret_cast<std::uintptr_t>(inLibrary)};
  EXPECT_EQ(dl_iterate_phdr(FindSegment, &segment), 1);
  watch.begin = segment.begin;
  watch.end = segment.end;
  watch.manager = nullptr;
  for (auto& slot : watch.libraryLocks) slot = nullptr;
  watch.nested = watch.twoLibraryLocks = watch.handleUnderLibrary = watch.managerUnderHandle = 0;
  watch.on = true;
  takeManager();
  watch.manager = watch.libraryLocks[0].load();
  EXPECT_NE(watch.manager, nullptr);
  EXPECT_EQ(watch.libraryLocks[1], nullptr) << "more than the object manager's lock";
}

LockReport EndOfWatch() {
  watch.on = false;
  LockReport report{.nested = watch.nested,
                    .twoLibraryLocks = watch.twoLibraryLocks,
                    .handleUnderLibrary = watch.handleUnderLibrary,
                    .managerUnderHandle = watch.managerUnderHandle};
  for (const auto& slot : watch.libraryLocks) report.libraryLocks += slot != nullptr ? 1 : 0;
  return report;
}

}  // namespace kqtest

// The library's calls come here, and go on to the C library or the thread sanitizer's part before
// it.
extern "C" {

__attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  // Entered before it is waited for: the order counts, also where nobody waits.
  if (kqtest::watch.on.load(kqtest::kRelaxed)) kqtest::Taken(mutex);
  return kqtest::NextCall(&kqtest::nextLock, "pthread_mutex_lock")(mutex);
}

__attribute__((visibility("default"))) int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  if (kqtest::watch.on.load(kqtest::kRelaxed)) kqtest::GivenBack(mutex);
  return kqtest::NextCall(&kqtest::nextUnlock, "pthread_mutex_unlock")(mutex);
}

}  // extern "C"
