// What becomes of a sparse file at the close of its chain.
#include <atomic>
#include <cerrno>
#include <thread>

#include "foundation/system_calls_test.h"
#include "sparse/overlay_support_test.h"

namespace kqtest {
namespace {

class ChainOverlayClose : public OverlayTest {
 protected:
  SparseModel model_ = ModelOf({{512, PatternBytes(5, 1024)}, {100 * 512, PatternBytes(6, 512)}});

  void ExpectClosed(std::uint64_t chain) {
    std::uint8_t byte = 0;
    EXPECT_EQ(KQImageFilesRead(chain, 0, &byte, 1, nullptr).status, -87);
    EXPECT_EQ(OpenFileCount(), 0u);
  }
};

TEST_F(ChainOverlayClose, WithoutANameTheSparseFileStaysWithItsChanges) {
  const std::uint64_t chain = OpenBaseUnder(model_);
  const Bytes data = PatternBytes(7, 3000);
  Write(chain, 700, data);
  model_.Write(700, data);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, "comment", 0).status, 0);
  ExpectClosed(chain);
  EXPECT_TRUE(File() == model_.File());
  EXPECT_FALSE(NewFileExists());

  const std::uint64_t again =
      OpenChain(images_.Path("base.twf"), OpenHandle(KQ_SPARSE_OPEN_EXISTING));
  ExpectRead(again, 700, data);
  EXPECT_EQ(KQImageFilesClose(again, nullptr, nullptr, 0).status, 0);
}

TEST_F(ChainOverlayClose, DeleteFlagRemovesTheSparseFileWithoutWritingIt) {
  for (const std::uint8_t flag : {std::uint8_t{1}, std::uint8_t{0x80}}) {
    const std::uint64_t chain = OpenBaseUnder(model_);
    Write(chain, 9000, PatternBytes(7, 512));
    const CallCounter writes(Call::kWrite);
    EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, flag).status, 0);
    EXPECT_EQ(writes.count(), 0u);
    ExpectClosed(chain);
    EXPECT_FALSE(SparseFileExists());
    EXPECT_FALSE(NewFileExists());
  }
}

TEST_F(ChainOverlayClose, DeleteFlagRemovesAReadOnlySparseFileToo) {
  const std::uint64_t chain = OpenBaseUnder(model_, kAnyCache, 1);
  EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 1).status, 0);
  EXPECT_FALSE(SparseFileExists());
  EXPECT_EQ(NewImage().header.parentImageId, base_.header.imageId);
}

TEST_F(ChainOverlayClose, NameMakesAnIncrementOfWhatWasWritten) {
  for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{1}}) {
    SparseModel model = model_;
    const std::uint64_t chain = OpenBaseUnder(model);
    const Bytes data = PatternBytes(7, 4 * 512);
    Write(chain, 2 * 512, data);  // half over an extent, half new
    model.Write(2 * 512, data);
    EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), "a comment \xC3\xA4", flag).status, 0);
    ExpectClosed(chain);
    EXPECT_EQ(SparseFileExists(), flag == 0);
    if (flag == 0) {
      EXPECT_TRUE(File() == model.File());
    }

    const ParsedImage image = NewImage();
    EXPECT_EQ(image.header.comment, u"a comment \u00E4");
    EXPECT_EQ(image.header.sourceSize, base_.header.sourceSize);
    ExpectHolds(image, 512, model.Read(512, 5 * 512, 0));
    ExpectHolds(image, 100 * 512, PatternBytes(6, 512));
    EXPECT_FALSE(image.Holds(0));
    EXPECT_FALSE(image.Holds(6 * 512));

    // The new image takes the overlay's place.
    const std::uint64_t grown = OpenChain(new_ + "|" + images_.Path("base.twf"), 0);
    SetBytes(&volume_, 512, model.Read(512, 5 * 512, 0));
    ExpectRead(grown, 0, volume_);
    EXPECT_EQ(KQImageFilesClose(grown, nullptr, nullptr, 0).status, 0);
  }
}

TEST_F(ChainOverlayClose, LongerFormsGiveIdentifierAndSourceSize) {
  const Id id = MakeId(0x1D);
  const std::uint64_t size = 0x123456789ABC;
  for (int form = 1; form <= 3; ++form) {
    const std::uint64_t chain = OpenBaseUnder(model_);
    const char* name = new_.c_str();
    const KQStatus status = form == 1 ? KQImageFilesClose(chain, name, nullptr, 1)
                            : form == 2
                                ? KQImageFilesClose2(chain, name, nullptr, 1, id.data())
                                : KQImageFilesClose3(chain, name, nullptr, 1, id.data(), &size);
    EXPECT_EQ(status.status, 0);
    const HeaderFields header = NewImage().header;
    EXPECT_EQ(header.imageId == id, form > 1);
    EXPECT_EQ(header.sourceSize, form == 3 ? size : base_.header.sourceSize);
    EXPECT_TRUE(header.comment.empty());
  }
}

TEST_F(ChainOverlayClose, NewestFileOfTheChainIsTheParent) {
  const ImageSpec middle = Increment(base_, 2, 0, PatternBytes(2, 512));
  ImageSpec newest = Increment(middle, 3, 512, PatternBytes(3, 512));
  newest.header.sourceSize = 0x7700;
  const std::uint64_t chain =
      OpenChain(images_.Write("c", newest) + "|" + images_.Write("a", base_) + "|" +
                    images_.Write("b", middle),
                OpenModelHandle(model_));
  EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 0).status, 0);
  const HeaderFields header = NewImage().header;
  EXPECT_EQ(header.parentImageId, MakeId(3));
  EXPECT_EQ(header.generation, 3u);
  EXPECT_EQ(header.nextGeneration, 4u);
  EXPECT_EQ(header.sourceSize, 0x7700u);
  EXPECT_EQ(header.imageSetId, base_.header.imageSetId);
}

TEST_F(ChainOverlayClose, NothingWrittenLeavesNoImage) {
  const std::uint64_t chain = OpenBaseUnder(SparseModel());
  EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), "comment", 0).status, 0);
  EXPECT_FALSE(NewFileExists());
  EXPECT_TRUE(File() == SparseModel().File());
}

// The tree in the file is not the one that is converted: its changed nodes are still in memory, or
// go to the file while the conversion wants others.
TEST_F(ChainOverlayClose, ChangedNodesAreConvertedWhateverTheCacheHolds) {
  for (const std::uint16_t cacheNodes : {std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{1000}}) {
    SparseModel model;
    const std::uint64_t chain = OpenBaseUnder(model, cacheNodes);
    for (std::uint64_t i = 0; i < 700; ++i) {
      const std::uint64_t offset = i * 389 % 701 * 1024;
      const Bytes data = PatternBytes(i, 512);
      Write(chain, offset, data);
      model.Write(static_cast<std::int64_t>(offset), data);
    }
    EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 0).status, 0);
    EXPECT_TRUE(File() == model.File());
    const ParsedImage image = NewImage();
    std::size_t runs = 0;
    for (const ParsedChunk& chunk : image.chunks) runs += chunk.runs.size();
    EXPECT_EQ(runs, 700u);
    EXPECT_TRUE(image.ReadVolume(0, 702 * 1024) == model.Read(0, 702 * 1024, 0));
  }
}

TEST_F(ChainOverlayClose, FailedConversionStillClosesAllAsAsked) {
  for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{1}}) {
    SparseModel model = model_;
    const std::uint64_t chain = OpenBaseUnder(model);
    const Bytes data = PatternBytes(7, 512);
    Write(chain, 5000, data);
    model.Write(5000, data);
    ExpectStatus(KQImageFilesClose2(chain, new_.c_str(), nullptr, flag, MakeId(1).data()), -1392,
                 "utimagefile");
    ExpectClosed(chain);
    EXPECT_FALSE(NewFileExists());
    EXPECT_EQ(SparseFileExists(), flag == 0);
    if (flag == 0) {
      EXPECT_TRUE(File() == model.File());
    }
  }
}

TEST_F(ChainOverlayClose, FailedCloseOfTheSparseFileIsToldAndFreesAll) {
  const std::uint64_t descriptors = OpenDescriptors();
  const std::uint64_t chain = OpenBaseUnder(model_);
  const std::string log = LogOf([&] {
    const FailingCall kept(Call::kUnlink, EACCES);
    const KQStatus status = KQImageFilesClose(chain, nullptr, nullptr, 1);
    EXPECT_EQ(status.status, -5);
    EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(EACCES));
    EXPECT_EQ(status.detail2, 2u);
  });
  EXPECT_EQ(log,
            "UtSparseFileClose call to OSDeleteFileEx failed with status=0xFFFFFFFB\n"
            "UtSparseFileClose failed with status=0xFFFFFFFB\n");
  ExpectClosed(chain);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(ChainOverlayClose, FailedCloseAfterAGoodConversionLeavesTheImage) {
  const std::uint64_t chain = OpenBaseUnder(model_);
  LogOf([&] {
    const FailingCall kept(Call::kUnlink, EACCES);
    EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 1).status, -5);
  });
  ExpectHolds(NewImage(), 512, PatternBytes(5, 1024));
}

TEST_F(ChainOverlayClose, ConversionsFailureIsToldBeforeTheSparseFiles) {
  const std::uint64_t chain = OpenBaseUnder(model_);
  const std::string log = LogOf([&] {
    const FailingCall kept(Call::kUnlink, EACCES);
    const Id zero{};
    EXPECT_EQ(KQImageFilesClose2(chain, new_.c_str(), nullptr, 1, zero.data()).status, -1392);
  });
  EXPECT_NE(log.find("UtSparseFileClose failed with status=0xFFFFFFFB\n"), std::string::npos);
  ExpectClosed(chain);
}

TEST_F(ChainOverlayClose, FailedOpenToldOnlyItsOwnStatusWhenTheCloseFailsToo) {
  const std::uint64_t sparse = OpenHandle();
  const std::uint64_t descriptors = OpenDescriptors();
  std::uint64_t chain = 7;
  const std::string missing = images_.Path("missing");
  const std::string log = LogOf([&] {
    const FailingCall full(Call::kWrite, ENOSPC, 1000);
    EXPECT_EQ(KQImageFilesOpen(missing.c_str(), nullptr, sparse, &chain).status, -2);
  });
  EXPECT_EQ(WithoutLineNumbers(log),
            WriterLine(101, "0xFFFFFF90") +
                "UtSparseFileClose call to UpdateFileHeader(pSparseFile, FALSE) failed with "
                "status=0xFFFFFF90\n"
                "UtSparseFileClose failed with status=0xFFFFFF90\n");
  EXPECT_EQ(OpenDescriptors(), descriptors - 1);
}

TEST_F(ChainOverlayClose, EachAllocationThatFailsLeavesNothingBehind) {
  base_.header.compressionType = 6;
  base_.header.laterSectors = PatternBytes(8, 1024);
  EncipherImage(&base_, 4, "password");
  const std::string files = images_.Write("base.twf", base_);
  int refused = 0;
  for (const Call kind : {Call::kMalloc, Call::kCalloc, Call::kAlignedMalloc}) {
    int failures = 1;
    for (int after = 0; failures != 0; ++after) {
      SCOPED_TRACE(after);
      const std::uint64_t descriptors = OpenDescriptors();
      const std::uint64_t chain = OpenChain(files, OpenModelHandle(model_), "password");
      KQStatus status{};
      LogOf([&] {
        const FailingCall noMemory(kind, ENOMEM, 1, after);
        status = KQImageFilesClose(chain, new_.c_str(), "comment", 0);
        failures = noMemory.failures();
      });
      if (status.status != 0) {
        ++refused;
        EXPECT_TRUE(status.status == -8 || status.status == -86) << status.status;
      }
      ExpectClosed(chain);
      EXPECT_EQ(OpenDescriptors(), descriptors);
    }
  }
  EXPECT_GE(refused, 8);
  ExpectHolds(NewImage("password"), 512, PatternBytes(5, 1024));
}

// Every write that was told to have worked is in the image, and no later one is.
TEST_F(ChainOverlayClose, WritesInOtherThreadsEndBeforeTheConversion) {
  for (int round = 0; round < 20; ++round) {
    const std::uint64_t chain = OpenBaseUnder(SparseModel());
    std::atomic<std::uint64_t> written{0};
    std::thread writer([&] {
      const Bytes data = PatternBytes(9, 512);
      while (KQImageFilesWrite(chain, 512 * written, data.data(), 512, nullptr).status == 0) {
        ++written;
      }
    });
    while (written < 20) std::this_thread::yield();
    EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 1).status, 0);
    writer.join();
    const ParsedImage image = NewImage();
    for (std::uint64_t i = 0; i < written; ++i) ASSERT_TRUE(image.Holds(i * 512)) << i;
    EXPECT_FALSE(image.Holds(written * 512));
  }
}

// The file in which the parent was found when it was opened is not trusted to be the same still.
TEST_F(ChainOverlayClose, ParentThatChangedOnTheDiskKeepsItsSectorSize) {
  const std::uint64_t chain = OpenBaseUnder(model_);
  Bytes changed = ReadFile(images_.Path("base.twf"));
  Set32(&changed, 4, 4096);
  WriteFile(images_.Path("base.twf"), changed);
  EXPECT_EQ(KQImageFilesClose(chain, new_.c_str(), nullptr, 0).status, 0);
  EXPECT_EQ(NewImage().header.sectorSize, 512u);
}

}  // namespace
}  // namespace kqtest
