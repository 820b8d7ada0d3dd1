// A volume as it should read, the chain of images that holds it, and the sparse file over that.
#ifndef KQ_TESTS_CAMPAIGNS_VOLUME_MODEL_H
#define KQ_TESTS_CAMPAIGNS_VOLUME_MODEL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kqimageapi.h"
#include "tests/campaigns/dice.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_cipher.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

constexpr std::uint32_t kVolumeBytes = 3 << 19;
constexpr char kVolumePassword[] = "a password";

// What the images of a chain have in common.
struct ChainKind {
  std::uint32_t sectorSize = 512;
  std::uint32_t laterSectors = 0;
  std::uint32_t compressionType = 0;
  std::uint32_t encryptionType = 0;
};

// A part of the volume, in bytes.
struct Stretch {
  std::size_t offset = 0;
  std::uint32_t size = 0;
};

// Images that the writer makes of random stretches. Bytes that none holds are zero.
class ModelChain {
 public:
  ModelChain(Dice* dice, std::string folder) : dice_(dice), folder_(std::move(folder)) {}

  const std::vector<std::string>& files() const { return files_; }
  const Bytes& volume() const { return volume_; }
  const ChainKind& kind() const { return kind_; }

  // In any order.
  std::string List() const {
    std::string list;
    for (const std::string& file : files_) {
      list = list.empty() ? file : dice_->Below(2) == 0 ? list + "|" + file : file + "|" + list;
    }
    return list;
  }

  std::string NewPath() { return folder_ + "/image" + std::to_string(++lastName_); }

  // A base and increments upon it, of a new kind.
  void Restart(std::size_t files) {
    static constexpr std::uint32_t kCompressionTypes[] = {0, 5, 6};
    Restart(files, kCompressionTypes[dice_->Below(3)]);
  }
  void Restart(std::size_t files, std::uint32_t compressionType) {
    static constexpr std::uint32_t kSectorSizes[] = {512, 512, 1024, 4096};
    kind_ = {kSectorSizes[dice_->Below(4)], dice_->Below(3), compressionType,
             dice_->Below(2) == 0 ? 0 : 1 + dice_->Below(4)};
    files_.clear();
    volume_.assign(kVolumeBytes, 0);
    while (files_.size() < files && !::testing::Test::HasFatalFailure()) AddWrittenImage();
  }

  // An image that holds the volume from now on.
  void Add(std::string path) { files_.push_back(std::move(path)); }
  void Set(std::size_t offset, const Bytes& data) { SetBytes(&volume_, offset, data); }

  // New content in random stretches, as the next image can hold them: rising, with gaps.
  std::vector<Stretch> Change() {
    std::vector<Stretch> stretches;
    const std::uint32_t sectors = kVolumeBytes / kind_.sectorSize;
    std::uint32_t sector = dice_->Below(50);
    while (sector < sectors) {
      const std::uint32_t count =
          std::min(1 + dice_->Below(files_.empty() ? 400 : 8), sectors - sector);
      const Stretch stretch = {std::size_t{sector} * kind_.sectorSize, count * kind_.sectorSize};
      dice_->Fill(volume_.data() + stretch.offset, stretch.size);
      stretches.push_back(stretch);
      sector += count + dice_->Below(files_.empty() ? 60 : 500);
    }
    return stretches;
  }

  // Makes an image of stretches of the volume; false if a step fails.
  bool WriteImage(const std::string& path, const std::vector<Stretch>& stretches) const {
    const Bytes headerTemplate = Template();
    std::uint64_t image = 0;
    if (KQNewImageFileCreate2(headerTemplate.data(),
                              static_cast<std::uint32_t>(headerTemplate.size()), kVolumePassword,
                              path.c_str(), nullptr, nullptr, nullptr, nullptr, &image)
            .status != 0) {
      return false;
    }
    for (const Stretch& stretch : stretches) {
      if (KQNewImageFileWrite(image, volume_.data() + stretch.offset, stretch.size, stretch.offset)
              .status != 0) {
        return false;
      }
    }
    return KQNewImageFileClose(image, nullptr).status == 0;
  }

  void AddWrittenImage(const char* extension = "") {
    const std::string path = NewPath() + extension;
    const std::vector<Stretch> stretches = Change();
    ASSERT_TRUE(WriteImage(path, stretches));
    files_.push_back(path);
  }

 private:
  // The newest file's header, or one that makes a base.
  Bytes Template() const {
    if (!files_.empty()) {
      Bytes header = ReadFile(files_.back());
      header.resize(std::size_t{kind_.sectorSize} * (kind_.laterSectors + 1));
      return header;
    }
    ImageSpec spec;
    spec.header.imageId = Id{};
    spec.header.sectorSize = kind_.sectorSize;
    spec.header.sourceSize = kVolumeBytes;
    spec.header.compressionType = kind_.compressionType;
    spec.header.laterSectors = PatternBytes(3, std::size_t{kind_.sectorSize} * kind_.laterSectors);
    if (kind_.encryptionType != 0) EncipherImage(&spec, kind_.encryptionType, kVolumePassword);
    return BuildHeader(spec);
  }

  Dice* dice_;
  std::string folder_;
  ChainKind kind_;
  std::vector<std::string> files_;
  Bytes volume_;
  int lastName_ = 0;
};

}  // namespace kqtest

#endif
