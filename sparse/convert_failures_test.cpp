// Conversions that fail, in the order of their steps, and what each failure leaves.
#include <cerrno>

#include "foundation/system_calls_test.h"
#include "sparse/overlay_support_test.h"

namespace kqtest {
namespace {

class ConvertFailure : public OverlayTest {
 protected:
  SparseModel model_ = ModelOf({{512, PatternBytes(2, 1024)}, {8192, PatternBytes(3, 512)}});
  std::string parent_ = images_.Write("base.twf", base_);

  void SetUp() override { WriteFile(path_, model_.File()); }

  KQStatus Run(const std::uint8_t* imageId = nullptr) {
    return KQConvertSparseToIncremental2(path_.c_str(), parent_.c_str(), nullptr, new_.c_str(),
                                         nullptr, imageId);
  }

  // Nothing is open afterwards, and neither file has changed.
  void ExpectNothingLeft() {
    EXPECT_EQ(OpenFileCount(), 0u);
    EXPECT_EQ(OpenDescriptors(), descriptors_);
  }

 private:
  std::uint64_t descriptors_ = OpenDescriptors();
};

TEST_F(ConvertFailure, NullPathsAreInvalidParameters) {
  const char* sparse = path_.c_str();
  const char* parent = parent_.c_str();
  const char* name = new_.c_str();
  EXPECT_EQ(KQConvertSparseToIncremental(nullptr, parent, nullptr, name, nullptr).status, -87);
  EXPECT_EQ(KQConvertSparseToIncremental(sparse, nullptr, nullptr, name, nullptr).status, -87);
  EXPECT_EQ(KQConvertSparseToIncremental(sparse, parent, nullptr, nullptr, nullptr).status, -87);
  EXPECT_FALSE(NewFileExists());
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, SparseFileIsOpenedBeforeTheParent) {
  std::filesystem::remove(path_);
  WriteFile(parent_, Bytes(100));
  EXPECT_EQ(Run().status, -2);
  EXPECT_FALSE(SparseFileExists());
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, SparseFileInUseIsRefused) {
  WriteFile(path_, model_.File(1));
  ExpectStatus(Run(), -1392, "utsparsefile");
  EXPECT_FALSE(NewFileExists());
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, OtherFileIsNoSparseFile) {
  WriteFile(path_, ReadFile(parent_));
  ExpectStatus(Run(), -1392, "utsparsefile");
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, MissingParentClosesTheSparseFile) {
  std::filesystem::remove(parent_);
  EXPECT_EQ(Run().status, -2);
  EXPECT_FALSE(NewFileExists());
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, ParentThatCanNotBeReadIsRefusedAsByAChain) {
  ImageSpec spec = base_;
  spec.header.magic = "OPEN";
  images_.Write("base.twf", spec);
  ExpectStatus(Run(), -1392, "utimagefile");
  spec = base_;
  for (const std::uint32_t type : {3U, 4U}) {
    spec.header.compressionType = type;
    images_.Write("base.twf", spec);
    ExpectStatus(Run(), -1630, "utimagefile");
  }
  EXPECT_FALSE(NewFileExists());
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, IdentifierOfTheParentOrOfNobodyIsRefusedBeforeTheFileIsMade) {
  const Bytes old = PatternBytes(4, 100);
  WriteFile(new_, old);
  for (const Id& id : {base_.header.imageId, Id{}}) {
    ExpectStatus(Run(id.data()), -1392, "utimagefile");
    EXPECT_EQ(ReadFile(new_), old);
  }
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, FileThatCanNotBeMadeIsTold) {
  new_ = images_.Path("missing/new.twi");
  const KQStatus status = Run();
  EXPECT_EQ(status.status, -2);
  EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(ENOENT));
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, HeaderThatCanNotBeWrittenLeavesTheFile) {
  const FailingCall full(Call::kWrite, ENOSPC);
  EXPECT_EQ(Run().status, -112);
  EXPECT_TRUE(NewFileExists());
  ExpectNothingLeft();
}

// The writes: the header, one chunk, the index, its pointer, and sector 0 again.
TEST_F(ConvertFailure, CloseThatFailsLeavesAFileThatNoReaderAccepts) {
  for (const int after : {2, 3, 4}) {
    {
      const FailingCall full(Call::kWrite, ENOSPC, 1, after);
      EXPECT_EQ(Run().status, -112);
    }
    const Bytes file = ReadFile(new_);
    EXPECT_EQ(Slice(file, 0, 4), (Bytes{'O', 'P', 'E', 'N'}));
    std::uint64_t chain = 7;
    EXPECT_EQ(KQImageFilesOpen((parent_ + "|" + new_).c_str(), nullptr, 0, &chain).status, -1392);
    ExpectNothingLeft();
  }
}

// A node that can't be, in the middle of the tree: what comes before it is saved, and nothing is
// told.
TEST_F(ConvertFailure, DamagedTreeGivesAValidImageOfWhatComesBefore) {
  SparseModel model;
  for (std::int64_t i = 0; i < 700; ++i) {
    model.Write(i * 1024, PatternBytes(static_cast<std::uint64_t>(i), 512));
  }
  const ModelNode& root = model.nodes().at(model.root());
  ASSERT_FALSE(root.leaf);
  ASSERT_GE(root.count, 2u);
  WriteFile(path_, model.File());
  Patch(root.children[1] + 8160, {0xFF, 0xFF, 0xFF, 0xFF});

  const std::string log = LogOf([&] { EXPECT_EQ(Run().status, 0); });
  EXPECT_EQ(log, "");
  const ParsedImage image = NewImage();
  const auto end = static_cast<std::uint64_t>(root.extents[0].offset) + 512;
  EXPECT_TRUE(image.ReadVolume(0, 700 * 1024) == [&] {
    Bytes expected = model.Read(0, end, 0);
    expected.resize(700 * 1024);
    return expected;
  }());
  EXPECT_FALSE(image.Holds(end + 512));
  ExpectNothingLeft();
}

TEST_F(ConvertFailure, UnreadableExtentGivesAValidImageOfWhatComesBefore) {
  model_.Write(1 << 20, PatternBytes(4, 512));
  Bytes file = model_.File();
  // The second extent lies where no file can be read.
  for (std::size_t i = 0; i < 8; ++i) file[8192 + 4 + 20 + 12 + i] = i == 7 ? 0x80 : 0;
  WriteFile(path_, file);
  const std::string log = LogOf([&] { EXPECT_EQ(Run().status, 0); });
  EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFA9"));
  const ParsedImage image = NewImage();
  ExpectHolds(image, 512, PatternBytes(2, 1024));
  EXPECT_FALSE(image.Holds(8192));
  EXPECT_FALSE(image.Holds(1 << 20));
}

TEST_F(ConvertFailure, NothingReadableLeavesNoImageAndNoFailure) {
  Patch(8192 + 8160, {0xFF});
  Patch(8192 + 8161, {0xFF});
  EXPECT_EQ(Run().status, 0);
  EXPECT_FALSE(NewFileExists());
  ExpectNothingLeft();
}

// Chunks that can't be written are missing; the ones before are saved.
TEST_F(ConvertFailure, ChunkThatCanNotBeWrittenEndsTheImageBeforeIt) {
  const std::size_t chunk = (1 << 20) - 1024;  // what a chunk holds behind this header
  SparseModel model;
  const Bytes data = PatternBytes(5, 3 * chunk);
  model.Write(0, data);
  WriteFile(path_, model.File());
  {
    // The second chunk, and it again at the close.
    const FailingCall full(Call::kWrite, ENOSPC, 2, 2);
    EXPECT_EQ(Run().status, 0);
    EXPECT_EQ(full.failures(), 2);
  }
  const ParsedImage image = NewImage();
  EXPECT_EQ(image.chunks.size(), 1u);
  ExpectHolds(image, 0, Slice(data, 0, chunk));
}

}  // namespace
}  // namespace kqtest
