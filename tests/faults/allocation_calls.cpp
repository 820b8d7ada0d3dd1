// The allocator of this program and of every library in it.
#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/faults/call_faults.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}

// The project hides its symbols by default; these must be seen by the shared library.
#define KQ_SEEN_BY_ALL __attribute__((visibility("default")))

extern "C" {

KQ_SEEN_BY_ALL void* malloc(std::size_t size) {
  if (kqtest::AllocationFails()) return nullptr;
  void* const made = __libc_malloc(size);
  kqtest::NoteAllocated(made, size);
  return made;
}

KQ_SEEN_BY_ALL void* calloc(std::size_t count, std::size_t size) {
  if (kqtest::AllocationFails()) return nullptr;
  void* const made = __libc_calloc(count, size);
  kqtest::NoteAllocated(made, 0);  // it stays zero
  return made;
}

KQ_SEEN_BY_ALL void* realloc(void* memory, std::size_t size) {
  if (kqtest::AllocationFails()) return nullptr;
  // Always moves, so that whoever keeps a pointer to the old place is found out.
  void* const made = __libc_malloc(size);
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
  void* const made = __libc_memalign(alignment, size);
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
  __libc_free(memory);
}

}  // extern "C"
