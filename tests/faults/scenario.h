// An operation of the library as the fault tests see it: what it is done to, how often it may be
// repeated, and what it gives if all goes well, if it fails, and if it does without something.
#ifndef KQ_TESTS_FAULTS_SCENARIO_H
#define KQ_TESTS_FAULTS_SCENARIO_H

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "tests/faults/call_faults.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

// What a failed call means for the operation.
enum class Effect {
  kReported,  // the operation fails with the errno's status
  kHidden,    // the operation does what it always does
  kDegraded,  // the operation succeeds without what the call was for (expectDegraded)
  kNoRandom,  // -86: a key that could not be made, for whatever reason
  kNoFolder,  // -87: told apart from other failures nowhere
};

struct Scenario {
  // All but the operation itself run without faults. begin brings files and handles into the state
  // in which the operation is to start; end takes away what begin and the operation have made.
  std::function<void()> begin = [] {};
  std::function<KQStatus()> operation;
  std::function<void()> expectDone = [] {};    // after success
  std::function<void()> expectFailed = [] {};  // after a failure: outputs
  std::function<void()> expectDegraded;        // after success without something; empty: never
  std::function<void()> end = [] {};

  // The status that the undisturbed operation gives.
  std::int32_t doneStatus = 0;
  // After a failure the same call works, with all that begin has made as the failure left it.
  bool repeatable = true;
  // Which calls' failure takes something with it, so that the call does not work again.
  std::function<bool(std::span<const MadeCall> calls, std::size_t i)> losesData;
  // After a failure: what the operation has made is removed, if the disk lets it be.
  std::function<void()> expectRemoved;
  // A failure leaves the object, and what it holds, behind for good: how many descriptors.
  bool staysOpenOnFailure = false;

  // What a failed allocation may give.
  std::vector<std::int32_t> memoryStatuses = {KQ_STATUS_NOT_ENOUGH_MEMORY};
  // How many allocations the operation can do without, beyond those that look for a file's block
  // size.
  int needlessAllocations = 0;

  // What the failure of a call means, where that does not follow from the call alone.
  std::function<std::optional<Effect>(std::span<const MadeCall> calls, std::size_t i)> effectOf;
  // Whether a call belongs to a transfer that is tried a hundred times before it is reported.
  std::function<bool(std::span<const MadeCall> calls, std::size_t i)> isTriedAgain =
      [](std::span<const MadeCall>, std::size_t) { return false; };
  // The module that tells of a failed call.
  std::function<std::string(std::span<const MadeCall> calls, std::size_t i)> moduleOf =
      [](std::span<const MadeCall>, std::size_t) { return "kqos_linux"; };
};

struct NamedScenario {
  std::string name;
  // Makes the files, in a folder of the scenario's own that lives as long as the scenario.
  std::function<Scenario(const TempDir& folder)> make;
};
inline void PrintTo(const NamedScenario& named, std::ostream* stream) { *stream << named.name; }

// One list for each group of operations.
std::vector<NamedScenario> QueryScenarios();
std::vector<NamedScenario> RepairScenarios();
std::vector<NamedScenario> ChainScenarios();
std::vector<NamedScenario> NewImageScenarios();
std::vector<NamedScenario> SparseScenarios();
std::vector<NamedScenario> OverlayScenarios();
std::vector<NamedScenario> ConversionScenarios();
std::vector<NamedScenario> EnumerationScenarios();

std::vector<NamedScenario> AllScenarios();

// A look for the block size that a file wants: the operation goes on without an answer.
bool IsBlockSizeProbe(std::span<const MadeCall> calls, std::size_t i);
int CountBlockSizeProbes(std::span<const MadeCall> calls);

// A read or write of a sparse file, or the seek before it. Image files are read at a place, and
// written only where writesSparseFile is false.
bool IsSparseTransfer(std::span<const MadeCall> calls, std::size_t i, bool writesSparseFile);

}  // namespace kqtest

#endif
