#include "foundation/memory.h"

#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace kq {
namespace {

// malloc may answer a request for 0 bytes with null, which would read as a failure.
std::size_t AtLeastOne(std::size_t size) { return std::max<std::size_t>(size, 1); }

constexpr std::size_t kLargePage = 0x200000;
constexpr std::size_t kLarge = 2 * kLargePage;

void* AllocateAlignedMemory(std::size_t alignment, std::size_t size) {
  const bool isLarge = size >= kLarge;
  // What is left of the size behind the last large page becomes one more if it fills half of it.
  const std::size_t largePages = isLarge ? (size + kLargePage / 2) / kLargePage * kLargePage : 0;
  void* memory = nullptr;
  if (posix_memalign(&memory, isLarge ? std::max(alignment, kLargePage) : alignment,
                     std::max(AtLeastOne(size), largePages)) != 0) {
    return nullptr;
  }
  // Advice: a system without large pages goes on with small ones.
  if (isLarge) madvise(memory, largePages, MADV_HUGEPAGE);
  return memory;
}

}  // namespace

void* AllocateTable(std::size_t size) {
  return size >= kLarge ? AllocateAlignedMemory(kLargePage, size) : std::malloc(AtLeastOne(size));
}

HeapBuffer HeapBuffer::Allocate(std::size_t size) {
  return HeapBuffer(std::malloc(AtLeastOne(size)), size);
}

HeapBuffer HeapBuffer::AllocateZeroed(std::size_t size) {
  return HeapBuffer(std::calloc(AtLeastOne(size), 1), size);
}

HeapBuffer HeapBuffer::AllocateAligned(std::size_t alignment, std::size_t size) {
  return HeapBuffer(AllocateAlignedMemory(alignment, size), size);
}

HeapBuffer HeapBuffer::AllocateAlignedZeroed(std::size_t alignment, std::size_t size) {
  HeapBuffer buffer = AllocateAligned(alignment, size);
  if (buffer) std::memset(buffer.data(), 0, size);
  return buffer;
}

void Wipe(void* memory, std::size_t size) { explicit_bzero(memory, size); }

SecretBuffer SecretBuffer::AllocateZeroed(std::size_t size) {
  return SecretBuffer(HeapBuffer::AllocateZeroed(size));
}

SecretBuffer SecretBuffer::CopyOf(const void* data, std::size_t size) {
  SecretBuffer secret(HeapBuffer::Allocate(size));
  if (secret && size != 0) std::memcpy(secret.data(), data, size);
  return secret;
}

SecretBuffer SecretBuffer::CopyOfString(const char* text) {
  return CopyOf(text, std::strlen(text) + 1);
}

}  // namespace kq
