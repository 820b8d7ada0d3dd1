// Every allocation of every operation fails once. The operation then says so, with nothing left of
// it and nothing locked, or does without what the memory was for.
#include <algorithm>

#include "tests/faults/fault_run.h"

namespace kqtest {
namespace {

using MemoryFaults = FaultRun;

INSTANTIATE_TEST_SUITE_P(All, MemoryFaults, testing::ValuesIn(AllScenarios()), NameOfScenario);

// An allocation in the C library fails as a call of it.
void ExpectDetailsOf(const KQStatus& status) {
  if (status.detail2 == 0) {
    EXPECT_EQ(status.detail1, 0u);
  } else {
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(ENOMEM));
    EXPECT_EQ(status.detail2, 2u);
    EXPECT_EQ(status.status, KQ_STATUS_NOT_ENOUGH_MEMORY);
  }
}

TEST_P(MemoryFaults, EachFailedAllocationIsToldAndLeavesNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  int needless = 0;
  for (int i = 1; i <= allocations() && !HasFailure(); ++i) {
    const Fault fault{Fault::Kind::kAllocation, i, 0};
    Try(fault, "allocation " + std::to_string(i) + " fails", [&](const KQStatus& status) {
      if (status.status == scenario().doneStatus) {
        ++needless;
        scenario().expectDegraded ? scenario().expectDegraded() : scenario().expectDone();
        return;
      }
      EXPECT_NE(std::count(scenario().memoryStatuses.begin(), scenario().memoryStatuses.end(),
                           status.status),
                0)
          << status.status;
      ExpectDetailsOf(status);
      EXPECT_STRNE(status.file, "");
      scenario().expectFailed();
    });
  }
  if (!scenario().expectDegraded) {
    EXPECT_EQ(needless, CountBlockSizeProbes(calls()) + scenario().needlessAllocations);
  }
}

}  // namespace
}  // namespace kqtest
