// Processes that are killed while they repair a header in place: the one write to a finished image
// that the library makes. Whatever the moment, nothing but the header differs; the header is as it
// was, or repaired, or, where the write itself was cut off, the beginning of the one and the rest
// of the other, which its checksums tell.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "header/header_repair_test.h"
#include "kqimageapi.h"
#include "tests/campaigns/killed_process.h"
#include "tests/campaigns/volume_model.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

#ifdef KQ_SHORT_CAMPAIGNS
constexpr int kKills = 30;
#else
constexpr int kKills = 200;
#endif
constexpr std::uint64_t kBlock = 4096;

class RepairCrash : public HeaderRepairTest {
 protected:
  void Prepare() {
    static constexpr std::uint32_t kSectorSizes[] = {512, 1024, 4096};
    const std::uint32_t sectorSize = kSectorSizes[dice_.Below(3)];
    const std::uint32_t sectors = 2 + dice_.Below(dice_.Below(4) == 0 ? 4 : 60);
    const std::uint32_t type = dice_.Below(5);
    Prepare(sectors, sectorSize, type, 1 + dice_.Below(3));
  }

  void Prepare(std::uint32_t sectors, std::uint32_t sectorSize, std::uint32_t type,
               std::uint64_t issues) {
    const ImageSpec spec = DefectiveImage(sectors, sectorSize, type);
    issues_ = issues;
    before_ = BuildImage(spec);
    after_ = RepairedFile(spec, issues_);
    data_ = spec.chunks[0].data;
    headerBytes_ = std::size_t{sectors} * sectorSize;
  }

  void Check(const Outcome& outcome) {
    const Bytes file = ReadFile(path_);
    ASSERT_EQ(file.size(), before_.size());
    ASSERT_TRUE(std::equal(file.begin() + static_cast<std::ptrdiff_t>(headerBytes_), file.end(),
                           before_.begin() + static_cast<std::ptrdiff_t>(headerBytes_)))
        << "more than the header differs";
    if (!outcome.killed) {
      ASSERT_TRUE(file == after_) << "not the header that a repair makes";
    }
    if (file == before_ || file == after_) {
      ++(file == before_ ? untouched_ : repaired_);
      std::uint64_t found = 0;
      EXPECT_EQ(KQImageFileFixHeader(path_.c_str(), "secret", &found, 1, nullptr, nullptr).status,
                0);
      EXPECT_EQ(found, file == before_ ? 3u : 3u & ~issues_);
      CheckContent();
      return;
    }
    ++cutOff_;
    ASSERT_TRUE(IsCutOff(file)) << "a header that no cut makes";
    // It says of itself that it is not sound, and so what reads headers alone tells.
    std::uint64_t found = 0;
    EXPECT_EQ(KQImageFileFixHeader(path_.c_str(), "secret", &found, 1, nullptr, nullptr).status,
              KQ_STATUS_FILE_CORRUPT);
    CheckContent();
  }

  // The new header up to the end of a block, the old one behind.
  bool IsCutOff(const Bytes& file) const {
    for (std::size_t cut = kBlock; cut < headerBytes_; cut += kBlock) {
      const auto at = static_cast<std::ptrdiff_t>(cut);
      if (std::equal(file.begin(), file.begin() + at, after_.begin()) &&
          std::equal(file.begin() + at, file.end(), before_.begin() + at)) {
        return true;
      }
    }
    return false;
  }

  // The stored volume needs nothing that a repair changes.
  void CheckContent() const {
    std::uint64_t chain = 0;
    ASSERT_EQ(KQImageFilesOpen(path_.c_str(), "secret", 0, &chain).status, 0);
    Bytes read(data_.size());
    EXPECT_EQ(KQImageFilesRead(chain, 0x10000, read.data(), static_cast<std::uint32_t>(read.size()),
                               nullptr)
                  .status,
              0);
    EXPECT_TRUE(read == data_);
    ASSERT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
  }

  Dice dice_{TestSeed()};
  std::uint64_t issues_ = 0;
  std::size_t headerBytes_ = 0;
  Bytes before_;
  Bytes after_;
  Bytes data_;
  int untouched_ = 0;
  int repaired_ = 0;
  int cutOff_ = 0;
};

TEST_F(RepairCrash, NothingButTheHeaderDiffers) {
  const Kills kills = KillAtRandom(
      kKills,
      {.prepare = [this] { Prepare(); },
       .begin = [this] { WriteFile(path_, before_); },
       .work = [this](const StepDone&) { return Repair(issues_, "secret").status == 0; },
       .check = [this](const Outcome& outcome) { Check(outcome); },
       .pages = 20},
      &dice_);
  std::printf("%d killed, %d of them in a call; %d untouched, %d repaired, %d cut off\n", kills.all,
              kills.inCall, untouched_, repaired_, cutOff_);
  EXPECT_GT(untouched_, 0);
  EXPECT_GT(repaired_, 0);
}

// Random deaths seldom come in the midst of the one write of the header.
TEST_F(RepairCrash, HeaderWhoseWriteIsCutOffIsNotSound) {
  Prepare(8, kBlock, dice_.Below(5), 3);
  bool killed = true;
  for (std::uint32_t calls = 0; killed && !HasFailure(); ++calls) {
    SCOPED_TRACE(calls);
    WriteFile(path_, before_);
    const Outcome outcome = RunAndKill(
        [this](const StepDone& stepDone) {
          stepDone();
          return Repair(issues_, "secret").status == 0;
        },
        {.steps = 1, .inCall = true, .calls = calls, .pages = 1});
    Check(outcome);
    killed = outcome.killed;
  }
  EXPECT_EQ(cutOff_, 1);
}

}  // namespace
}  // namespace kqtest
