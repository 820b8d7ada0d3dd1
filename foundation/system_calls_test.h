// What the tests of this room use to watch calls of the system's library and to make them fail. The
// test program is linked so that these calls pass through here (CMakeLists.txt); the room itself
// knows nothing of it. Everything is per thread: a test sees and disturbs its own calls only.
#ifndef KQ_FOUNDATION_SYSTEM_CALLS_TEST_H
#define KQ_FOUNDATION_SYSTEM_CALLS_TEST_H

#include <cstdint>
#include <functional>
#include <vector>

namespace kqtest {

enum class Call : std::uint8_t {
  kOpen,
  kClose,
  kFlock,
  kRead,
  kPread,
  kWrite,
  kSeek,
  kFstat,
  kStat,
  kUnlink,
  kNanosleep,
  kMalloc,
  kCalloc,
  kAlignedMalloc,
  kFree,
  kMutexLock,
  kMutexInit,
  kConditionInit,
  kCount
};

// What a call was given. Fields that it has no argument for are 0.
struct CallRecord {
  Call call = Call::kCount;
  std::uint64_t address = 0;  // buffer or memory
  std::uint64_t length = 0;   // bytes asked for, or nanoseconds
  std::int64_t offset = 0;
  std::uint64_t flags = 0;  // open's, flock's, or an alignment
  std::uint64_t mode = 0;
};

// While it lives, calls of that kind fail with that error after a number of them has gone through,
// for a number of times.
class FailingCall {
 public:
  FailingCall(Call call, int error, int times = 1, int after = 0);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  int failures() const;  // how many calls it made fail

 private:
  Call call_;
};

// While it lives, one read or write transfers at most that many bytes.
class ShortTransfers {
 public:
  explicit ShortTransfers(std::uint64_t maxBytes);
  ~ShortTransfers();
  ShortTransfers(const ShortTransfers&) = delete;
  ShortTransfers& operator=(const ShortTransfers&) = delete;
};

// While it lives, the action runs before each call of that kind, failing or not.
class BeforeCall {
 public:
  using Action = std::function<void(const CallRecord&)>;
  BeforeCall(Call call, Action action);
  ~BeforeCall();
  BeforeCall(const BeforeCall&) = delete;
  BeforeCall& operator=(const BeforeCall&) = delete;

 private:
  Call call_;
};

// The calls of one kind that were made while it lives.
class CallCounter {
 public:
  explicit CallCounter(Call call)
      : hook_(call, [this](const CallRecord& record) { seen_.push_back(record); }) {}

  std::size_t count() const { return seen_.size(); }
  const std::vector<CallRecord>& seen() const { return seen_; }

 private:
  std::vector<CallRecord> seen_;
  BeforeCall hook_;
};

}  // namespace kqtest

#endif
