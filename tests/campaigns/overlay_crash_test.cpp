// Processes that write onto a chain under a sparse file and are killed at random moments, or in a
// write that only a part of its pages comes out of. What they
// leave is refused by every open, or it is exactly what the last close left, with those of the
// later writes in it that went over what that close had: they are in the file when they return, and
// need no change of the tree. An image that was being made is refused too, or it is whole.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "tests/campaigns/killed_process.h"
#include "tests/campaigns/write_plan.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

#ifdef KQ_SHORT_CAMPAIGNS
constexpr int kKills = 60;
#else
constexpr int kKills = 400;
#endif

struct Paths {
  std::string base;
  std::string sparse;
  std::string newImage;
};

// Closes are few but have many steps: every other death meets one.
Death PlanDeath(const std::vector<Operation>& plan, Dice* dice) {
  Death death;
  death.steps = dice->Below(plan.size() + 1);
  if (dice->Below(2) == 0) {
    while (death.steps + 1 < plan.size() && plan[death.steps].step == Step::kWrite) ++death.steps;
  }
  death.moment = std::chrono::nanoseconds(dice->Below(200000));
  death.inCall = dice->Below(2) == 0;
  death.calls = dice->Below(8);
  death.pages = dice->Below(3);
  return death;
}

bool RunPlan(const std::vector<Operation>& plan, const Paths& paths, const StepDone& stepDone) {
  std::uint64_t chain = 0;
  for (const Operation& operation : plan) {
    KQStatus status{};
    switch (operation.step) {
      case Step::kOpen: {
        std::uint64_t sparse = 0;
        status = KQSparseFileOpen2(paths.sparse.c_str(), KQ_SPARSE_OPEN_ALWAYS, 0,
                                   operation.cacheNodes, &sparse);
        if (status.status != 0) return false;
        status = KQImageFilesOpen(paths.base.c_str(), nullptr, sparse, &chain);
        break;
      }
      case Step::kWrite:
        status = KQImageFilesWrite(chain, operation.offset, operation.data.data(),
                                   static_cast<std::uint32_t>(operation.data.size()), nullptr);
        break;
      case Step::kClose:
        status = KQImageFilesClose(chain, nullptr, nullptr, 0);
        break;
      case Step::kConvert:
        status = KQImageFilesClose(chain, paths.newImage.c_str(), nullptr, 0);
        break;
    }
    if (status.status != 0) return false;
    stepDone();
  }
  return true;
}

// The file's bytes, and which it holds: those that do not depend on the buffer's content before.
Held ReadHeld(std::uint64_t sparse) {
  Held result;
  Bytes other(kPlanBytes, 0xFF);
  EXPECT_EQ(KQSparseFileRead(sparse, 0, result.bytes.data(), kPlanBytes, nullptr).status, 0);
  EXPECT_EQ(KQSparseFileRead(sparse, 0, other.data(), kPlanBytes, nullptr).status, 0);
  for (std::uint32_t i = 0; i < kPlanBytes; ++i)
    result.held[i] = result.bytes[i] == other[i] ? 1 : 0;
  return result;
}

void ExpectClosedState(const Held& found, const Expected& expected) {
  // A close that was cut off may have come to its end in the file.
  const bool closing = expected.Runs(Step::kClose) || expected.Runs(Step::kConvert);
  ASSERT_TRUE((expected.everClosed && found.held == expected.closedHeld) ||
              (closing && found.held == expected.now.held))
      << "other extents than at a close";
  // A write that was cut off may be there in part.
  Bytes next = expected.now.bytes;
  if (expected.Runs(Step::kWrite)) {
    SetBytes(&next, expected.running->offset, expected.running->data);
  }
  for (std::uint32_t i = 0; i < kPlanBytes; ++i) {
    ASSERT_TRUE(found.held[i] == 0 || found.bytes[i] == expected.now.bytes[i] ||
                found.bytes[i] == next[i])
        << "byte " << i;
  }
}

class OverlayCrash : public ::testing::Test {
 protected:
  void SetUp() override {
    ImageSpec spec;
    spec.chunks = {RawChunk({{0, kPlanBytes / kPlanSector}}, base_)};
    WriteFile(paths_.base, BuildImage(spec));
  }

  void CheckSparseFile(const Expected& expected) {
    std::uint64_t sparse = 0;
    const KQStatus status =
        KQSparseFileOpen2(paths_.sparse.c_str(), KQ_SPARSE_OPEN_EXISTING, 1, 10, &sparse);
    if (status.status != 0) {
      ++refused_;
      // Without a finished close there may be no file yet; a clean one is never refused.
      ASSERT_TRUE(status.status == -1392 || (status.status == -2 && !expected.everClosed));
      ASSERT_NE(expected.running, nullptr) << "the file was closed, and is refused";
      return;
    }
    ++accepted_;
    const Held found = ReadHeld(sparse);
    EXPECT_EQ(KQSparseFileClose(sparse, 0).status, 0);
    ExpectClosedState(found, expected);
  }

  void CheckNewImage(const Expected& expected, bool converted) {
    if (!std::filesystem::exists(paths_.newImage)) {
      ASSERT_FALSE(converted);
      return;
    }
    std::uint64_t chain = 0;
    const std::string files = paths_.base + "|" + paths_.newImage;
    const KQStatus status = KQImageFilesOpen(files.c_str(), nullptr, 0, &chain);
    if (status.status != 0) {
      // A file without even its header can't be read as far as that.
      ASSERT_FALSE(converted) << status.status;
      ++unfinishedImages_;
      return;
    }
    ++images_;
    Bytes wanted = base_;
    for (std::uint32_t i = 0; i < kPlanBytes; ++i) {
      if (expected.now.held[i] != 0) wanted[i] = expected.now.bytes[i];
    }
    Bytes read(kPlanBytes);
    ASSERT_EQ(KQImageFilesRead(chain, 0, read.data(), kPlanBytes, nullptr).status, 0);
    ASSERT_TRUE(read == wanted) << "the new image is not whole";
    ASSERT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
  }

  TempDir folder_;
  Paths paths_{folder_.Path("base.twf"), folder_.Path("sparse"), folder_.Path("new.twi")};
  Bytes base_ = PatternBytes(1, kPlanBytes);
  int killedInCall_ = 0;
  int accepted_ = 0;
  int refused_ = 0;
  int images_ = 0;
  int unfinishedImages_ = 0;
};

TEST_F(OverlayCrash, KilledProcessLeavesAClosedStateOrARefusedFile) {
  const std::uint32_t seed = TestSeed();
  for (std::uint32_t round = 0; round < kKills && !HasFatalFailure(); ++round) {
    SCOPED_TRACE(round);
    Dice dice((std::uint64_t{seed} << 32) + round);
    const std::vector<Operation> plan = Plan(&dice);
    std::filesystem::remove(paths_.sparse);
    std::filesystem::remove(paths_.newImage);
    const Death death = PlanDeath(plan, &dice);
    const Outcome outcome =
        RunAndKill([&](const StepDone& done) { return RunPlan(plan, paths_, done); }, death);
    if (death.inCall && outcome.killed) ++killedInCall_;
    const Expected expected = Replay(plan, outcome.steps);
    CheckSparseFile(expected);
    if (HasFatalFailure()) break;
    CheckNewImage(expected, outcome.steps == plan.size());
  }
  std::printf("%d killed in a call; %d accepted, %d refused; %d images, %d unfinished\n",
              killedInCall_, accepted_, refused_, images_, unfinishedImages_);
  EXPECT_GT(killedInCall_, 0);
  EXPECT_GT(accepted_, 0);
  EXPECT_GT(refused_, 0);
}

}  // namespace
}  // namespace kqtest
