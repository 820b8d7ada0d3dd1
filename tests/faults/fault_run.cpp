#include "tests/faults/fault_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace kqtest {
namespace {

// The lowest numbers are given out first, so that one that is left open is among them.
std::string OpenDescriptors() {
  constexpr int kLooked = 256;
  std::string all;
  for (int fd = 0; fd < kLooked; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) all += std::to_string(fd) + " ";
  }
  return all;
}

class Surroundings : public testing::Environment {
 public:
  // With a zone that is named, the C library reads its rules once and for all.
  void SetUp() override { setenv("TZ", "UTC0", 1); }
  // Tells at the program's end how much has been tried.
  void TearDown() override {
    const FaultTotals totals = TotalsOfFaults();
    std::printf("faults: %llu allocations, %llu failed calls, %llu short transfers\n",
                static_cast<unsigned long long>(totals.allocations),
                static_cast<unsigned long long>(totals.failures),
                static_cast<unsigned long long>(totals.shortTransfers));
  }
};
[[maybe_unused]] const auto* const surroundings =
    testing::AddGlobalTestEnvironment(new Surroundings);

}  // namespace

FaultRun::FaultRun() : scenario_(GetParam().make(folder_)) {
  std::fflush(stderr);
  savedError_ = dup(STDERR_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
}

FaultRun::~FaultRun() {
  std::fflush(stderr);
  dup2(savedError_, STDERR_FILENO);
  close(savedError_);
}

void FaultRun::Rehearse() {
  for (int i = 0; i < 2; ++i) {
    const std::size_t blocksBefore = LiveBlocks();
    scenario_.begin();
    KQStatus status;
    {
      const Watch watch({});
      status = scenario_.operation();
    }
    calls_.assign(MadeCalls().begin(), MadeCalls().end());
    allocations_ = AllocationCount();
    ASSERT_EQ(status.status, scenario_.doneStatus);
    scenario_.expectDone();
    scenario_.end();
    if (i == 1) {
      ASSERT_EQ(LiveBlocks(), blocksBefore) << "memory is left";
    }
  }
}

void FaultRun::RepeatOperation(bool onAnotherThread) {
  KQStatus status;
  if (onAnotherThread) {
    std::thread([&] { status = scenario_.operation(); }).join();
  } else {
    status = scenario_.operation();
  }
  EXPECT_EQ(status.status, scenario_.doneStatus) << "the same call again";
  if (status.status == scenario_.doneStatus) scenario_.expectDone();
}

bool FaultRun::LosesData(const Fault& fault) const {
  // What a file seems not to hold may be kept as such, in a cache.
  if (fault.kind == Fault::Kind::kEndOfFile) return true;
  if (fault.kind == Fault::Kind::kDiskGone) {
    return scenario_.losesData || scenario_.expectRemoved;
  }
  return fault.kind == Fault::Kind::kFailure && scenario_.losesData &&
         scenario_.losesData(calls_, static_cast<std::size_t>(fault.number) - 1);
}

void FaultRun::Try(const Fault& fault, const std::string& what,
                   const std::function<void(const KQStatus&)>& check) {
  SCOPED_TRACE(what);
  const std::string descriptorsBefore = OpenDescriptors();
  const std::size_t blocksBefore = LiveBlocks();
  scenario_.begin();
  KQStatus status;
  {
    const Watch watch(fault);
    status = scenario_.operation();
  }
  EXPECT_TRUE(FaultHappened()) << "the operation makes fewer calls than before";
  const bool failed = status.status != scenario_.doneStatus;
  check(status);
  if (failed && scenario_.expectRemoved && fault.kind != Fault::Kind::kDiskGone) {
    scenario_.expectRemoved();
  }
  const bool repeats = scenario_.repeatable && !LosesData(fault);
  if (failed && repeats) RepeatOperation(++tries_ % 2 == 0);
  scenario_.end();
  if (failed && scenario_.staysOpenOnFailure) return;
  EXPECT_EQ(LiveBlocks(), blocksBefore) << "memory is left";
  EXPECT_EQ(OpenDescriptors(), descriptorsBefore);
}

std::string NameOfScenario(const testing::TestParamInfo<NamedScenario>& info) {
  return info.param.name;
}

}  // namespace kqtest
