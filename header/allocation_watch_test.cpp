#include "header/allocation_watch_test.h"

#include <malloc.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

thread_local int allocationsLeft = -1;  // negative: none fails
thread_local bool allocationFailed = false;
thread_local bool watching = false;
thread_local kqtest::BeforeFree::Action beforeFree;

bool FailsNow() {
  if (allocationsLeft < 0 || allocationsLeft-- > 0) return false;
  allocationFailed = true;
  return true;
}

void* Clean(void* memory) {
  if (watching && memory != nullptr) std::memset(memory, 0, malloc_usable_size(memory));
  return memory;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
int __real_posix_memalign(void** memory, std::size_t alignment, std::size_t size);
void __real_free(void* memory);

void* __wrap_malloc(std::size_t size) { return FailsNow() ? nullptr : Clean(__real_malloc(size)); }
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return FailsNow() ? nullptr : Clean(__real_calloc(count, size));
}
int __wrap_posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  if (FailsNow()) return ENOMEM;
  const int error = __real_posix_memalign(memory, alignment, size);
  if (error == 0) Clean(*memory);
  return error;
}
void __wrap_free(void* memory) {
  if (watching && memory != nullptr) {
    beforeFree({static_cast<const std::uint8_t*>(memory), malloc_usable_size(memory)});
  }
  __real_free(memory);
}
}

namespace kqtest {

FailingAllocation::FailingAllocation(int after) {
  allocationFailed = false;
  allocationsLeft = after;
}
FailingAllocation::~FailingAllocation() { allocationsLeft = -1; }
bool FailingAllocation::happened() const { return allocationFailed; }

BeforeFree::BeforeFree(Action action) {
  beforeFree = std::move(action);
  watching = true;
}
BeforeFree::~BeforeFree() {
  watching = false;
  beforeFree = nullptr;
}

}  // namespace kqtest
