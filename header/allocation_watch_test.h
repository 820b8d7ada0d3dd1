// The library's allocations as the tests of this room see them: each can be made to fail, and what
// is freed can be looked at. The linker sends the calls here (CMakeLists.txt). Everything is per
// thread.
#ifndef KQ_HEADER_ALLOCATION_WATCH_TEST_H
#define KQ_HEADER_ALLOCATION_WATCH_TEST_H

#include <cstdint>
#include <functional>
#include <span>

namespace kqtest {

// While it lives, one allocation fails after a number of them has gone through.
class FailingAllocation {
 public:
  explicit FailingAllocation(int after);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  bool happened() const;
};

// While it lives, the action sees each block just before it is freed. Blocks that are allocated
// meanwhile begin as zero, so that nothing of an earlier owner is seen in them.
class BeforeFree {
 public:
  using Action = std::function<void(std::span<const std::uint8_t>)>;
  explicit BeforeFree(Action action);
  ~BeforeFree();
  BeforeFree(const BeforeFree&) = delete;
  BeforeFree& operator=(const BeforeFree&) = delete;
};

}  // namespace kqtest

#endif
