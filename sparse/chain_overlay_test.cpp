// A sparse file over a chain: its way from a handle into the chain, reads that see it, and writes.
#include <cerrno>

#include "foundation/system_calls_test.h"
#include "sparse/overlay_support_test.h"

namespace kqtest {
namespace {

using ChainOverlayOpen = OverlayTest;

TEST_F(ChainOverlayOpen, TakesTheHandleOver) {
  const std::uint64_t sparse = OpenHandle();
  const std::uint64_t chain = OpenChain(images_.Write("base.twf", base_), sparse);
  EXPECT_NE(chain, 0u);
  std::uint8_t byte = 0;
  ExpectStatus(KQSparseFileRead(sparse, 0, &byte, 1, nullptr), -87, "objmgr");
  ExpectStatus(KQSparseFileClose(sparse, 0), -87, "objmgr");
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayOpen, OneHandleServesOneChainOnly) {
  const std::uint64_t sparse = OpenHandle();
  const std::string files = images_.Write("base.twf", base_);
  const std::uint64_t chain = OpenChain(files, sparse);
  std::uint64_t second = 7;
  ExpectStatus(KQImageFilesOpen(files.c_str(), nullptr, sparse, &second), -87, "objmgr");
  EXPECT_EQ(second, 0u);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayOpen, NullArgumentsLeaveTheHandleAlone) {
  const std::uint64_t sparse = OpenHandle();
  const std::string files = images_.Write("base.twf", base_);
  std::uint64_t chain = 7;
  ExpectStatus(KQImageFilesOpen(nullptr, nullptr, sparse, &chain), -87, "kqimageapi");
  EXPECT_EQ(chain, 0u);
  ExpectStatus(KQImageFilesOpen(files.c_str(), nullptr, sparse, nullptr), -87, "kqimageapi");
  EXPECT_EQ(KQSparseFileClose(sparse, 0).status, 0);
}

TEST_F(ChainOverlayOpen, UnknownHandleIsNoticedBeforeTheFilesAreLookedAt) {
  std::uint64_t chain = 7;
  const std::string missing = images_.Path("missing");
  ExpectStatus(KQImageFilesOpen(missing.c_str(), nullptr, 0x7777777777, &chain), -87, "objmgr");
  EXPECT_EQ(chain, 0u);
}

// Each way in which an open can fail once the handle is taken.
TEST_F(ChainOverlayOpen, FailureConsumesTheHandleAndKeepsTheFile) {
  ImageSpec unfinished = base_;
  unfinished.header.magic = "OPEN";
  ImageSpec unreadable = base_;
  unreadable.header.compressionType = 3;
  ImageSpec sealed = base_;
  EncipherImage(&sealed, 2, "right");
  const struct {
    std::string files;
    std::int32_t status;
  } cases[] = {
      {images_.Path("missing"), -2},
      {images_.Write("unfinished", unfinished), -1392},
      {images_.Write("lone", Increment(base_, 2, 0, PatternBytes(2, 512))), -18},
      {images_.Write("unreadable", unreadable), -1630},
      {images_.Write("sealed", sealed), -86},
  };
  for (const auto& [files, status] : cases) {
    SCOPED_TRACE(files);
    SparseModel model = ModelOf({{1024, PatternBytes(3, 700)}});
    const std::uint64_t sparse = OpenModelHandle(model);
    const Bytes more = PatternBytes(4, 300);
    ASSERT_EQ(KQSparseFileWrite(sparse, 9000, more.data(), 300, nullptr).status, 0);
    model.Write(9000, more);

    std::uint64_t chain = 7;
    EXPECT_EQ(KQImageFilesOpen(files.c_str(), "wrong", sparse, &chain).status, status);
    EXPECT_EQ(chain, 0u);
    EXPECT_TRUE(File() == model.File()) << "the sparse file was not closed as it should be";
    EXPECT_EQ(KQImageFilesOpen(files.c_str(), "wrong", sparse, &chain).status, -87);
    EXPECT_EQ(KQSparseFileClose(sparse, 0).status, -87);
    EXPECT_EQ(OpenFileCount(), 0u);
  }
}

TEST_F(ChainOverlayOpen, EachAllocationThatFailsClosesTheSparseFile) {
  const std::string files = images_.Write("base.twf", base_);
  const SparseModel model = ModelOf({{512, PatternBytes(3, 512)}});
  int refused = 0;
  for (int after = 0;; ++after) {
    SCOPED_TRACE(after);
    const std::uint64_t sparse = OpenModelHandle(model);
    const std::uint64_t descriptors = OpenDescriptors();
    std::uint64_t chain = 7;
    KQStatus status{};
    int failures = 0;
    {
      const FailingCall noMemory(Call::kMalloc, ENOMEM, 1, after);
      status = KQImageFilesOpen(files.c_str(), nullptr, sparse, &chain);
      failures = noMemory.failures();
    }
    if (status.status == 0) {
      EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
    } else {
      ++refused;
      EXPECT_EQ(status.status, -8);
      EXPECT_EQ(chain, 0u);
      EXPECT_EQ(KQSparseFileClose(sparse, 0).status, -87);
      EXPECT_EQ(OpenDescriptors(), descriptors - 1);
    }
    EXPECT_TRUE(File() == model.File());
    if (failures == 0) break;
  }
  EXPECT_GE(refused, 6);
}

using ChainOverlayRead = OverlayTest;

TEST_F(ChainOverlayRead, OverlayBeatsAllFilesAndTheirHoles) {
  // The increment holds sectors 20 to 29; the overlay holds a stretch of the base alone, one across
  // the increment's start, one in a hole, and one that no file reaches.
  const Bytes inFile = PatternBytes(2, 10 * 512);
  const ImageSpec increment = Increment(base_, 2, 20 * 512, inFile);
  SetBytes(&volume_, std::size_t{20} * 512, inFile);
  volume_.resize(200 * 512);
  SparseModel model;
  const std::pair<std::size_t, std::size_t> stretches[] = {
      {3, 1000}, {19 * 512 + 1, 1023}, {100 * 512 + 7, 2000}, {190 * 512, 512}};
  std::uint64_t seed = 10;
  for (const auto& [offset, size] : stretches) {
    const Bytes data = PatternBytes(seed++, size);
    model.Write(static_cast<std::int64_t>(offset), data);
    SetBytes(&volume_, offset, data);
  }
  const std::uint64_t chain =
      OpenChain(images_.Write("i.twi", increment) + "|" + images_.Write("base.twf", base_),
                OpenModelHandle(model));
  ExpectRead(chain, 0, volume_);
  ExpectRead(chain, 500, Slice(volume_, 500, 30000));
  for (const std::size_t offset : {2U, 3U, 1002U, 1003U, 19U * 512, 100U * 512 + 6, 190U * 512}) {
    ExpectRead(chain, offset, Slice(volume_, offset, 1));
    ExpectRead(chain, offset, Slice(volume_, offset, 513));
  }
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayRead, OffsetsBeyondTheSignedNumbersFindWhatIsThere) {
  const Bytes data = PatternBytes(2, 300);
  const std::uint64_t chain = OpenBaseUnder(ModelOf({{-400, data}}));
  Bytes expected(1000);
  SetBytes(&expected, 100, data);
  ExpectRead(chain, static_cast<std::uint64_t>(-500), Slice(expected, 0, 500));
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayRead, ChainFailureShowsAlsoWhereTheOverlayCoversTheRange) {
  // A chunk that claims to begin in the header.
  base_.chunks[0].indexFileOffset = 8;
  const std::uint64_t chain = OpenBaseUnder(ModelOf({{0, PatternBytes(2, 64 * 512)}}));
  ExpectFailedRead(chain, 0, 512, -87);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayRead, DamagedTreeZeroesTheBufferAfterAGoodChain) {
  SparseModel model = ModelOf({{512, PatternBytes(2, 512)}});
  const std::uint64_t chain = OpenBaseUnder(model);
  Patch(8192 + 8160, {0x24, 0x01});  // 292 extents in the root, which is not in memory yet
  ExpectFailedRead(chain, 0, 4096, -1392);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayRead, ReadErrorOfTheOverlayIsToldAfterAHundredAttempts) {
  const std::uint64_t chain = OpenBaseUnder(ModelOf({{512, PatternBytes(2, 512)}}));
  // The tree's root, and the chain's own chunks, come into memory.
  ExpectRead(chain, 0, Slice(volume_, 0, 512));
  const std::string log = LogOf([&] {
    const FailingCall broken(Call::kRead, EIO, 1000);
    const KQStatus status = ExpectFailedRead(chain, 0, 2048, -23);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(EIO));
    EXPECT_EQ(broken.failures(), 100);
  });
  EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFE9"));
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

using KQImageFilesWriteTest = OverlayTest;

TEST_F(KQImageFilesWriteTest, ArgumentsAreCheckedBeforeTheHandle) {
  const std::uint64_t chain = OpenBaseUnder(SparseModel());
  const std::uint8_t byte = 1;
  for (const std::uint64_t handle : {chain, std::uint64_t{0x7777777777}}) {
    std::uint32_t count = 7;
    ExpectStatus(KQImageFilesWrite(handle, 0, &byte, 0, &count), -87, "kqimageapi");
    EXPECT_EQ(count, 0u);
    count = 7;
    ExpectStatus(KQImageFilesWrite(handle, 0, nullptr, 1, &count), -87, "kqimageapi");
    EXPECT_EQ(count, 0u);
  }
  std::uint32_t count = 7;
  ExpectStatus(KQImageFilesWrite(0, 0, &byte, 1, &count), -87, "kqimageapi");
  EXPECT_EQ(count, 0u);
  count = 7;
  ExpectStatus(KQImageFilesWrite(0x7777777777, 0, &byte, 1, &count), -87, "objmgr");
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(KQImageFilesWrite(chain, 0, &byte, 0, nullptr).status, -87);
  EXPECT_EQ(KQImageFilesWrite(chain, 0, &byte, 1, nullptr).status, 0);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(KQImageFilesWriteTest, ChainWithoutASparseFileIsWriteProtected) {
  const std::uint64_t chain = OpenChain(images_.Write("base.twf", base_), 0);
  const std::uint8_t byte = 1;
  std::uint32_t count = 7;
  ExpectStatus(KQImageFilesWrite(chain, 0, &byte, 1, &count), -19, "kqimageapi");
  EXPECT_EQ(count, 0u);
  // Its arguments are looked at first.
  ExpectStatus(KQImageFilesWrite(chain, 0, &byte, 0, &count), -87, "kqimageapi");
  ExpectRead(chain, 0, volume_);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

TEST_F(KQImageFilesWriteTest, ReadOnlySparseFileIsWriteProtected) {
  const SparseModel model = ModelOf({{0, PatternBytes(2, 512)}});
  const std::uint64_t chain = OpenBaseUnder(model, kAnyCache, 1);
  const std::uint8_t byte = 1;
  std::uint32_t count = 7;
  ExpectStatus(KQImageFilesWrite(chain, 0, &byte, 1, &count), -19, "utsparsefile");
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
  EXPECT_TRUE(File() == model.File());
}

TEST_F(KQImageFilesWriteTest, WritesShowInReadsAndMakeTheModelsFile) {
  for (const std::uint16_t cacheNodes : {std::uint16_t{0}, kAnyCache}) {
    SparseModel model;
    const std::uint64_t chain = OpenBaseUnder(model, cacheNodes);
    Bytes volume = volume_;
    // A new stretch, one over its end and into the base, one that fills the gap between two.
    const std::pair<std::size_t, std::size_t> stretches[] = {
        {1000, 700}, {1500, 900}, {9000, 512}, {2300, 7000}, {0, 1}, {20000, 12000}};
    std::uint64_t seed = 20;
    for (const auto& [offset, size] : stretches) {
      const Bytes data = PatternBytes(seed++, size);
      Write(chain, offset, data);
      model.Write(static_cast<std::int64_t>(offset), data);
      SetBytes(&volume, offset, data);
      ExpectRead(chain, 0, volume);
    }
    EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
    EXPECT_TRUE(File() == model.File());
  }
}

TEST_F(KQImageFilesWriteTest, FailedWriteTellsNoBytes) {
  const std::uint64_t chain = OpenBaseUnder(SparseModel());
  const Bytes data(512, 1);
  const std::string log = LogOf([&] {
    const FailingCall full(Call::kWrite, ENOSPC, 1000);
    std::uint32_t count = 7;
    const KQStatus status = KQImageFilesWrite(chain, 0, data.data(), 512, &count);
    EXPECT_EQ(status.status, -112);
    EXPECT_EQ(count, 0u);
  });
  EXPECT_EQ(WithoutLineNumbers(log), WriterLine(101, "0xFFFFFF90"));
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

}  // namespace
}  // namespace kqtest
