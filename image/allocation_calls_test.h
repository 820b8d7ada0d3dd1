// Lets a test of this room do something in the midst of an operation: where the library, in this
// thread, next asks for memory.
#ifndef KQ_IMAGE_ALLOCATION_CALLS_TEST_H
#define KQ_IMAGE_ALLOCATION_CALLS_TEST_H

#include <functional>

namespace kqtest {

// The action runs once, before the allocation, or not at all if none comes in its life.
class BeforeNextAllocation {
 public:
  explicit BeforeNextAllocation(std::function<void()> action);
  ~BeforeNextAllocation();
  BeforeNextAllocation(const BeforeNextAllocation&) = delete;
  BeforeNextAllocation& operator=(const BeforeNextAllocation&) = delete;

 private:
  std::function<void()> action_;
};

}  // namespace kqtest

#endif
