// A million random operations on chains of up to five files under a sparse file, compared with a
// flat model of the volume: writes, reads, closes and opens, and conversions of both ways, with
// every limit of the node cache that matters.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "kqimageapi.h"
#include "tests/campaigns/volume_model.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

#ifdef KQ_SHORT_CAMPAIGNS
constexpr int kOperations = 3000;
constexpr std::uint32_t kChoices = 1500;
#else
constexpr int kOperations = 130000;  // of each of the eight campaigns
// A few of so many operations close the chain.
constexpr std::uint32_t kChoices = 20000;
#endif

constexpr std::size_t kLongestChain = 5;

// Cache limit; whether all writes are of whole sectors, which conversions ask for.
using Shape = std::tuple<std::uint16_t, bool>;

class OverlayCampaign {
 public:
  OverlayCampaign(const Shape& shape, std::uint32_t seed)
      : cacheNodes_(std::get<0>(shape)), wholeSectors_(std::get<1>(shape)), dice_(seed) {}

  void Run() {
    Restart();
    for (int i = 0; i < kOperations && Good(); ++i) {
      const std::uint32_t choice = dice_.Below(kChoices);
      if (choice < kChoices / 20 * 9) {
        Read();
      } else if (choice < kChoices - 24) {
        Write();
      } else if (choice < kChoices - 12 || !wholeSectors_) {
        Reopen();
      } else if (choice < kChoices - 6) {
        ConvertAside();
      } else {
        Convert();
      }
    }
    if (Good()) CheckWhole(chainHandle_);
    if (Good()) Close(nullptr, 0);
    std::printf("%d reads, %d writes, %d reopenings, %d conversions\n", reads_, writes_, reopened_,
                converted_);
  }

  int conversions() const { return converted_; }

 private:
  static bool Good() { return !::testing::Test::HasFatalFailure(); }

  // A chain of written images, with room for some more, under an empty sparse file.
  void Restart() {
    for (const std::string& file : chain_.files()) std::filesystem::remove(file);
    chain_.Restart(1 + dice_.Below(kLongestChain - 1));
    volume_ = chain_.volume();
    Open(KQ_SPARSE_CREATE_ALWAYS);
  }

  void Open(std::int32_t mode) {
    std::uint64_t sparse = 0;
    ASSERT_EQ(KQSparseFileOpen2(sparsePath_.c_str(), mode, 0, cacheNodes_, &sparse).status, 0);
    ASSERT_EQ(
        KQImageFilesOpen(chain_.List().c_str(), kVolumePassword, sparse, &chainHandle_).status, 0);
  }

  void Close(const char* newImage, std::uint8_t deleteSparse) {
    ASSERT_EQ(KQImageFilesClose(chainHandle_, newImage, "comment", deleteSparse).status, 0);
  }

  std::uint32_t Size(std::uint32_t unit) {
    return unit * (1 + dice_.Below(dice_.Below(50) == 0 ? 100 : 8));
  }

  void Read() {
    ++reads_;
    const std::uint32_t offset = dice_.Below(kVolumeBytes + 5000);
    const std::uint32_t size = 1 + dice_.Below(dice_.Below(50) == 0 ? 100000 : 6000);
    Check(chainHandle_, offset, size);
  }

  void Check(std::uint64_t handle, std::uint32_t offset, std::uint32_t size) {
    buffer_.assign(size, 0xA5);
    std::uint32_t count = 0;
    ASSERT_EQ(KQImageFilesRead(handle, offset, buffer_.data(), size, &count).status, 0);
    ASSERT_EQ(count, size);
    const std::uint32_t end = std::min(kVolumeBytes, offset + size);
    const std::uint32_t inside = offset < end ? end - offset : 0;
    ASSERT_TRUE(inside == 0 || std::memcmp(buffer_.data(), &volume_[offset], inside) == 0)
        << "offset " << offset << " size " << size;
    ASSERT_TRUE(std::all_of(buffer_.begin() + inside, buffer_.end(), [](auto b) { return b == 0; }))
        << "behind the volume";
  }
  void CheckWhole(std::uint64_t handle) { Check(handle, 0, kVolumeBytes + 4096); }

  void Write() {
    ++writes_;
    const std::uint32_t unit = wholeSectors_ ? chain_.kind().sectorSize : 1;
    std::uint32_t size = Size(wholeSectors_ ? unit : 300);
    if (!wholeSectors_) size -= dice_.Below(299);
    const std::uint32_t offset = unit * dice_.Below((kVolumeBytes - size) / unit + 1);
    std::uint8_t* data = &volume_[offset];
    dice_.Fill(data, size);
    std::uint32_t count = 0;
    ASSERT_EQ(KQImageFilesWrite(chainHandle_, offset, data, size, &count).status, 0);
    ASSERT_EQ(count, size);
  }

  void Reopen() {
    ++reopened_;
    // Only an empty sparse file gets many small extents again.
    const bool anew = !wholeSectors_ && dice_.Below(2) == 0;
    Close(nullptr, anew ? 1 : 0);
    if (!Good()) return;
    if (anew) {
      Restart();
      return;
    }
    Open(dice_.Below(2) == 0 ? KQ_SPARSE_OPEN_EXISTING : KQ_SPARSE_OPEN_ALWAYS);
  }

  // The closed sparse file becomes an image by its path; it stays what lies over the chain.
  void ConvertAside() {
    ++converted_;
    Close(nullptr, 0);
    const std::string path = chain_.NewPath();
    ASSERT_EQ(KQConvertSparseToIncremental(sparsePath_.c_str(), chain_.files().back().c_str(),
                                           kVolumePassword, path.c_str(), nullptr)
                  .status,
              0);
    if (std::filesystem::exists(path)) {  // not if nothing had been written
      std::uint64_t grown = 0;
      ASSERT_EQ(
          KQImageFilesOpen((path + "|" + chain_.List()).c_str(), kVolumePassword, 0, &grown).status,
          0);
      CheckWhole(grown);
      ASSERT_EQ(KQImageFilesClose(grown, nullptr, nullptr, 0).status, 0);
      std::filesystem::remove(path);
    }
    Open(KQ_SPARSE_OPEN_EXISTING);
  }

  // What lies over the chain becomes its newest file.
  void Convert() {
    ++converted_;
    const bool keep = dice_.Below(2) == 0;
    const std::string path = chain_.NewPath();
    Close(path.c_str(), keep ? 0 : 1);
    ASSERT_EQ(std::filesystem::exists(sparsePath_), keep);
    if (std::filesystem::exists(path)) chain_.Add(path);
    Open(keep ? KQ_SPARSE_CREATE_ALWAYS : KQ_SPARSE_CREATE_NEW);
    CheckWhole(chainHandle_);
    if (chain_.files().size() < kLongestChain) return;
    Close(nullptr, 1);
    Restart();
  }

  std::uint16_t cacheNodes_;
  bool wholeSectors_;
  Dice dice_;
  TempDir folder_;
  std::string sparsePath_ = folder_.Path("sparse");
  ModelChain chain_{&dice_, folder_.Path()};
  Bytes volume_;  // with what lies over the chain
  Bytes buffer_;
  std::uint64_t chainHandle_ = 0;
  int reads_ = 0;
  int writes_ = 0;
  int reopened_ = 0;
  int converted_ = 0;
};

class OverlayModel : public ::testing::TestWithParam<Shape> {};

TEST_P(OverlayModel, EveryByteReadsAsTheLastWriteLeftIt) {
  OverlayCampaign campaign(GetParam(), TestSeed());
  campaign.Run();
}

INSTANTIATE_TEST_SUITE_P(EachCacheLimit, OverlayModel,
                         ::testing::Combine(::testing::Values(1, 2, 10, 1000), ::testing::Bool()),
                         [](const auto& instance) {
                           return "Nodes" + std::to_string(std::get<0>(instance.param)) +
                                  (std::get<1>(instance.param) ? "Sectors" : "Bytes");
                         });

}  // namespace
}  // namespace kqtest
