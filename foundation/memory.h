// Owners of heap memory. None of them throws: a failed allocation leaves the owner empty, and the
// caller turns that into -8. Each frees what it holds when it goes.
#ifndef KQ_FOUNDATION_MEMORY_H
#define KQ_FOUNDATION_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

namespace kq {

// Overwrites memory with zero in a way that the optimiser can't remove.
void Wipe(void* memory, std::size_t size);

// Memory for a table, not initialised, to be freed with std::free; null if there is none. Large
// tables, like large aligned buffers, get large pages where the system has them: they are filled to
// their end, and a stop for each small page takes longer than filling it.
void* AllocateTable(std::size_t size);

struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};

struct WipingDeleter {
  std::size_t secretBytes = 0;

  void operator()(void* memory) const {
    if (secretBytes != 0) Wipe(memory, secretBytes);
    std::free(memory);
  }
};

// Bytes from malloc, or from posix_memalign where an alignment is given. An allocation of 0 bytes
// gives an owner that is not empty and has size 0.
class HeapBuffer {
 public:
  HeapBuffer() = default;
  HeapBuffer(HeapBuffer&& other) noexcept { *this = std::move(other); }
  HeapBuffer& operator=(HeapBuffer&& other) noexcept {
    bytes_ = std::move(other.bytes_);
    size_ = std::exchange(other.size_, 0);
    return *this;
  }

  static HeapBuffer Allocate(std::size_t size);  // not initialised
  static HeapBuffer AllocateZeroed(std::size_t size);
  static HeapBuffer AllocateAligned(std::size_t alignment, std::size_t size);  // not initialised
  static HeapBuffer AllocateAlignedZeroed(std::size_t alignment, std::size_t size);

  explicit operator bool() const { return bytes_ != nullptr; }
  std::uint8_t* data() { return bytes_.get(); }
  const std::uint8_t* data() const { return bytes_.get(); }
  std::size_t size() const { return size_; }
  std::span<std::uint8_t> bytes() { return {data(), size_}; }
  std::span<const std::uint8_t> bytes() const { return {data(), size_}; }
  void Reset() { *this = HeapBuffer(); }

  // From now on the first count bytes are wiped before the memory is freed, whoever owns it then.
  // For a buffer that holds a secret among other bytes, or that is larger than what may be touched.
  void WipeWhenFreed(std::size_t count) {
    bytes_.get_deleter().secretBytes = count < size_ ? count : size_;
  }

 private:
  HeapBuffer(void* memory, std::size_t size)
      : bytes_(static_cast<std::uint8_t*>(memory)), size_(memory != nullptr ? size : 0) {}

  std::unique_ptr<std::uint8_t, WipingDeleter> bytes_;
  std::size_t size_ = 0;
};

// Heap memory for passwords, keys and key blobs: wiped before it is freed.
class SecretBuffer {
 public:
  SecretBuffer() = default;

  static SecretBuffer AllocateZeroed(std::size_t size);
  static SecretBuffer CopyOf(const void* data, std::size_t size);
  // The string with its NUL, which counts in size().
  static SecretBuffer CopyOfString(const char* text);

  explicit operator bool() const { return static_cast<bool>(buffer_); }
  std::uint8_t* data() { return buffer_.data(); }
  const std::uint8_t* data() const { return buffer_.data(); }
  const char* text() const { return reinterpret_cast<const char*>(buffer_.data()); }
  std::size_t size() const { return buffer_.size(); }
  std::span<std::uint8_t> bytes() { return buffer_.bytes(); }
  std::span<const std::uint8_t> bytes() const { return buffer_.bytes(); }
  void Reset() { *this = SecretBuffer(); }

 private:
  explicit SecretBuffer(HeapBuffer buffer) : buffer_(std::move(buffer)) {
    if (buffer_) buffer_.WipeWhenFreed(buffer_.size());
  }

  HeapBuffer buffer_;
};

// An object in the heap, made by MakeOwned; empty if the memory could not be had.
template <class T>
struct ObjectDeleter {
  void operator()(T* object) const {
    object->~T();
    std::free(object);
  }
};
template <class T>
using Owned = std::unique_ptr<T, ObjectDeleter<T>>;

template <class T, class... Arguments>
Owned<T> MakeOwned(Arguments&&... arguments) {
  void* memory = nullptr;
  if constexpr (alignof(T) > alignof(std::max_align_t)) {
    if (posix_memalign(&memory, alignof(T), sizeof(T)) != 0) return nullptr;
  } else {
    memory = std::malloc(sizeof(T));
    if (memory == nullptr) return nullptr;
  }
  return Owned<T>(::new (memory) T(std::forward<Arguments>(arguments)...));
}

// A NUL-terminated string from malloc.
using HeapString = std::unique_ptr<char, FreeDeleter>;

}  // namespace kq

#endif
