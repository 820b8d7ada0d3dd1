// Random writes, reads and reopenings, compared with the model: every read as it goes, and the
// whole file, byte by byte, after each close.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "kqimageapi.h"
#include "sparse/sparse_support_test.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

struct Shape {
  std::int64_t first;   // lowest offset
  std::uint32_t units;  // offsets are multiples of unit from there
  std::uint32_t unit;
  std::uint32_t mostUnits;  // sizes
};

class RandomRun {
 public:
  RandomRun(const Shape& shape, std::uint16_t cacheNodes, std::uint32_t seed)
      : shape_(shape), cacheNodes_(cacheNodes), random_(seed), path_(folder_.Path("sparse")) {}

  void Run(int operations) {
    ASSERT_EQ(
        KQSparseFileOpen2(path_.c_str(), KQ_SPARSE_CREATE_NEW, 0, cacheNodes_, &handle_).status, 0);
    for (int i = 0; i < operations && !::testing::Test::HasFatalFailure(); ++i) {
      const std::uint32_t choice = Below(100);
      if (choice == 0) {
        Reopen();
      } else if (choice < 25) {
        Read();
      } else {
        Write();
      }
    }
    if (!::testing::Test::HasFatalFailure()) Close();
  }

  const SparseModel& model() const { return model_; }

 private:
  std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
  std::uint32_t Size() { return shape_.unit * (1 + Below(shape_.mostUnits)); }
  std::int64_t Offset() { return shape_.first + std::int64_t{shape_.unit} * Below(shape_.units); }
  std::size_t Distance() { return Below(2) == 0 ? 0 : 1 + Below(4095); }

  void Write() {
    const std::int64_t offset = Offset();
    Bytes data(Size());
    for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(random_());
    const Placed placed(data, Distance());
    std::uint32_t count = 0;
    ASSERT_EQ(KQSparseFileWrite(handle_, static_cast<std::uint64_t>(offset), placed.data(),
                                static_cast<std::uint32_t>(data.size()), &count)
                  .status,
              0);
    ASSERT_EQ(count, data.size());
    model_.Write(offset, data);
    std::uint64_t dataBytes = 0;
    ASSERT_EQ(KQSparseFileGetNumDataBytes(handle_, &dataBytes).status, 0);
    ASSERT_EQ(dataBytes, model_.dataBytes());
  }

  void Read() {
    const std::int64_t offset = Offset();
    const std::uint32_t size = Size();
    const Placed placed(size, Distance(), 0xA5);
    std::uint32_t count = 0;
    ASSERT_EQ(
        KQSparseFileRead(handle_, static_cast<std::uint64_t>(offset), placed.data(), size, &count)
            .status,
        0);
    ASSERT_EQ(count, size);
    const Bytes expected = model_.Read(offset, size, 0xA5);
    ASSERT_EQ(std::memcmp(placed.data(), expected.data(), size), 0) << offset << " " << size;
  }

  void Close() {
    ASSERT_EQ(KQSparseFileClose(handle_, 0).status, 0);
    ASSERT_TRUE(ReadFile(path_) == model_.File()) << "the file differs from the model";
  }

  void Reopen() {
    Close();
    const std::int32_t mode = Below(2) == 0 ? KQ_SPARSE_OPEN_EXISTING : KQ_SPARSE_OPEN_ALWAYS;
    ASSERT_EQ(KQSparseFileOpen2(path_.c_str(), mode, 0, cacheNodes_, &handle_).status, 0);
  }

  Shape shape_;
  std::uint16_t cacheNodes_;
  std::mt19937 random_;
  TempDir folder_;
  std::string path_;
  SparseModel model_;
  std::uint64_t handle_ = 0;
};

class SparseFileRandom : public ::testing::TestWithParam<std::uint16_t> {};

TEST_P(SparseFileRandom, ScatteredSectorsMakeTheModelsFile) {
  RandomRun run({0, 1U << 20, 512, 2}, GetParam(), TestSeed());
  run.Run(900);
  EXPECT_GT(run.model().nodes().size(), 3U);  // nodes were split
}

TEST_P(SparseFileRandom, DenseSectorsMakeTheModelsFile) {
  RandomRun run({1 << 30, 1500, 512, 24}, GetParam(), TestSeed());
  run.Run(700);
}

TEST_P(SparseFileRandom, UnalignedRangesMakeTheModelsFile) {
  RandomRun run({12345, 3000000, 1, 9000}, GetParam(), TestSeed());
  run.Run(500);
}

TEST_P(SparseFileRandom, SingleBytesMakeTheModelsFile) {
  RandomRun run({-700, 1400, 1, 3}, GetParam(), TestSeed());
  run.Run(900);
}

INSTANTIATE_TEST_SUITE_P(CacheLimits, SparseFileRandom, ::testing::Values(0, 1, 2, 3, 10, 1000));

}  // namespace
}  // namespace kqtest
