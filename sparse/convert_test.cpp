// A sparse file's extents in the chunks of the new image, and what the new image's header says.
#include <fcntl.h>

#include <algorithm>

#include "foundation/system_calls_test.h"
#include "sparse/overlay_support_test.h"

namespace kqtest {
namespace {

class Convert : public OverlayTest {
 protected:
  // Converts the model's file over the base that base_ describes.
  KQStatus Run(const SparseModel& model, const char* password = nullptr,
               const std::uint8_t* imageId = nullptr, const std::uint64_t* sourceSize = nullptr) {
    WriteFile(path_, model.File());
    parent_ = images_.Write("base.twf", base_);
    return KQConvertSparseToIncremental3(path_.c_str(), parent_.c_str(), password, new_.c_str(),
                                         nullptr, imageId, sourceSize);
  }

  // The new image's bytes behind its header as the writer makes them of the same extents, in rising
  // order, one piece an extent.
  Bytes WritersBody(const SparseModel& model) {
    const std::string path = images_.Path("written");
    Writer writer(path, BuildHeader(base_));
    EXPECT_EQ(writer.status().status, 0);
    const Bytes file = model.File();
    for (const auto& [offset, extent] : model.extents()) {
      const Bytes data = Slice(file, extent.position, extent.length);
      EXPECT_EQ(writer.Write(static_cast<std::uint64_t>(offset), data).status, 0);
    }
    EXPECT_EQ(writer.Close().status, 0);
    return BodyOf(path);
  }
  Bytes BodyOf(const std::string& path) const {
    const Bytes file = ReadFile(path);
    const std::size_t header = base_.header.sectorSize + base_.header.laterSectors.size();
    return Slice(file, header, file.size() - header);
  }

  std::string parent_;
};

TEST_F(Convert, NeitherFileIsChangedAndBothAreOpenedForReadingOnly) {
  const SparseModel model = ModelOf({{0, PatternBytes(2, 512)}});
  ASSERT_EQ(Run(model).status, 0);
  std::vector<CallRecord> opened;
  {
    const CallCounter opens(Call::kOpen);
    ASSERT_EQ(
        KQConvertSparseToIncremental(path_.c_str(), parent_.c_str(), nullptr, new_.c_str(), nullptr)
            .status,
        0);
    opened = opens.seen();
  }
  const auto writable = std::count_if(opened.begin(), opened.end(), [](const CallRecord& call) {
    return (call.flags & O_ACCMODE) != O_RDONLY;
  });
  EXPECT_EQ(writable, 1);  // the new image
  EXPECT_TRUE(File() == model.File());
  EXPECT_TRUE(ReadFile(parent_) == BuildImage(base_));
  EXPECT_EQ(OpenFileCount(), 0u);
}

TEST_F(Convert, HeaderIsTheParentsAsItsChild) {
  base_.header.generation = 4;
  base_.header.nextGeneration = 9;
  base_.header.partMarker = 3;
  base_.header.comment = u"the parent's";
  base_.header.laterSectors = PatternBytes(8, 3 * 512);
  const auto before = std::filesystem::file_time_type::clock::now();
  ASSERT_EQ(Run(ModelOf({{0, PatternBytes(2, 512)}})).status, 0);
  const HeaderFields header = NewImage().header;
  EXPECT_EQ(header.sectorSize, 512u);
  EXPECT_EQ(header.parentImageId, base_.header.imageId);
  EXPECT_NE(header.imageId, base_.header.imageId);
  EXPECT_NE(header.imageId, Id{});
  EXPECT_EQ(header.imageSetId, base_.header.imageSetId);
  EXPECT_EQ(header.generation, 9u);
  EXPECT_EQ(header.nextGeneration, 10u);
  EXPECT_EQ(header.partIndex, 0u);
  EXPECT_EQ(header.partMarker, 0u);
  EXPECT_EQ(header.sourceSize, base_.header.sourceSize);
  EXPECT_EQ(header.laterSectors, base_.header.laterSectors);
  EXPECT_TRUE(header.comment.empty());  // the new image has its own, or none
  EXPECT_NE(header.creationTime, base_.header.creationTime);
  EXPECT_GE(std::filesystem::last_write_time(new_), before - std::chrono::seconds(2));
}

TEST_F(Convert, ShorterFormsLackIdentifierAndSourceSize) {
  const Id id = MakeId(0x1D);
  const std::uint64_t size = 77;
  WriteFile(path_, ModelOf({{0, PatternBytes(2, 512)}}).File());
  const std::string parent = images_.Write("base.twf", base_);
  for (int form = 1; form <= 3; ++form) {
    const char* sparse = path_.c_str();
    const char* base = parent.c_str();
    const char* name = new_.c_str();
    const KQStatus status =
        form == 1 ? KQConvertSparseToIncremental(sparse, base, nullptr, name, "text")
        : form == 2
            ? KQConvertSparseToIncremental2(sparse, base, nullptr, name, "text", id.data())
            : KQConvertSparseToIncremental3(sparse, base, nullptr, name, "text", id.data(), &size);
    EXPECT_EQ(status.status, 0);
    const HeaderFields header = NewImage().header;
    EXPECT_EQ(header.imageId == id, form > 1);
    EXPECT_EQ(header.sourceSize, form == 3 ? size : base_.header.sourceSize);
    EXPECT_EQ(header.comment, u"text");
  }
}

TEST_F(Convert, TwoConversionsFromOneParentAreSiblings) {
  const SparseModel model = ModelOf({{0, PatternBytes(2, 512)}});
  ASSERT_EQ(Run(model).status, 0);
  const HeaderFields first = NewImage().header;
  ASSERT_EQ(Run(model).status, 0);
  const HeaderFields second = NewImage().header;
  EXPECT_EQ(first.generation, 1u);
  EXPECT_EQ(second.generation, 1u);
  EXPECT_EQ(first.parentImageId, second.parentImageId);
  EXPECT_NE(first.imageId, second.imageId);
}

TEST_F(Convert, RecordPassesItsCarriedValuesOn) {
  RecordFields record;
  record.recordFlags = 0xFFFF;
  record.snapshotSetId = MakeId(0x5A);
  record.carriedId = MakeId(0xCA);
  record.carriedValue1 = 0x1111;
  record.carriedValue2 = 0x2222;
  record.carriedValue4 = 0x4444;
  record.carriedValue5 = 0x5555;
  record.carriedValue6 = 0x6666;
  record.carriedValue7 = 0x77;
  record.carriedValue8 = 0x8888;
  record.carriedValue9 = 0x9999;
  base_.header.record = record;
  base_.header.comment = u"in front of it";
  for (const std::size_t later : {0U, 1024U}) {
    base_.header.laterSectors = PatternBytes(8, later);
    ASSERT_EQ(Run(ModelOf({{0, PatternBytes(2, 512)}})).status, 0);
    const ParsedImage image = NewImage();
    ASSERT_TRUE(image.header.record.has_value());
    RecordFields expected = record;
    expected.recordFlags = 0x128;
    expected.snapshotSetId = Id{};
    expected.fileUuid = image.header.record->fileUuid;
    expected.secondUuid = image.header.record->secondUuid;
    if (later == 0) expected.carriedValue3 = 0;
    EXPECT_EQ(*image.header.record, expected);
    EXPECT_NE(expected.fileUuid, record.fileUuid);
    EXPECT_NE(expected.secondUuid, record.secondUuid);
  }
}

TEST_F(Convert, ParentWithoutARecordGivesNone) {
  ASSERT_EQ(Run(ModelOf({{0, PatternBytes(2, 512)}})).status, 0);
  EXPECT_FALSE(NewImage().header.record.has_value());
  EXPECT_EQ(NewImage().header.flags & 2u, 0u);
}

TEST_F(Convert, NoExtentsLeaveNoFile) {
  WriteFile(new_, PatternBytes(1, 5000));  // it is truncated, and removed in the end
  EXPECT_EQ(Run(SparseModel()).status, 0);
  EXPECT_FALSE(NewFileExists());
}

TEST_F(Convert, AdjacentExtentsBecomeOneRunInRisingOrder) {
  const Bytes data = PatternBytes(3, 6 * 512);
  // Written backwards, as six extents.
  SparseModel model;
  for (int i = 5; i >= 0; --i) {
    const auto at = static_cast<std::size_t>(i) * 512;
    model.Write(static_cast<std::int64_t>(2048 + at), Slice(data, at, 512));
  }
  model.Write(0x40000, PatternBytes(4, 512));
  ASSERT_EQ(Run(model).status, 0);
  const ParsedImage image = NewImage();
  ASSERT_EQ(image.chunks.size(), 1u);
  EXPECT_EQ(image.chunks[0].runs, (std::vector<VolumeRun>{{2048, 6}, {0x40000, 1}}));
  ExpectHolds(image, 2048, data);
}

TEST_F(Convert, ExtentLongerThanAChunkGoesOverSeveral) {
  const SparseModel model = ModelOf({{512, PatternBytes(3, 5 * 512)},
                                     {1 << 20, PatternBytes(4, (5 << 20) / 2)},
                                     {64 << 20, PatternBytes(5, 512)}});
  ASSERT_EQ(Run(model).status, 0);
  EXPECT_EQ(NewImage().chunks.size(), 3u);
  EXPECT_TRUE(BodyOf(new_) == WritersBody(model));
}

// A chunk ends early when its run list is full, also in the middle of what belongs together.
TEST_F(Convert, ManyScatteredExtentsFillRunListsAsTheWriterDoes) {
  SparseModel model;
  for (std::int64_t i = 0; i < 900; ++i) {
    model.Write(i * 1536 + (i % 7 == 0 ? 512 : 0),
                PatternBytes(static_cast<std::uint64_t>(i), i % 7 == 3 ? 1024 : 512));
  }
  model.Write(1 << 21, PatternBytes(9, 3 << 20));
  ASSERT_EQ(Run(model).status, 0);
  EXPECT_GT(NewImage().chunks.size(), 5u);
  EXPECT_TRUE(BodyOf(new_) == WritersBody(model));
}

TEST_F(Convert, ExtentsThatAreNoWholeSectorsAreTakenAsTheyAre) {
  const SparseModel model = ModelOf({{100, PatternBytes(2, 700)},
                                     {5000, PatternBytes(3, 30)},
                                     {6000, PatternBytes(4, 2 << 20)},
                                     {9 << 20, PatternBytes(5, 1)}});
  std::string log = LogOf([&] { EXPECT_EQ(Run(model).status, 0); });
  EXPECT_EQ(log, "ASSERT: zero-length run!\nASSERT: zero-length run!\n");
  log = LogOf([&] { EXPECT_TRUE(BodyOf(new_) == WritersBody(model)); });
  EXPECT_EQ(log, "ASSERT: zero-length run!\nASSERT: zero-length run!\n");
}

TEST_F(Convert, WhatTheFileDoesNotHaveOfAnExtentIsZero) {
  SparseModel model = ModelOf({{0, PatternBytes(2, 8192)}});
  Bytes file = model.File();
  file.resize(file.size() - 4096);
  const std::string parent = images_.Write("base.twf", base_);
  WriteFile(path_, file);
  ASSERT_EQ(
      KQConvertSparseToIncremental(path_.c_str(), parent.c_str(), nullptr, new_.c_str(), nullptr)
          .status,
      0);
  Bytes expected = Slice(PatternBytes(2, 8192), 0, 4096);
  expected.resize(8192);
  ExpectHolds(NewImage(), 0, expected);
}

TEST_F(Convert, ZerosThatWereWrittenHideTheParentsData) {
  for (const std::uint32_t compression : {0U, 5U, 6U}) {
    base_.header.compressionType = compression;
    ASSERT_EQ(Run(ModelOf({{512, Bytes(4096)}})).status, 0);
    const std::uint64_t chain = OpenChain(parent_ + "|" + new_, 0);
    Bytes expected = volume_;
    std::fill_n(expected.begin() + 512, 4096, std::uint8_t{0});
    ExpectRead(chain, 0, expected);
    EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
  }
}

}  // namespace
}  // namespace kqtest
