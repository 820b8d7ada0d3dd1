#include "foundation/memory.h"

#include <string.h>

#include <algorithm>
#include <cstring>

namespace kq {
namespace {

// malloc may answer a request for 0 bytes with null, which would read as a failure.
std::size_t AtLeastOne(std::size_t size) { return std::max<std::size_t>(size, 1); }

}  // namespace

HeapBuffer HeapBuffer::Allocate(std::size_t size) {
  return HeapBuffer(std::malloc(AtLeastOne(size)), size);
}

HeapBuffer HeapBuffer::AllocateZeroed(std::size_t size) {
  return HeapBuffer(std::calloc(AtLeastOne(size), 1), size);
}

HeapBuffer HeapBuffer::AllocateAligned(std::size_t alignment, std::size_t size) {
  void* memory = nullptr;
  if (posix_memalign(&memory, alignment, AtLeastOne(size)) != 0) return HeapBuffer();
  return HeapBuffer(memory, size);
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
