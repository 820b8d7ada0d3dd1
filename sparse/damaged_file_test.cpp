// Random damage in the header block and the nodes: whatever the file says, every call comes back
// with a status, in short time and within its memory.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "sparse/sparse_support_test.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

class DamagedFile : public SparseTest {
 protected:
  std::mt19937_64 random_{TestSeed()};

  std::uint64_t Below(std::uint64_t limit) { return random_() % limit; }

  // A byte in the header block's fields, or in any field of a node.
  std::size_t AnyPlace(const std::vector<std::uint64_t>& nodes) {
    if (Below(8) == 0) return 4 + Below(17);
    const std::size_t node = nodes[Below(nodes.size())];
    switch (Below(4)) {
      case 0:
        return node + 8160 + Below(5);
      case 1:
        return node + 5824 + Below(8 * 6);
      default:
        return node + 4 + Below(20 * 291);
    }
  }

  void Use(std::uint16_t cacheNodes) {
    // -1392 damaged, -87 a position that nobody can seek to, -31 one that is too far for the file
    // system, -87 also for a handle that could not be had.
    const std::set<std::int32_t> expected = {0, -1392, -87, -31};
    std::uint64_t handle = 0;
    const std::int32_t opened =
        KQSparseFileOpen2(path_.c_str(), KQ_SPARSE_OPEN_EXISTING, 0, cacheNodes, &handle).status;
    EXPECT_TRUE(expected.contains(opened)) << opened;
    if (opened != 0) return;
    Bytes buffer(20000);
    for (int i = 0; i < 6; ++i) {
      const std::uint64_t offset = Below(4) == 0 ? random_() : Below(1400 * 100);
      const auto size = static_cast<std::uint32_t>(1 + Below(buffer.size()));
      const std::int32_t status =
          Below(2) == 0 ? KQSparseFileRead(handle, offset, buffer.data(), size, nullptr).status
                        : KQSparseFileWrite(handle, offset, buffer.data(), size, nullptr).status;
      EXPECT_TRUE(expected.contains(status)) << status;
    }
    const MayLeak leak;
    const std::int32_t closed = KQSparseFileClose(handle, 0).status;
    EXPECT_TRUE(expected.contains(closed)) << closed;
  }
};

TEST_F(DamagedFile, EveryCallComesBackWithAStatus) {
  SparseModel model;
  for (std::int64_t i = 0; i < 700; ++i) {
    model.Write((i * 37 % 700) * 200, Bytes(100, static_cast<std::uint8_t>(i)));
  }
  std::vector<std::uint64_t> nodes;
  for (const auto& [position, node] : model.nodes()) nodes.push_back(position);
  ASSERT_GT(nodes.size(), 3U);
  const Bytes good = model.File();
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    Bytes file = good;
    for (std::uint64_t damage = 1 + Below(6); damage > 0; --damage) {
      file[AnyPlace(nodes)] = static_cast<std::uint8_t>(random_());
    }
    // Or a file that was cut.
    if (Below(8) == 0) file.resize(Below(file.size()));
    WriteFile(path_, file);
    LogOf([&] { Use(static_cast<std::uint16_t>(1 + Below(6))); });
  }
}

}  // namespace
}  // namespace kqtest
