// A process that does its work through the library and is killed at a moment of choice: between
// any two instructions, or in one of the calls of the operating system that change a file, also in
// a write that only some pages come out of, as the system itself cuts it off.
#ifndef KQ_TESTS_CAMPAIGNS_KILLED_PROCESS_H
#define KQ_TESTS_CAMPAIGNS_KILLED_PROCESS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>

#include "tests/campaigns/dice.h"

namespace kqtest {

inline constexpr std::uint32_t kNever = std::numeric_limits<std::uint32_t>::max();

// When: some time after so many steps of the work are done, or in one of the calls from then on.
struct Death {
  std::uint32_t steps = kNever;
  bool inCall = false;
  std::chrono::nanoseconds moment{0};  // after the last of the steps
  std::uint32_t calls = 0;             // that come to their end before
  std::uint64_t pages = 0;             // of the last one, if it is a write, that it still does
};

struct Outcome {
  bool killed = false;      // false: it came to its end, and well
  std::uint32_t steps = 0;  // that were done
  // From the death's steps on.
  std::uint32_t calls = 0;
  std::chrono::nanoseconds time{0};  // of a process that came to its end
};

// Told by the work after each of its steps.
using StepDone = std::function<void()>;
// Returns whether all went well.
using Work = std::function<bool(const StepDone& stepDone)>;

// Does the work in a child of this process, without exec, so that it sees all that is prepared
// here. A child that fails, or ends in another way, fails the test.
Outcome RunAndKill(const Work& work, const Death& death);

// A campaign of processes that are killed at random moments of the same work.
struct KillCampaign {
  std::function<void()> prepare;              // what several deaths are tried on
  std::function<void()> begin;                // puts the files back
  Work work;                                  // as RunAndKill takes it
  std::function<void(const Outcome&)> check;  // of what the process left
  std::uint64_t pages = 0;                    // limit of what a write that is cut off does
};

struct Kills {
  int all = 0;
  int inCall = 0;
};

// Runs the work to its end, then kills it some times in one of its calls or anywhere in its time,
// and begins anew with other files until so many were killed, or a check failed.
Kills KillAtRandom(int kills, const KillCampaign& campaign, Dice* dice);

}  // namespace kqtest

#endif
