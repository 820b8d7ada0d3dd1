// The allocator of this program and of every library in it.
#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/faults/call_faults.h"

// The allocator behind: the C library's, or that of the address sanitizer.
#ifdef KQ_SANITIZED
#define KQ_BEHIND(name) __asm__("__interceptor_" #name)
#else
#define KQ_BEHIND(name) __asm__("__libc_" #name)
#endif
extern "C" {
void* MallocBehind(std::size_t size) KQ_BEHIND(malloc);
void* MemalignBehind(std::size_t alignment, std::size_t size) KQ_BEHIND(memalign);
void FreeBehind(void* memory) KQ_BEHIND(free);
}

namespace {

// The library reads straight into a buffer that lies well, and through another one otherwise. So
// that a run makes the same allocations as the one before, every buffer lies well that is large
// enough for a sector.
void* Allocate(std::size_t size) {
  constexpr std::size_t kBlockBytes = 128;
  return size < kBlockBytes ? MallocBehind(size) : MemalignBehind(kBlockBytes, size);
}

}  // namespace

// The project hides its symbols by default; these must be seen by the shared library.
#define KQ_SEEN_BY_ALL __attribute__((visibility("default")))

extern "C" {

KQ_SEEN_BY_ALL void* malloc(std::size_t size) {
  if (kqtest::AllocationFails()) return nullptr;
  void* const made = Allocate(size);
  kqtest::NoteAllocated(made, size);
  return made;
}

KQ_SEEN_BY_ALL void* calloc(std::size_t count, std::size_t size) {
  if (kqtest::AllocationFails()) return nullptr;
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return nullptr;
  void* const made = Allocate(bytes);
  kqtest::NoteAllocated(made, bytes);
  return made == nullptr ? nullptr : std::memset(made, 0, bytes);
}

KQ_SEEN_BY_ALL void* realloc(void* memory, std::size_t size) {
  if (kqtest::AllocationFails()) return nullptr;
  // Always moves, so that whoever keeps a pointer to the old place is found out.
  void* const made = Allocate(size);
  if (made == nullptr) return nullptr;
  kqtest::NoteAllocated(made, size);
  if (memory != nullptr) {
    const std::size_t held = malloc_usable_size(memory);
    std::memcpy(made, memory, held < size ? held : size);
    std::free(memory);
  }
  return made;
}

KQ_SEEN_BY_ALL int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  if (kqtest::AllocationFails()) return ENOMEM;
  void* const made = MemalignBehind(alignment, size);
  if (made == nullptr) return ENOMEM;
  kqtest::NoteAllocated(made, size);
  *memory = made;
  return 0;
}

KQ_SEEN_BY_ALL void* aligned_alloc(std::size_t alignment, std::size_t size) {
  void* made = nullptr;
  if (posix_memalign(&made, alignment, size) != 0) return nullptr;
  return made;
}

KQ_SEEN_BY_ALL void free(void* memory) {
  kqtest::NoteFreed(memory);
  FreeBehind(memory);
}

}  // extern "C"

#ifdef KQ_SANITIZED
// The sanitizer has operators of its own, which know nothing of the above. Leaks are counted here,
// and some are meant; freed memory need not be kept from use for long.
KQ_SEEN_BY_ALL void* operator new(std::size_t size) {
  void* const made = std::malloc(size);
  if (made == nullptr) throw std::bad_alloc();
  return made;
}
KQ_SEEN_BY_ALL void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}
KQ_SEEN_BY_ALL void operator delete(void* memory) noexcept { std::free(memory); }
KQ_SEEN_BY_ALL void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

extern "C" KQ_SEEN_BY_ALL const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:quarantine_size_mb=16:allocator_may_return_null=1";
}
#endif
