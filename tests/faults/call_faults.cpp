// Nothing here may allocate.
#include "tests/faults/call_faults.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kqtest {
namespace {

constexpr std::size_t kMostCalls = 4096;
constexpr std::size_t kTableSlots = 1 << 16;
// What a freed block holds from then on, so that nobody reads it unnoticed. Of a large one only the
// beginning, as filling takes time.
constexpr int kFreedByte = 0xDD;
constexpr int kNewByte = 0xA5;
constexpr std::size_t kFilledBytes = 1 << 14;

struct WatchState {
  bool watching = false;
  bool happened = false;
  Fault fault;
  int timesLeft = 0;
  Call failing = Call::kOpen;
  int allocations = 0;
  int calls = 0;
};
constinit thread_local WatchState state;
constinit thread_local MadeCall madeCalls[kMostCalls] = {};

constinit std::atomic<std::uint64_t> failedAllocations = 0;
constinit std::atomic<std::uint64_t> failedCalls = 0;
constinit std::atomic<std::uint64_t> shortTransfers = 0;

// The blocks allocated under a watch: a table with open addressing, in which a freed block leaves
// its slot in use.
struct Block {
  void* address = nullptr;
  std::size_t size = 0;
};
pthread_mutex_t tableMutex = PTHREAD_MUTEX_INITIALIZER;
constinit Block table[kTableSlots] = {};
constinit std::size_t usedSlots = 0;
constinit std::atomic<std::size_t> liveBlocks = 0;
Block* const kRemoved = table;  // any address that no block has

std::size_t SlotOf(const void* address) {
  const auto number = reinterpret_cast<std::uintptr_t>(address) >> 4;
  return (number * 0x9E3779B97F4A7C15u) >> 48;
}

void ForgetRemoved() {
  if (liveBlocks != 0 || usedSlots == 0) return;
  std::fill(std::begin(table), std::end(table), Block{});
  usedSlots = 0;
}

}  // namespace

const char* NameOf(Call call) {
  constexpr const char* kNames[] = {"malloc",  "open",    "close",    "flock",   "read",  "pread",
                                    "write",   "lseek",   "fstat",    "stat",    "fsync", "unlink",
                                    "opendir", "readdir", "closedir", "realpath"};
  return kNames[static_cast<std::size_t>(call)];
}

Watch::Watch(const Fault& fault) {
  state = {};
  state.fault = fault;
  state.timesLeft = fault.times;
  state.watching = true;
}

Watch::~Watch() { state.watching = false; }

bool FaultHappened() { return state.happened; }
int AllocationCount() { return state.allocations; }
std::span<const MadeCall> MadeCalls() {
  return {madeCalls, std::min<std::size_t>(static_cast<std::size_t>(state.calls), kMostCalls)};
}

std::size_t LiveBlocks() { return liveBlocks; }

FaultTotals TotalsOfFaults() { return {failedAllocations, failedCalls, shortTransfers}; }

bool AllocationFails() {
  if (!state.watching) return false;
  ++state.allocations;
  if (state.fault.kind != Fault::Kind::kAllocation || state.allocations < state.fault.number ||
      state.timesLeft == 0) {
    return false;
  }
  --state.timesLeft;
  state.happened = true;
  ++failedAllocations;
  errno = ENOMEM;
  return true;
}

void NoteAllocated(void* block, std::size_t size) {
  if (!state.watching || block == nullptr) return;
  pthread_mutex_lock(&tableMutex);
  ForgetRemoved();
  if (++usedSlots == kTableSlots) std::abort();
  std::size_t slot = SlotOf(block);
  while (table[slot].address != nullptr) slot = (slot + 1) % kTableSlots;
  table[slot] = {block, size};
  ++liveBlocks;
  pthread_mutex_unlock(&tableMutex);
  std::memset(block, kNewByte, std::min(size, kFilledBytes));
}

void NoteFreed(void* block) {
  if (block == nullptr || liveBlocks == 0) return;
  std::size_t size = 0;
  pthread_mutex_lock(&tableMutex);
  for (std::size_t slot = SlotOf(block); table[slot].address != nullptr;
       slot = (slot + 1) % kTableSlots) {
    if (table[slot].address != block) continue;
    table[slot].address = kRemoved;
    size = table[slot].size;
    --liveBlocks;
    break;
  }
  pthread_mutex_unlock(&tableMutex);
  std::memset(block, kFreedByte, std::min(size, kFilledBytes));
}

bool FileCallFails(const MadeCall& made, std::size_t* length) {
  if (!state.watching) return false;
  if (static_cast<std::size_t>(state.calls) < kMostCalls) madeCalls[state.calls] = made;
  ++state.calls;
  const Fault& fault = state.fault;
  if (fault.kind == Fault::Kind::kNone || fault.kind == Fault::Kind::kAllocation) return false;
  if (state.calls == fault.number) state.failing = made.call;
  const bool isMeant = made.call == state.failing || fault.kind == Fault::Kind::kDiskGone;
  if (state.calls < fault.number || !isMeant || state.timesLeft == 0) return false;
  if (fault.kind == Fault::Kind::kShortTransfer) {
    if (length == nullptr || *length < 2) return false;
    *length /= 2;
    ++shortTransfers;
  } else if (fault.kind == Fault::Kind::kEndOfFile) {
    *length = 0;
    ++shortTransfers;
  } else {
    errno = fault.errnoValue;
    ++failedCalls;
  }
  --state.timesLeft;
  state.happened = true;
  return fault.kind == Fault::Kind::kFailure || fault.kind == Fault::Kind::kDiskGone;
}

}  // namespace kqtest
