// What the tests of memory and of files have in common: a scenario, run again and again with one
// fault after the other.
#ifndef KQ_TESTS_FAULTS_FAULT_RUN_H
#define KQ_TESTS_FAULTS_FAULT_RUN_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/scenario.h"

namespace kqtest {

class FaultRun : public testing::TestWithParam<NamedScenario> {
 protected:
  FaultRun();
  ~FaultRun() override;

  // Runs the scenario twice without a fault: once for what the C library keeps from a first use,
  // and once to learn what calls are made.
  void Rehearse();

  // One try: begin, the operation under the fault, check(status) if the fault happened, the
  // operation again if it failed, end; and nothing may be left of it.
  void Try(const Fault& fault, const std::string& what,
           const std::function<void(const KQStatus&)>& check);

  const Scenario& scenario() const { return scenario_; }
  // Of the rehearsal.
  const std::vector<MadeCall>& calls() const { return calls_; }
  int allocations() const { return allocations_; }

 private:
  void RepeatOperation(bool onAnotherThread);
  bool LosesData(const Fault& fault) const;

  TempDir folder_;
  Scenario scenario_;
  std::vector<MadeCall> calls_;
  int allocations_ = 0;
  int tries_ = 0;
  int savedError_ = -1;  // the standard error stream, which the library logs to
};

// Behind a scenario's name in a test's name.
std::string NameOfScenario(const testing::TestParamInfo<NamedScenario>& info);

}  // namespace kqtest

#endif
