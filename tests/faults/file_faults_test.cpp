// Every call to the operating system that concerns a file fails, with each errno in turn, and every
// transfer comes up short.
#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <utility>

#include "tests/faults/fault_run.h"

namespace kqtest {
namespace {

using FileFaults = FaultRun;

INSTANTIATE_TEST_SUITE_P(All, FileFaults, testing::ValuesIn(AllScenarios()), NameOfScenario);

struct Mapping {
  int errnoValue;
  std::int32_t status;
};
constexpr Mapping kMappings[] = {{EIO, KQ_STATUS_CRC},
                                 {ENOSPC, KQ_STATUS_DISK_FULL},
                                 {EINTR, KQ_STATUS_CANCELLED},
                                 {EACCES, KQ_STATUS_ACCESS_DENIED},
                                 {EMFILE, KQ_STATUS_TOO_MANY_OPEN_FILES}};

bool IsTransfer(Call call) {
  return call == Call::kRead || call == Call::kReadAt || call == Call::kWrite;
}

// What the rules say of a call, whatever the operation.
Effect EffectOfCall(std::span<const MadeCall> calls, std::size_t i) {
  const Call call = calls[i].call;
  // A close can't fail.
  if (call == Call::kClose || call == Call::kFlock || call == Call::kCloseFolder) {
    return Effect::kHidden;
  }
  if (calls[i].isRandomDevice) return Effect::kNoRandom;
  if (IsBlockSizeProbe(calls, i)) return Effect::kHidden;
  // A read that can't tell whether it reads a pipe reads all the same.
  if (call == Call::kFstat && i + 1 < calls.size() && calls[i + 1].call == Call::kRead) {
    return Effect::kHidden;
  }
  return Effect::kReported;
}

class Expectation {
 public:
  Expectation(const Scenario& scenario, Effect effect, std::string module, const Mapping& mapping)
      : scenario_(scenario), effect_(effect), module_(std::move(module)), mapping_(mapping) {}

  void operator()(const KQStatus& status) const {
    switch (effect_) {
      case Effect::kHidden:
        EXPECT_EQ(status.status, scenario_.doneStatus);
        if (status.status == scenario_.doneStatus) scenario_.expectDone();
        return;
      case Effect::kDegraded:
        EXPECT_EQ(status.status, scenario_.doneStatus);
        if (status.status == scenario_.doneStatus) scenario_.expectDegraded();
        return;
      case Effect::kNoRandom:
        ExpectFailure(status, KQ_STATUS_INVALID_PASSWORD, 0, "crypto");
        return;
      case Effect::kNoFolder:
        ExpectFailure(status, KQ_STATUS_INVALID_PARAMETER, 0, "ImageFilesEnumer");
        return;
      case Effect::kReported:
        ExpectFailure(status, mapping_.status, mapping_.errnoValue, module_);
        return;
    }
  }

 private:
  void ExpectFailure(const KQStatus& status, std::int32_t number, int errnoValue,
                     const std::string& module) const {
    EXPECT_EQ(status.status, number);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(errnoValue));
    EXPECT_EQ(status.detail2, errnoValue != 0 ? 2u : 0u);
    EXPECT_EQ(std::string(status.file), module);
    if (status.status != scenario_.doneStatus) scenario_.expectFailed();
  }

  const Scenario& scenario_;
  Effect effect_;
  std::string module_;
  const Mapping& mapping_;
};

std::string Describe(const MadeCall& call, std::size_t i, const std::string& what) {
  return "call " + std::to_string(i + 1) + ", " + NameOf(call.call) + ", " + what;
}

TEST_P(FileFaults, EachFailedCallIsToldWithItsErrnoAndLeavesNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  for (std::size_t i = 0; i < calls().size() && !HasFailure(); ++i) {
    const MadeCall& call = calls()[i];
    std::optional<Effect> effect;
    if (scenario().effectOf) effect = scenario().effectOf(calls(), i);
    if (!effect) effect = EffectOfCall(calls(), i);
    const std::string module = scenario().moduleOf(calls(), i);
    for (const Mapping& mapping : kMappings) {
      const bool restarts =
          mapping.errnoValue == EINTR && (call.call == Call::kOpen || IsTransfer(call.call));
      const bool triedAgain = scenario().isTriedAgain(calls(), i);
      Fault fault{Fault::Kind::kFailure, static_cast<int>(i) + 1, mapping.errnoValue};
      if (restarts) fault.times = 3;
      const Effect once = restarts || triedAgain ? Effect::kHidden : *effect;
      Try(fault, Describe(call, i, "errno " + std::to_string(mapping.errnoValue)),
          Expectation(scenario(), once, module, mapping));
      // A hundred attempts each: one number that has a status of its own will do.
      if (!triedAgain || mapping.errnoValue != ENOSPC) continue;
      fault.times = Fault::kAlways;
      Try(fault, Describe(call, i, "again and again, errno " + std::to_string(mapping.errnoValue)),
          Expectation(scenario(), *effect, module, mapping));
    }
  }
}

TEST_P(FileFaults, ShortTransfersAreCompleted) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  for (std::size_t i = 0; i < calls().size() && !HasFailure(); ++i) {
    if (!IsTransfer(calls()[i].call) || calls()[i].length < 2) continue;
    for (const int times : {1, 3}) {
      const Fault fault{Fault::Kind::kShortTransfer, static_cast<int>(i) + 1, 0, times};
      Try(fault, Describe(calls()[i], i, "short"),
          Expectation(scenario(), Effect::kHidden, "", kMappings[0]));
    }
  }
}

void ExpectOneOf(const Scenario& scenario, std::initializer_list<std::int32_t> statuses,
                 const KQStatus& status) {
  if (status.status == scenario.doneStatus) return;
  EXPECT_NE(std::count(statuses.begin(), statuses.end(), status.status), 0) << status.status;
  scenario.expectFailed();
}

// As when a file is cut short in the moment. Some reads can do with less, and what they did not get
// counts as zero: a part that seems not to be the last, a header without its magic.
TEST_P(FileFaults, ReadsThatEndEarlyLeaveNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  for (std::size_t i = 0; i < calls().size() && !HasFailure(); ++i) {
    const MadeCall& call = calls()[i];
    if (call.call != Call::kRead && call.call != Call::kReadAt) continue;
    const Fault fault{Fault::Kind::kEndOfFile, static_cast<int>(i) + 1, 0};
    Try(fault, Describe(call, i, "end of file"), [&](const KQStatus& status) {
      ExpectOneOf(
          scenario(),
          {KQ_STATUS_INVALID_DATA, KQ_STATUS_CRC, KQ_STATUS_GEN_FAILURE, KQ_STATUS_INVALID_PASSWORD,
           KQ_STATUS_FILE_CORRUPT, KQ_STATUS_NO_MORE_FILES, KQ_STATUS_INVALID_PARAMETER},
          status);
    });
  }
}

// The disk goes away in the middle of the operation, and comes back behind it.
TEST_P(FileFaults, ADiskThatIsGoneLeavesNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(Rehearse());
  for (std::size_t i = 0; i < calls().size() && !HasFailure(); ++i) {
    const Fault fault{Fault::Kind::kDiskGone, static_cast<int>(i) + 1, EIO, Fault::kAlways};
    Try(fault, Describe(calls()[i], i, "and all behind it"), [&](const KQStatus& status) {
      ExpectOneOf(scenario(),
                  {KQ_STATUS_CRC, KQ_STATUS_INVALID_PASSWORD, KQ_STATUS_INVALID_PARAMETER}, status);
    });
  }
}

}  // namespace
}  // namespace kqtest
