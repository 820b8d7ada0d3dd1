// Makes the calls fail that the library makes to the C library: the n-th allocation, or the n-th
// call that concerns a file. Counts what an operation allocates, and lists the calls it makes.
//
// The program that has this linked in defines those functions (allocation_calls.cpp,
// file_calls.cpp), and the shared library takes them from it. Outside a watch they do what they
// always do. A watch is of one thread and sees what this thread calls, whoever calls it for the
// library: an allocation in realpath or of an exception counts as well.
#ifndef KQ_TESTS_FAULTS_CALL_FAULTS_H
#define KQ_TESTS_FAULTS_CALL_FAULTS_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace kqtest {

enum class Call {
  kAllocation,
  kOpen,
  kClose,
  kFlock,
  kRead,
  kReadAt,
  kWrite,
  kSeek,
  kFstat,
  kStat,
  kFsync,
  kUnlink,
  kOpenFolder,
  kReadFolder,
  kCloseFolder,
  kFullPath,
};

const char* NameOf(Call call);

// A call of a watched operation that concerns a file.
struct MadeCall {
  Call call = Call::kOpen;
  std::int64_t offset = 0;  // of a seek or of a read at a place
  std::int64_t length = 0;  // of a read or write
  int flags = 0;            // of an open
  bool isRandomDevice = false;
};

struct Fault {
  enum class Kind {
    kNone,
    kAllocation,     // the call fails for want of memory
    kFailure,        // the call fails with the errno value
    kDiskGone,       // it and every other call behind it fails with the errno value
    kShortTransfer,  // the read or write moves half of what was asked for
    kEndOfFile,      // the read gives nothing
  };
  Kind kind = Kind::kNone;
  int number = 0;      // which allocation, or which call, from 1
  int errnoValue = 0;  // of a failure
  // How many calls of that function fail, one after the other.
  int times = 1;

  static constexpr int kAlways = 1 << 30;
};

// Faults happen, allocations are counted and calls listed while it lives. No code but the library's
// belongs in its scope.
class Watch {
 public:
  explicit Watch(const Fault& fault);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
};

// Of this thread's latest watch.
bool FaultHappened();
int AllocationCount();
// The calls made; those behind the 4096th are left out.
std::span<const MadeCall> MadeCalls();

// Blocks that were allocated under any watch and are not freed yet.
std::size_t LiveBlocks();

// Faults that have happened in this program so far.
struct FaultTotals {
  std::uint64_t allocations = 0;
  std::uint64_t failures = 0;
  std::uint64_t shortTransfers = 0;
};
FaultTotals TotalsOfFaults();

// For the functions themselves: what is to become of this call.
bool AllocationFails();
void NoteAllocated(void* block, std::size_t size);
void NoteFreed(void* block);
// True: fail, errno is set. *length, where given, may have become shorter.
bool FileCallFails(const MadeCall& made, std::size_t* length = nullptr);

}  // namespace kqtest

#endif
