// What a process does until it is killed, and what is known of its files then.
#ifndef KQ_TESTS_CAMPAIGNS_WRITE_PLAN_H
#define KQ_TESTS_CAMPAIGNS_WRITE_PLAN_H

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "tests/campaigns/volume_model.h"

namespace kqtest {

inline constexpr std::uint32_t kPlanBytes = 600 * 1024;
inline constexpr std::uint32_t kPlanSector = 512;

enum class Step : std::uint8_t { kOpen, kWrite, kClose, kConvert };

struct Operation {
  Step step = Step::kOpen;
  std::uint32_t offset = 0;
  Bytes data = {};
  std::uint16_t cacheNodes = 0;
};

// Sessions of one sparse file: each opens it over the chain, writes, and closes. The last one makes
// an image.
inline std::vector<Operation> Plan(Dice* dice) {
  std::vector<Operation> plan;
  const std::uint32_t sessions = 2 + dice->Below(3);
  const bool scattered = dice->Below(2) == 0;
  for (std::uint32_t session = 0; session < sessions; ++session) {
    static constexpr std::uint16_t kCacheNodes[] = {1, 2, 10, 1000};
    plan.push_back({Step::kOpen, 0, {}, kCacheNodes[dice->Below(4)]});
    // Enough in the first for a tree of several nodes.
    const std::uint32_t writes = session == 0 && scattered ? 500 : 1 + dice->Below(150);
    for (std::uint32_t i = 0; i < writes; ++i) {
      Bytes data(kPlanSector * (1 + dice->Below(scattered ? 2 : 20)));
      dice->Fill(data.data(), data.size());
      const auto places = (kPlanBytes - static_cast<std::uint32_t>(data.size())) / kPlanSector;
      plan.push_back({Step::kWrite, kPlanSector * dice->Below(places), std::move(data), 0});
    }
    plan.push_back({session + 1 < sessions ? Step::kClose : Step::kConvert, 0, {}, 0});
  }
  return plan;
}

// Bytes of the volume and which of them are held.
struct Held {
  Bytes bytes = Bytes(kPlanBytes);
  Bytes held = Bytes(kPlanBytes);  // 1 or 0 for each byte

  void Write(const Operation& operation) {
    SetBytes(&bytes, operation.offset, operation.data);
    std::fill_n(held.begin() + operation.offset, operation.data.size(), std::uint8_t{1});
  }
};

// What is known after so many finished operations.
struct Expected {
  Held now;  // by all finished writes
  bool everClosed = false;
  Bytes closedHeld;                    // what is held since the last close
  const Operation* running = nullptr;  // the next, which may have been cut off

  bool Runs(Step step) const { return running != nullptr && running->step == step; }
};

inline Expected Replay(const std::vector<Operation>& plan, std::uint32_t finished) {
  Expected expected;
  for (std::uint32_t i = 0; i < finished; ++i) {
    if (plan[i].step == Step::kWrite) expected.now.Write(plan[i]);
    if (plan[i].step == Step::kClose || plan[i].step == Step::kConvert) {
      expected.closedHeld = expected.now.held;
      expected.everClosed = true;
    }
  }
  if (finished < plan.size()) expected.running = &plan[finished];
  return expected;
}

}  // namespace kqtest

#endif
