#include "foundation/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(KQLog, PrintsFormattedTextOnStandardErrorOnly) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  kq::KQLog("%s line=%d retries=%d status=0x%08X\n", "SparseFileReader", 12, 101, 0xFFFFFF90U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SparseFileReader line=12 retries=101 status=0xFFFFFF90\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(KQLog, AddsNothingToTheText) {
  testing::internal::CaptureStderr();
  kq::KQLog("a");
  kq::KQLog("%d%%", 5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a5%");
}

TEST(LogAssertion, PrintsTheTextAndReturns) {
  testing::internal::CaptureStderr();
  kq::LogAssertion("zero-length run");
  kq::LogAssertion("100% wrong");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ASSERT: zero-length run!\nASSERT: 100% wrong!\n");
}

TEST(KQLog, MayBeCalledFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kLines = 50;
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < kLines; ++line) kq::KQLog("x\n");
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(printed.begin(), printed.end(), 'x'), kThreads * kLines);
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), kThreads * kLines);
}

}  // namespace
