#include "kqimage/terminal/progress.h"

#include <gtest/gtest.h>

namespace kqimage {
namespace {

TEST(ProgressLine, TellsShareRateAndTimeLeft) {
  EXPECT_EQ(ProgressLine("Imaging", 512 << 20, 1 << 30, 64 << 20, 100),
            "Imaging  50%  512.0 MiB of 1.0 GiB  64.0 MiB/s  0:08 left  "
            "[############............]");
}

TEST(ProgressLine, RoundsDownSoThat100MeansAll) {
  EXPECT_TRUE(ProgressLine("Imaging", 999, 1000, 0, 30).starts_with("Imaging  99%"));
  EXPECT_TRUE(ProgressLine("Imaging", 1000, 1000, 0, 30).starts_with("Imaging 100%"));
}

TEST(ProgressLine, WithoutARateThereIsNoTime) {
  EXPECT_EQ(ProgressLine("Imaging", 0, 1 << 20, 0, 40), "Imaging   0%  0 bytes of 1.0 MiB");
}

TEST(ProgressLine, NeverReachesTheLastColumn) {
  for (std::size_t width = 1; width < 120; ++width) {
    EXPECT_LT(ProgressLine("Imaging", 1, 1 << 30, 1e3, width).size(), width);
  }
}

TEST(ProgressLine, AStandstillShowsNoAbsurdTime) {
  const std::string line = ProgressLine("Imaging", 1, UINT64_MAX, 1e-3, 200);
  EXPECT_EQ(line.find("left"), std::string::npos) << line;
}

}  // namespace
}  // namespace kqimage
