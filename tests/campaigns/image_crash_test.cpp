// Processes that are killed while they make an image: a base, an increment, or a conversion of a
// sparse file. What is on the disk then is refused by everything that reads images, or it is
// complete and correct; what was there before is as it was.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "tests/campaigns/killed_process.h"
#include "tests/campaigns/volume_model.h"
#include "tests/support/image_parser.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

#ifdef KQ_SHORT_CAMPAIGNS
constexpr int kKills = 20;
#else
constexpr int kKills = 150;
#endif

enum class Making { kBase, kIncrement, kConversion };

std::string Name(Making making) {
  constexpr const char* kNames[] = {"Base", "Increment", "Conversion"};
  return kNames[static_cast<int>(making)];
}

class ImageCrash : public ::testing::TestWithParam<Making> {
 protected:
  // What the process is to make, and of what.
  void Prepare() {
    chain_.Restart(GetParam() == Making::kBase ? 0 : 1 + dice_.Below(3));
    newImage_ = chain_.NewPath();
    before_ = chain_.volume();
    stretches_ = chain_.Change();
    if (GetParam() == Making::kConversion) MakeSparseFile();
    // A base may take the place of an older file, which has its bytes until then.
    older_.clear();
    if (GetParam() == Making::kBase && dice_.Below(2) == 0) older_ = BuildImage({});
    others_.clear();
    for (const std::string& file : Others()) others_.push_back(ReadFile(file));
  }

  void MakeSparseFile() {
    std::uint64_t sparse = 0;
    ASSERT_EQ(KQSparseFileOpen2(sparse_.c_str(), KQ_SPARSE_CREATE_ALWAYS, 0, 10, &sparse).status,
              0);
    for (const Stretch& stretch : stretches_) {
      ASSERT_EQ(KQSparseFileWrite(sparse, stretch.offset, &chain_.volume()[stretch.offset],
                                  stretch.size, nullptr)
                    .status,
                0);
    }
    ASSERT_EQ(KQSparseFileClose(sparse, 0).status, 0);
  }

  // The files that the making only reads.
  std::vector<std::string> Others() const {
    std::vector<std::string> files = chain_.files();
    if (GetParam() == Making::kConversion) files.push_back(sparse_);
    return files;
  }

  bool Make() const {
    if (GetParam() != Making::kConversion) return chain_.WriteImage(newImage_, stretches_);
    return KQConvertSparseToIncremental(sparse_.c_str(), chain_.files().back().c_str(),
                                        kVolumePassword, newImage_.c_str(), "comment")
               .status == 0;
  }

  void Begin() const {
    std::filesystem::remove(newImage_);
    if (!older_.empty()) WriteFile(newImage_, older_);
  }

  void Check(const Outcome& outcome) {
    const std::vector<std::string> files = Others();
    for (std::size_t i = 0; i < files.size(); ++i) {
      ASSERT_TRUE(ReadFile(files[i]) == others_[i]) << files[i] << " is another";
    }
    const bool exists = std::filesystem::exists(newImage_);
    ASSERT_TRUE(exists || outcome.killed) << "no image, and no failure";
    if (!exists) {
      ++missing_;
    } else if (outcome.killed && !older_.empty() && ReadFile(newImage_) == older_) {
      ++olderLeft_;
    } else if (ImageFileInfo info; KQImageFileGetInfo(newImage_.c_str(), &info).status == 0) {
      ++whole_;
      CheckWhole();
      return;
    } else {
      ASSERT_TRUE(outcome.killed) << "an image was made, and is refused";
      ++refused_;
      CheckRefused();
    }
    if (GetParam() != Making::kBase) CheckChain(chain_.List(), before_);
  }

  void CheckWhole() {
    const ParsedImage parsed = ParseImage(ReadFile(newImage_));
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    for (const Stretch& stretch : stretches_) {
      ASSERT_TRUE(parsed.Holds(stretch.offset) && parsed.Holds(stretch.offset + stretch.size - 1))
          << stretch.offset;
    }
    const std::string list = chain_.List();
    CheckChain(list.empty() ? newImage_ : newImage_ + "|" + list, chain_.volume());
  }

  void CheckRefused() {
    std::uint64_t chain = 0;
    const std::string list = chain_.List();
    EXPECT_NE(KQImageFilesOpen((list.empty() ? newImage_ : list + "|" + newImage_).c_str(),
                               kVolumePassword, 0, &chain)
                  .status,
              0);
    std::uint64_t issues = 0;
    EXPECT_NE(KQImageFileFixHeader(newImage_.c_str(), kVolumePassword, &issues, 1, nullptr, nullptr)
                  .status,
              0);
    // A catalogue of the folder knows the other files alone.
    std::uint64_t enumeration = 0;
    ASSERT_EQ(KQImageFilesEnumerationCreate(&enumeration, 0, 0).status, 0);
    ASSERT_EQ(KQImageFilesEnumerationAddDirectory(enumeration, folder_.Path().c_str(), 0, 0).status,
              0);
    std::uint8_t descendants = 0;
    EXPECT_EQ(KQImageFilesEnumerationQueryImageHasDescendants(enumeration, newImage_.c_str(),
                                                              &descendants)
                  .status,
              -2);
    EXPECT_EQ(KQImageFilesEnumerationClose(enumeration).status, 0);
  }

  static void CheckChain(const std::string& files, const Bytes& volume) {
    std::uint64_t chain = 0;
    ASSERT_EQ(KQImageFilesOpen(files.c_str(), kVolumePassword, 0, &chain).status, 0);
    Bytes read(volume.size());
    EXPECT_EQ(KQImageFilesRead(chain, 0, read.data(), kVolumeBytes, nullptr).status, 0);
    EXPECT_TRUE(read == volume) << "the volume has other bytes";
    ASSERT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
  }

  Dice dice_{TestSeed()};
  TempDir folder_;
  ModelChain chain_{&dice_, folder_.Path()};
  std::string sparse_ = folder_.Path("sparse");
  std::string newImage_;
  std::vector<Stretch> stretches_;
  Bytes before_;               // the volume without the new image
  Bytes older_;                // the file in whose place the new image comes; may be empty
  std::vector<Bytes> others_;  // the bytes of Others()
  int missing_ = 0;
  int olderLeft_ = 0;
  int refused_ = 0;
  int whole_ = 0;
};

TEST_P(ImageCrash, KilledProcessLeavesARefusedFileOrACompleteImage) {
  const Kills kills = KillAtRandom(kKills,
                                   {.prepare = [this] { Prepare(); },
                                    .begin = [this] { Begin(); },
                                    .work = [this](const StepDone&) { return Make(); },
                                    .check = [this](const Outcome& outcome) { Check(outcome); },
                                    .pages = 250},
                                   &dice_);
  std::printf("%d killed, %d of them in a call; %d whole, %d refused, %d not begun, %d older\n",
              kills.all, kills.inCall, whole_, refused_, missing_, olderLeft_);
  EXPECT_GT(kills.inCall, 0);
  EXPECT_GT(refused_, 0);
}

INSTANTIATE_TEST_SUITE_P(EachMaking, ImageCrash,
                         ::testing::Values(Making::kBase, Making::kIncrement, Making::kConversion),
                         [](const auto& instance) { return Name(instance.param); });

}  // namespace
}  // namespace kqtest
