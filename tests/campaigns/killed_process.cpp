#include "tests/campaigns/killed_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>

namespace kqtest {
namespace {

using Clock = std::chrono::steady_clock;

// What the child has done, seen by both processes.
struct Progress {
  std::atomic<std::uint32_t> steps{0};
  std::atomic<std::uint32_t> calls{0};
  std::atomic<Clock::rep> begin{0};
  std::atomic<Clock::rep> end{0};
};

class SharedProgress {
 public:
  SharedProgress()
      : memory_(mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                     -1, 0)),
        progress_(new (memory_) Progress) {}
  ~SharedProgress() { munmap(memory_, sizeof(Progress)); }
  SharedProgress(const SharedProgress&) = delete;
  SharedProgress& operator=(const SharedProgress&) = delete;

  Progress* operator->() const { return progress_; }

 private:
  void* memory_;
  Progress* progress_;
};

// In the child, from the death's steps on.
std::atomic<std::uint32_t>* countedCalls = nullptr;
Death plannedDeath;

// Counts a call, and tells whether the process dies in it.
bool DiesInThisCall() {
  if (countedCalls == nullptr) return false;
  return countedCalls->fetch_add(1) == plannedDeath.calls && plannedDeath.inCall;
}

void Die() { kill(getpid(), SIGKILL); }

// What of a write the system does before it looks at a signal: up to the end of a page of the file.
std::size_t PartOfWrite(int file, std::size_t size) {
  constexpr std::uint64_t kPage = 4096;
  const off_t offset = lseek(file, 0, SEEK_CUR);
  if (offset < 0) return 0;
  const std::uint64_t begin = static_cast<std::uint64_t>(offset);
  const std::uint64_t end = (begin / kPage + plannedDeath.pages) * kPage;
  return end <= begin ? 0 : std::min<std::uint64_t>(size, end - begin);
}

}  // namespace
}  // namespace kqtest

// The library's calls come here.
extern "C" {

__attribute__((visibility("default"))) ssize_t write(int file, const void* data, std::size_t size) {
  if (kqtest::DiesInThisCall()) {
    static_cast<void>(syscall(SYS_write, file, data, kqtest::PartOfWrite(file, size)));
    kqtest::Die();
  }
  return syscall(SYS_write, file, data, size);
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
  if (kqtest::DiesInThisCall()) kqtest::Die();
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

__attribute__((visibility("default"))) int fsync(int file) {
  if (kqtest::DiesInThisCall()) kqtest::Die();
  return static_cast<int>(syscall(SYS_fsync, file));
}

__attribute__((visibility("default"))) int unlink(const char* path) noexcept {
  if (kqtest::DiesInThisCall()) kqtest::Die();
  return static_cast<int>(syscall(SYS_unlink, path));
}

}  // extern "C"

namespace kqtest {
namespace {

[[noreturn]] void Child(const Work& work, const Death& death, Progress* progress) {
  plannedDeath = death;
  const auto reach = [&] {
    if (progress->steps.load() != death.steps) return;
    progress->begin = Clock::now().time_since_epoch().count();
    countedCalls = &progress->calls;
  };
  reach();
  const bool good = work([&] {
    progress->steps.fetch_add(1);
    reach();
  });
  progress->end = Clock::now().time_since_epoch().count();
  _exit(good ? 0 : 1);
}

// Kills the child when its time has come; false if it has come to its end before.
bool KillInTime(pid_t child, const Progress& progress, const Death& death, int* state) {
  while (progress.steps < death.steps) {
    sched_yield();
    if (waitpid(child, state, WNOHANG) != 0) return false;
  }
  const auto end = Clock::now() + death.moment;
  while (Clock::now() < end) {
  }
  return kill(child, SIGKILL) == 0;
}

}  // namespace

Outcome RunAndKill(const Work& work, const Death& death) {
  const SharedProgress progress;
  const pid_t child = fork();
  if (child == 0) Child(work, death, progress.operator->());
  EXPECT_GT(child, 0);
  int state = 0;
  if (death.inCall || death.steps == kNever ||
      KillInTime(child, *progress.operator->(), death, &state)) {
    waitpid(child, &state, 0);
  }
  EXPECT_TRUE(WIFSIGNALED(state) ? WTERMSIG(state) == SIGKILL : WEXITSTATUS(state) == 0)
      << "an operation failed";
  return {WIFSIGNALED(state), progress->steps, progress->calls,
          Clock::duration(progress->end - progress->begin)};
}

namespace {

Death AnyDeath(const Outcome& whole, std::uint64_t pages, Dice* dice) {
  Death death = {.steps = 1, .inCall = dice->Below(2) == 0};
  death.moment =
      std::chrono::nanoseconds(dice->Below(1 + static_cast<std::uint64_t>(whole.time.count())));
  death.calls = dice->Below(whole.calls);
  death.pages = dice->Below(dice->Below(2) == 0 ? std::min<std::uint64_t>(3, pages) : pages);
  return death;
}

}  // namespace

Kills KillAtRandom(int kills, const KillCampaign& campaign, Dice* dice) {
  constexpr int kTries = 6;
  // The time counts from where the child has come up.
  const Work work = [&](const StepDone& stepDone) {
    stepDone();
    return campaign.work(stepDone);
  };
  const auto run = [&](const Death& death) {
    campaign.begin();
    const Outcome outcome = RunAndKill(work, death);
    SCOPED_TRACE(::testing::Message() << (death.inCall ? "call " : "ns ")
                                      << (death.inCall ? death.calls : death.moment.count())
                                      << " pages " << death.pages);
    campaign.check(outcome);
    return outcome;
  };
  Kills done;
  while (done.all < kills && !::testing::Test::HasFailure()) {
    campaign.prepare();
    Outcome whole = run({.steps = 1, .inCall = true, .calls = kNever});
    EXPECT_FALSE(whole.killed);
    for (int i = 0; i < kTries && !::testing::Test::HasFailure(); ++i) {
      const Death death = AnyDeath(whole, campaign.pages, dice);
      const Outcome outcome = run(death);
      done.all += outcome.killed ? 1 : 0;
      done.inCall += outcome.killed && death.inCall ? 1 : 0;
      // The machine may have been busy in the first run.
      if (!outcome.killed) whole.time = std::min(whole.time, outcome.time);
    }
  }
  return done;
}

}  // namespace kqtest
