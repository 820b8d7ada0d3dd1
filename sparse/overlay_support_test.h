// What the tests of overlays and conversions share: a chain of images composed byte by byte with a
// sparse file over it, and the new image taken apart.
#ifndef KQ_SPARSE_OVERLAY_SUPPORT_TEST_H
#define KQ_SPARSE_OVERLAY_SUPPORT_TEST_H

#include <filesystem>
#include <string>
#include <utility>

#include "image/chain_test_support.h"
#include "image/new_image_test_support.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {

using kq::ExpectFailedRead;
using kq::ExpectRead;
using kq::OpenFileCount;
using kq::ReadChain;
using kq::Slice;

inline constexpr std::uint16_t kAnyCache = 10;

inline void ExpectStatus(const KQStatus& status, std::int32_t number, const char* module) {
  EXPECT_EQ(status.status, number);
  EXPECT_STREQ(status.file, module);
}

// A base image of 64 sectors of 512 bytes from 0 on, and what lies over it.
class OverlayTest : public SparseTest {
 protected:
  kq::ImageFolder images_;
  ImageSpec base_;
  Bytes volume_ = PatternBytes(1, 64 * 512);
  std::string new_ = images_.Path("new.twi");

  OverlayTest() { base_.chunks = {RawChunk({{0, 64}}, volume_)}; }

  // An increment of the image that parent describes, with a few sectors of its own.
  static ImageSpec Increment(const ImageSpec& parent, std::uint32_t id, std::uint64_t offset,
                             const Bytes& data) {
    ImageSpec spec;
    spec.header = IncrementOf(parent.header, MakeId(id));
    spec.chunks = {RawChunk({{offset, static_cast<std::uint32_t>(data.size() / 512)}}, data)};
    return spec;
  }

  // The chain under a sparse file; 0 if it doesn't open, which fails the test.
  static std::uint64_t OpenChain(const std::string& files, std::uint64_t sparse,
                                 const char* password = nullptr) {
    std::uint64_t chain = 0;
    EXPECT_EQ(KQImageFilesOpen(files.c_str(), password, sparse, &chain).status, 0);
    return chain;
  }

  // The base under what the model holds.
  std::uint64_t OpenBaseUnder(const SparseModel& model, std::uint16_t cacheNodes = kAnyCache,
                              std::uint8_t readOnly = 0) {
    return OpenChain(images_.Write("base.twf", base_),
                     OpenModelHandle(model, cacheNodes, readOnly));
  }

  static void Write(std::uint64_t chain, std::uint64_t offset, const Bytes& data) {
    std::uint32_t count = 7;
    EXPECT_EQ(KQImageFilesWrite(chain, offset, data.data(), static_cast<std::uint32_t>(data.size()),
                                &count)
                  .status,
              0);
    EXPECT_EQ(count, data.size());
  }

  bool NewFileExists() const { return std::filesystem::exists(new_); }
  bool SparseFileExists() const { return std::filesystem::exists(path_); }
  ParsedImage NewImage(const char* password = nullptr) const {
    return ParseFile(ReadFile(new_), password);
  }
};

// One stretch of data at an offset.
inline SparseModel ModelOf(std::initializer_list<std::pair<std::int64_t, Bytes>> stretches) {
  SparseModel model;
  for (const auto& [offset, data] : stretches) model.Write(offset, data);
  return model;
}

// The image's data of that range, which its chunks must hold from end to end.
inline void ExpectHolds(const ParsedImage& image, std::uint64_t offset, const Bytes& expected) {
  for (std::uint64_t at = offset; at < offset + expected.size(); at += 512) {
    EXPECT_TRUE(image.Holds(at)) << at;
  }
  EXPECT_TRUE(image.ReadVolume(offset, expected.size()) == expected) << "wrong bytes at " << offset;
}

}  // namespace kqtest

#endif
