// The injection itself, and that nothing escapes it.
#include "tests/faults/call_faults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "kqimageapi.h"
#include "tests/faults/scenario.h"

namespace kqtest {
namespace {

Fault FailingAllocation(int number) { return {Fault::Kind::kAllocation, number, 0}; }

// The compiler must not know that nobody uses the blocks.
void* volatile block = nullptr;

TEST(CallFaults, TheChosenAllocationFailsAndNoOther) {
  void* blocks[3] = {};
  {
    const Watch watch(FailingAllocation(2));
    for (void*& made : blocks) made = std::malloc(10);
  }
  EXPECT_TRUE(FaultHappened());
  EXPECT_EQ(AllocationCount(), 3);
  EXPECT_NE(blocks[0], nullptr);
  EXPECT_EQ(blocks[1], nullptr);
  EXPECT_NE(blocks[2], nullptr);
  for (void* made : blocks) std::free(made);
}

TEST(CallFaults, ABlockCountsUntilItIsFreed) {
  const std::size_t before = LiveBlocks();
  {
    const Watch watch({});
    block = std::malloc(10);
  }
  EXPECT_EQ(LiveBlocks(), before + 1);
  std::free(block);
  EXPECT_EQ(LiveBlocks(), before);
  block = std::malloc(10);
  EXPECT_EQ(LiveBlocks(), before);
  std::free(block);
}

TEST(CallFaults, TheLibraryAllocatesAndCallsThroughHere) {
  ImageFileInfo info;
  KQStatus status;
  {
    const Watch watch({Fault::Kind::kFailure, 1, EMFILE});
    status = KQImageFileGetInfo("/dev/null", &info);
  }
  EXPECT_TRUE(FaultHappened());
  EXPECT_EQ(status.status, KQ_STATUS_TOO_MANY_OPEN_FILES);
  {
    const Watch watch(FailingAllocation(1));
    status = KQImageFileGetInfo("/dev/null", &info);
  }
  EXPECT_EQ(status.status, KQ_STATUS_NOT_ENOUGH_MEMORY);
  {
    const Watch watch({});
    KQImageFileGetInfo("/dev/null", &info);
  }
  ASSERT_FALSE(MadeCalls().empty());
  EXPECT_EQ(MadeCalls()[0].call, Call::kOpen);
}

TEST(CallFaults, AShortTransferMovesHalf) {
  const int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  char buffer[10];
  ssize_t counts[2] = {};
  {
    const Watch watch({Fault::Kind::kShortTransfer, 1, 0});
    for (ssize_t& count : counts) count = read(fd, buffer, sizeof buffer);
  }
  close(fd);
  EXPECT_EQ(counts[0], 5);
  EXPECT_EQ(counts[1], 10);
}

std::string TextOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(Scenarios, EveryExportedFunctionIsInOne) {
  const std::filesystem::path tests = std::filesystem::path(KQ_SOURCE_FOLDER) / "tests";
  std::string scenarios;
  for (const auto& entry : std::filesystem::directory_iterator(tests / "faults")) {
    if (entry.path().extension() == ".cpp" &&
        entry.path().filename().string().find("_test") == std::string::npos) {
      scenarios += TextOf(entry.path());
    }
  }
  std::ifstream list(tests / "exported_functions.txt");
  int functions = 0;
  for (std::string name; std::getline(list, name); ++functions) {
    // Called, or handed over to be called.
    EXPECT_TRUE(scenarios.find(name + "(") != std::string::npos ||
                scenarios.find(name + ",") != std::string::npos)
        << name;
  }
  EXPECT_GT(functions, 40);
}

}  // namespace
}  // namespace kqtest
