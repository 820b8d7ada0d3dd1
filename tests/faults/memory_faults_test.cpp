// Every allocation of every operation fails once. The operation then says so, with nothing left of
// it and nothing locked, or does without what the memory was for.
#include <algorithm>
#include <cerrno>

#include "tests/faults/fault_run.h"

namespace kqtest {
namespace {

class MemoryFaults : public FaultRun {
 protected:
  // True: the operation could do without.
  bool ExpectToldOrNeedless(const KQStatus& status) const;
};

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

bool MemoryFaults::ExpectToldOrNeedless(const KQStatus& status) const {
  if (status.status == scenario().doneStatus) {
    scenario().expectDegraded ? scenario().expectDegraded() : scenario().expectDone();
    return true;
  }
  const std::vector<std::int32_t>& allowed = scenario().memoryStatuses;
  EXPECT_NE(std::count(allowed.begin(), allowed.end(), status.status), 0) << status.status;
  ExpectDetailsOf(status);
  EXPECT_STRNE(status.file, "");
  scenario().expectFailed();
  return false;
}

TEST_P(MemoryFaults, EachFailedAllocationIsToldAndLeavesNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  int needless = 0;
  for (int i = 1; i <= allocations() && !HasFailure(); ++i) {
    const Fault fault{Fault::Kind::kAllocation, i, 0};
    Try(fault, "allocation " + std::to_string(i) + " fails", [&](const KQStatus& status) {
      if (ExpectToldOrNeedless(status)) ++needless;
    });
  }
  if (!scenario().expectDegraded) {
    EXPECT_EQ(needless, CountBlockSizeProbes(calls()) + scenario().needlessAllocations);
  }
}

// Memory that has run out stays short until the operation is over.
TEST_P(MemoryFaults, MemoryThatHasRunOutLeavesNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  for (int i = 1; i <= allocations() && !HasFailure(); ++i) {
    const Fault fault{Fault::Kind::kAllocation, i, 0, Fault::kAlways};
    Try(fault, "allocation " + std::to_string(i) + " and all behind it fail",
        [&](const KQStatus& status) { ExpectToldOrNeedless(status); });
  }
}

}  // namespace
}  // namespace kqtest
