#include "tests/faults/scenario.h"

#include <iterator>
#include <utility>

namespace kqtest {
namespace {

constexpr std::int64_t kSmallestBlock = 128;
constexpr std::int64_t kLargestBlock = 4096;

bool Is(std::span<const MadeCall> calls, std::size_t i, Call call) {
  return i < calls.size() && calls[i].call == call;
}

// The probe reads s bytes at offset s.
bool IsProbeRead(std::span<const MadeCall> calls, std::size_t i) {
  return Is(calls, i, Call::kRead) && i > 0 && Is(calls, i - 1, Call::kSeek) &&
         calls[i].length == calls[i - 1].offset && calls[i].length >= kSmallestBlock &&
         calls[i].length <= kLargestBlock;
}

}  // namespace

bool IsBlockSizeProbe(std::span<const MadeCall> calls, std::size_t i) {
  if (IsProbeRead(calls, i)) return true;
  if (!Is(calls, i, Call::kSeek)) return false;
  // To the start, to the place, and to the start again.
  return IsProbeRead(calls, i + 1) || IsProbeRead(calls, i + 2) ||
         (i > 0 && IsProbeRead(calls, i - 1));
}

int CountBlockSizeProbes(std::span<const MadeCall> calls) {
  int count = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) count += IsProbeRead(calls, i) ? 1 : 0;
  return count;
}

bool IsSparseTransfer(std::span<const MadeCall> calls, std::size_t i, bool writesSparseFile) {
  if (calls[i].isRandomDevice || IsBlockSizeProbe(calls, i)) return false;
  if (Is(calls, i, Call::kRead)) return true;
  if (Is(calls, i, Call::kWrite)) return writesSparseFile;
  if (!Is(calls, i, Call::kSeek)) return false;
  // The type of a file is looked up between the first seek and its read.
  const std::size_t behind = Is(calls, i + 1, Call::kFstat) ? i + 2 : i + 1;
  return Is(calls, behind, Call::kRead) || (writesSparseFile && Is(calls, behind, Call::kWrite));
}

std::vector<NamedScenario> AllScenarios() {
  std::vector<NamedScenario> all;
  for (auto* list :
       {QueryScenarios, RepairScenarios, ChainScenarios, NewImageScenarios, SparseScenarios,
        OverlayScenarios, ConversionScenarios, EnumerationScenarios}) {
    std::vector<NamedScenario> some = list();
    std::move(some.begin(), some.end(), std::back_inserter(all));
  }
  return all;
}

}  // namespace kqtest
