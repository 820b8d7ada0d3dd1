// What the tests of this room share: sparse files in a folder of their own, and what they log.
#ifndef KQ_SPARSE_SPARSE_SUPPORT_TEST_H
#define KQ_SPARSE_SPARSE_SUPPORT_TEST_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "kqimageapi.h"
#include "sparse/sparse_file.h"
#include "sparse/sparse_model_test.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

// Bytes at an address with a given distance from a multiple of 4096.
class Placed {
 public:
  explicit Placed(std::size_t size, std::size_t distance = 0, std::uint8_t fill = 0)
      : memory_(static_cast<std::uint8_t*>(
            std::aligned_alloc(4096, (size + distance + 4095) / 4096 * 4096))),
        distance_(distance),
        size_(size) {
    std::fill_n(data(), size, fill);
  }
  Placed(const Bytes& bytes, std::size_t distance) : Placed(bytes.size(), distance) {
    std::copy(bytes.begin(), bytes.end(), data());
  }

  std::uint8_t* data() const { return memory_.get() + distance_; }
  std::uint32_t size() const { return static_cast<std::uint32_t>(size_); }
  Bytes bytes() const { return Bytes(data(), data() + size_); }

 private:
  struct Free {
    void operator()(void* memory) const { std::free(memory); }
  };
  std::unique_ptr<std::uint8_t, Free> memory_;
  std::size_t distance_;
  std::size_t size_;
};

// What an action prints on the standard error stream.
inline std::string LogOf(const std::function<void()>& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

// Makes each "line=<number>" of a log a "line=#": the number is nobody's business.
std::string WithoutLineNumbers(const std::string& log);

// The line that a transfer leaves after more than one attempt.
std::string ReaderLine(int retries, const char* status);
std::string WriterLine(int retries, const char* status);

// While it lives, what is allocated may be abandoned.
class MayLeak {
#if defined(__SANITIZE_ADDRESS__)
  __lsan::ScopedDisabler disabler_;
#else
 public:
  MayLeak() {}
  ~MayLeak() {}
#endif
};

class SparseTest : public ::testing::Test {
 protected:
  TempDir folder_;
  std::string path_ = folder_.Path("sparse");

  kq::SparseFileOwner Open(kq::SparseMode mode = kq::SparseMode::kOpenAlways,
                           std::uint16_t cacheNodes = 10, bool readOnly = false);
  // Writes the model's file, and opens it.
  kq::SparseFileOwner OpenModel(const SparseModel& model, std::uint16_t cacheNodes = 10,
                                bool readOnly = false);
  std::uint64_t OpenHandle(std::int32_t mode = KQ_SPARSE_OPEN_ALWAYS, std::uint16_t cacheNodes = 10,
                           std::uint8_t readOnly = 0);
  std::uint64_t OpenModelHandle(const SparseModel& model, std::uint16_t cacheNodes = 10,
                                std::uint8_t readOnly = 0);

  Bytes File() const { return ReadFile(path_); }
  void Patch(std::size_t offset, const Bytes& bytes) {
    Bytes file = File();
    SetBytes(&file, offset, bytes);
    WriteFile(path_, file);
  }
};

// A tree of a full root over full leaves: 291 + 292 * 291 extents of one byte each, every other
// byte from 0 on, all with the same data. The next extent splits the root and a leaf.
SparseModel FullTree();

}  // namespace kqtest

#endif
