// Chains written and read through the exported functions alone, against a flat model of the volume.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "kqimageformat.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_seed.h"

namespace {

class Campaign {
 public:
  Campaign(std::uint32_t compression, std::uint32_t sectorSize, std::uint64_t seed)
      : compression_(compression), sectorSize_(sectorSize), random_(seed) {
    volume_.resize(kVolumeSectors * sectorSize_);
  }

  void AddImage() {
    std::vector<std::uint8_t> header(sectorSize_ * headerSectors_);
    ImageHeader record{};
    if (files_.empty()) {
      std::memcpy(record.Magic, KQ_MAGIC_FINISHED, 4);
      record.SectorSize = sectorSize_;
      record.CompressionType = compression_;
      std::memset(record.ImageSetId, 0x5E, sizeof record.ImageSetId);
    } else {
      const std::vector<std::uint8_t> parent = kqtest::ReadFile(files_.back());
      std::memcpy(&record, parent.data(), sizeof record);
    }
    record.SourceSize = volume_.size();
    std::memcpy(header.data(), &record, sizeof record);

    const std::string path = folder_.Path("image-" + std::to_string(files_.size()));
    std::uint64_t image = 0;
    ASSERT_EQ(
        KQNewImageFileCreate2(header.data(), static_cast<std::uint32_t>(header.size()), nullptr,
                              path.c_str(), nullptr, nullptr, nullptr, nullptr, &image)
            .status,
        0);
    WriteStretches(image);
    ASSERT_EQ(KQNewImageFileClose(image, "a comment").status, 0);
    files_.push_back(path);
  }

  // Reads random ranges, at any alignment, through a chain given in random order.
  void Check(int reads) {
    std::vector<std::string> order = files_;
    std::shuffle(order.begin(), order.end(), random_);
    std::string list;
    for (const std::string& file : order) list += (list.empty() ? "" : "|") + file;
    std::uint64_t chain = 0;
    ASSERT_EQ(KQImageFilesOpen(list.c_str(), nullptr, 0, &chain).status, 0);
    for (int i = 0; i < reads; ++i) {
      const std::uint64_t beyond = volume_.size() + 3 * sectorSize_;
      const std::uint64_t offset = Below(beyond);
      const auto length = static_cast<std::uint32_t>(1 + Below(Below(4) == 0 ? 3000000 : 20000));
      std::vector<std::uint8_t> expected(length);
      for (std::uint32_t at = 0; at < length && offset + at < volume_.size(); ++at) {
        expected[at] = volume_[offset + at];
      }
      std::vector<std::uint8_t> read(length, 0xCD);
      std::uint32_t count = 0;
      ASSERT_EQ(KQImageFilesRead(chain, offset, read.data(), length, &count).status, 0);
      ASSERT_EQ(count, length);
      ASSERT_TRUE(read == expected) << "offset " << offset << " length " << length;
    }
    ASSERT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
  }

 private:
  static constexpr std::uint64_t kVolumeSectors = 6000;

  std::uint64_t Below(std::uint64_t limit) { return random_() % limit; }

  // In rising order, as the index wants it, with gaps; text, noise and zeros.
  void WriteStretches(std::uint64_t image) {
    std::uint64_t sector = Below(50);
    const bool scattered = Below(2) == 0;
    while (sector < kVolumeSectors) {
      const std::uint64_t wanted = 1 + Below(scattered ? 3 : 900);
      const std::uint64_t count = std::min(wanted, kVolumeSectors - sector);
      std::uint8_t* const data = volume_.data() + sector * sectorSize_;
      Fill(data, count * sectorSize_);
      ASSERT_EQ(KQNewImageFileWrite(image, data, static_cast<std::uint32_t>(count * sectorSize_),
                                    sector * sectorSize_)
                    .status,
                0);
      sector += count + (Below(3) == 0 ? 0 : 1 + Below(scattered ? 8 : 2000));
    }
  }

  void Fill(std::uint8_t* data, std::uint64_t size) {
    switch (Below(4)) {
      case 0:
        std::memset(data, 0, size);
        break;
      case 1:
        for (std::uint64_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(random_());
        break;
      default: {
        const std::uint64_t word = Below(1000);
        for (std::uint64_t i = 0; i < size; ++i) {
          data[i] = static_cast<std::uint8_t>("the quick brown fox "[(i + word) % 20]);
        }
        for (std::uint64_t i = 0; i < size / 16; ++i) {
          data[Below(size)] = static_cast<std::uint8_t>(random_());
        }
      }
    }
  }

  kqtest::TempDir folder_;
  std::uint32_t compression_;
  std::uint32_t sectorSize_;
  std::uint32_t headerSectors_ = 2;
  std::mt19937_64 random_;
  std::vector<std::uint8_t> volume_;
  std::vector<std::string> files_;
};

class ChainModel : public testing::TestWithParam<std::tuple<std::uint32_t, std::uint32_t>> {};

TEST_P(ChainModel, EveryByteReadsAsTheNewestWriterLeftIt) {
  const auto [compression, sectorSize] = GetParam();
  Campaign campaign(compression, sectorSize, kqtest::TestSeed());
  for (int image = 0; image < 6; ++image) {
    ASSERT_NO_FATAL_FAILURE(campaign.AddImage());
    ASSERT_NO_FATAL_FAILURE(campaign.Check(30));
  }
}

INSTANTIATE_TEST_SUITE_P(EachKind, ChainModel,
                         testing::Combine(testing::Values(KQ_COMPRESSION_NONE, KQ_COMPRESSION_LZO,
                                                          KQ_COMPRESSION_LZO_HUFFMAN),
                                          testing::Values(512u, 1024u, 4096u)),
                         [](const auto& instance) {
                           return "Type" + std::to_string(std::get<0>(instance.param)) + "Sector" +
                                  std::to_string(std::get<1>(instance.param));
                         });

}  // namespace
