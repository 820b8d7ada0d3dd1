// What KQImageFilesOpen accepts, in which order it looks, and what a failure leaves.
#include <cstring>

#include "image/chain_test_support.h"
#include "image/shared_compressor.h"

namespace kq {
namespace {

class ChainOpenTest : public ::testing::Test {
 protected:
  ImageFolder folder_;
  ImageSpec base_ = BaseSpec();

  static ImageSpec BaseSpec() {
    ImageSpec spec;
    spec.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 4 * 512))};
    return spec;
  }

  // An increment over parent that holds one sector at its own place.
  static ImageSpec Increment(const ImageSpec& parent, std::uint32_t id, std::uint64_t sector) {
    ImageSpec spec;
    spec.header = kqtest::IncrementOf(parent.header, kqtest::MakeId(id));
    spec.chunks = {RawChunk({{sector * 512, 1}}, PatternBytes(id, 512))};
    return spec;
  }

  std::int32_t OpenStatus(const std::string& files, const char* password = nullptr) {
    const TestChain chain(files, password);
    EXPECT_EQ(chain.opened.status != 0, chain.handle == 0);
    return chain.opened.status;
  }
  std::int32_t OpenStatus(const ImageSpec& spec, const char* password = nullptr) {
    return OpenStatus(folder_.Write("image", spec), password);
  }

  void TearDown() override { EXPECT_EQ(OpenFileCount(), 0u) << "a file stayed open"; }
};

using KQImageFilesOpenTest = ChainOpenTest;

TEST_F(KQImageFilesOpenTest, NullListIsInvalidParameterAndClearsTheHandle) {
  std::uint64_t handle = 7;
  const KQStatus status = KQImageFilesOpen(nullptr, nullptr, 0, &handle);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(handle, 0u);
}

TEST_F(KQImageFilesOpenTest, NullHandleIsInvalidParameter) {
  EXPECT_EQ(KQImageFilesOpen("x", nullptr, 0, nullptr).status, -87);
}

TEST_F(KQImageFilesOpenTest, EmptyListIsAFileThatDoesNotExist) {
  const TestChain chain("");
  EXPECT_EQ(chain.opened.status, -2);
  EXPECT_EQ(chain.opened.detail1, 2u);
  EXPECT_EQ(chain.opened.detail2, 2u);
  EXPECT_STREQ(chain.opened.file, "kqos_linux");
  EXPECT_EQ(chain.handle, 0u);
}

TEST_F(KQImageFilesOpenTest, SeparatorAtTheEndIsNoName) {
  EXPECT_EQ(OpenStatus(folder_.Write("a", base_) + "|"), 0);
}

TEST_F(KQImageFilesOpenTest, EmptyNamesElsewhereAreTried) {
  const std::string base = folder_.Write("a", base_);
  const std::string next = folder_.Write("b", Increment(base_, 2, 9));
  EXPECT_EQ(OpenStatus("|" + base), -2);
  EXPECT_EQ(OpenStatus(base + "||" + next), -2);
  EXPECT_EQ(OpenStatus(base + "||"), -2);
  EXPECT_EQ(OpenStatus("|"), -2);
}

TEST_F(KQImageFilesOpenTest, LongNameIsCutAt4095CharactersUpToTheNextSeparator) {
  const std::string base = folder_.Write("a", base_);
  const std::string next = folder_.Write("b", Increment(base_, 2, 9));
  // The same file under a path of exactly 4095 characters.
  std::string path = base;
  const std::size_t slash = path.rfind('/');
  while (path.size() < 4095) path.insert(slash, path.size() % 2 == 0 ? "/" : "/.");
  ASSERT_EQ(path.size(), 4095u);
  EXPECT_EQ(OpenStatus(path + std::string(905, 'x') + "|" + next), 0);
  EXPECT_EQ(OpenStatus(std::string(5000, 'x')), -123);  // no directory has such a name
}

TEST_F(KQImageFilesOpenTest, FilesMayComeInAnyOrder) {
  const ImageSpec second = Increment(base_, 2, 9);
  const ImageSpec third = Increment(second, 3, 9);
  const std::string a = folder_.Write("a", base_);
  const std::string b = folder_.Write("b", second);
  const std::string c = folder_.Write("c", third);
  for (const std::string& files : {a + "|" + b + "|" + c, c + "|" + b + "|" + a,
                                   b + "|" + c + "|" + a, c + "|" + a + "|" + b}) {
    const TestChain chain(files);
    ASSERT_EQ(chain.opened.status, 0) << files;
    // The newest file wins whatever the list's order.
    ExpectRead(chain.handle, 9 * 512, PatternBytes(3, 512));
    ExpectRead(chain.handle, 0, PatternBytes(1, 4 * 512));
  }
}

TEST_F(KQImageFilesOpenTest, PartsMayComeInAnyOrder) {
  ImageSpec first = base_;
  first.index.lastPart = 0;
  ImageSpec second = base_;
  second.header = kqtest::NextPartOf(first.header);
  second.chunks = {RawChunk({{4 * 512, 2}}, PatternBytes(2, 2 * 512))};
  second.index.lastPart = 0;
  ImageSpec third = base_;
  third.header = kqtest::NextPartOf(second.header);
  third.chunks = {RawChunk({{6 * 512, 2}}, PatternBytes(3, 2 * 512))};
  ImageSpec next = Increment(third, 5, 0);
  ASSERT_EQ(next.header.partIndex, 0u);
  const std::string a = folder_.Write("a", first);
  const std::string b = folder_.Write("b", second);
  const std::string c = folder_.Write("c", third);
  const std::string d = folder_.Write("d", next);
  const TestChain chain(d + "|" + c + "|" + a + "|" + b);
  ASSERT_EQ(chain.opened.status, 0);
  Bytes expected = Join({PatternBytes(1, 2048), PatternBytes(2, 1024), PatternBytes(3, 1024)});
  kqtest::SetBytes(&expected, 0, PatternBytes(5, 512));
  ExpectRead(chain.handle, 0, expected);

  EXPECT_EQ(OpenStatus(a + "|" + b), -18) << "the last part is missing";
  EXPECT_EQ(OpenStatus(a + "|" + c), -18) << "a part in the middle is missing";
  EXPECT_EQ(OpenStatus(b + "|" + c), -18) << "the first part is missing";
  EXPECT_EQ(OpenStatus(a + "|" + d), -18) << "an increment follows the last part only";
}

TEST_F(KQImageFilesOpenTest, PartOfAnotherImageIsNoContinuation) {
  ImageSpec first = base_;
  first.index.lastPart = 0;
  ImageSpec second = base_;
  second.header = kqtest::NextPartOf(first.header);
  second.header.imageId = kqtest::MakeId(77);
  EXPECT_EQ(OpenStatus(folder_.Write("a", first) + "|" + folder_.Write("b", second)), -18);
  second.header = kqtest::NextPartOf(first.header);
  second.header.parentImageId = kqtest::MakeId(78);
  EXPECT_EQ(OpenStatus(folder_.Write("a", first) + "|" + folder_.Write("b", second)), -18);
}

TEST_F(KQImageFilesOpenTest, IncompleteChainsAreNoMoreFiles) {
  const ImageSpec second = Increment(base_, 2, 9);
  const ImageSpec third = Increment(second, 3, 9);
  ImageSpec stranger = base_;
  stranger.header.imageId = kqtest::MakeId(99);
  const std::string a = folder_.Write("a", base_);
  const std::string b = folder_.Write("b", second);
  const std::string c = folder_.Write("c", third);
  const std::string other = folder_.Write("other", stranger);
  const TestChain alone(b);
  EXPECT_EQ(alone.opened.status, -18);
  EXPECT_STREQ(alone.opened.file, "utimagefile");
  EXPECT_EQ(OpenStatus(a + "|" + c), -18) << "a link is missing";
  EXPECT_EQ(OpenStatus(a + "|" + other), -18) << "a stranger";
  EXPECT_EQ(OpenStatus(a + "|" + a), -18) << "a file given twice";
  const std::string sibling = folder_.Write("d", Increment(base_, 4, 9));
  EXPECT_EQ(OpenStatus(a + "|" + b + "|" + sibling), -18) << "two children of one image";
}

TEST_F(KQImageFilesOpenTest, BaseWhoseLastPartIsMissingIsNoMoreFiles) {
  base_.index.lastPart = 0;
  EXPECT_EQ(OpenStatus(base_), -18);
  base_.index.lastPart = 1;  // anything but 0
  EXPECT_EQ(OpenStatus(base_), 0);
}

TEST_F(KQImageFilesOpenTest, FirstBadFileOfTheListDecides) {
  ImageSpec open = base_;
  open.header.magic = "OPEN";
  const std::string bad = folder_.Write("bad", open);
  EXPECT_EQ(OpenStatus(bad + "|" + folder_.Path("missing")), -1392);
  EXPECT_EQ(OpenStatus(folder_.Path("missing") + "|" + bad), -2);
}

TEST_F(KQImageFilesOpenTest, CompressionTypesThatCantBeReadAreUnsupported) {
  for (const std::uint32_t type : {1u, 2u, 3u, 4u}) {
    base_.header.compressionType = type;
    EXPECT_EQ(OpenStatus(base_), -1630) << type;
  }
  for (const std::uint32_t type : {0u, 5u, 6u}) {
    base_.header.compressionType = type;
    EXPECT_EQ(OpenStatus(base_), 0) << type;
  }
  base_.header.compressionType = 7;
  EXPECT_EQ(OpenStatus(base_), -1392);
}

TEST_F(KQImageFilesOpenTest, OnlyFourSectorSizesOpen) {
  for (const std::uint32_t size : {512u, 1024u, 2048u, 4096u}) {
    ImageSpec spec;
    spec.header.sectorSize = size;
    spec.chunks = {RawChunk({{0, 3}}, PatternBytes(size, 3 * size))};
    const TestChain chain(folder_.Write("image", spec));
    ASSERT_EQ(chain.opened.status, 0) << size;
    ExpectRead(chain.handle, 0, PatternBytes(size, 3 * size));
  }
  for (const std::uint32_t size : {64u, 128u, 768u, 8192u}) {
    ImageSpec spec;
    spec.header.sectorSize = size;
    spec.layoutSectorSize = 8192;
    spec.index.pointer = 8192;
    Bytes image = kqtest::BuildImage(spec);
    EXPECT_NE(OpenStatus(folder_.WriteBytes("image", image)), 0) << size;
  }
}

// The index pointer of 256-byte sectors must be zero where that of 512-byte units stands, and the
// other way round, so the two looks at such a file never agree.
TEST_F(KQImageFilesOpenTest, SectorsOf256BytesNeverPassBothLooks) {
  ImageSpec spec;
  spec.header.sectorSize = 256;
  spec.header.laterSectors = Bytes(256 * 3);
  spec.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 4 * 256))};
  EXPECT_EQ(OpenStatus(spec), -1392);
}

TEST_F(KQImageFilesOpenTest, HeaderOfOneMebibyteIsCorrupt) {
  base_.header.sectorSize = 4096;
  base_.header.laterSectors = Bytes(4096 * 254);
  base_.chunks = {RawChunk({{0, 1}}, PatternBytes(1, 4096))};
  EXPECT_EQ(OpenStatus(base_), 0);
  base_.header.laterSectors = Bytes(4096 * 255);
  EXPECT_EQ(OpenStatus(base_), -1392);
}

TEST_F(KQImageFilesOpenTest, HeaderSizeThatOverflows32BitsIsCorrupt) {
  base_.headerSectorsField = 0x800001;  // times 512: 0x200 in 32 bits
  EXPECT_EQ(OpenStatus(base_), -1392);
}

TEST_F(KQImageFilesOpenTest, FirstWordOfTheIndexMustBeZeroAndTheSecondNeedNot) {
  base_.index.zero = 1;
  EXPECT_EQ(OpenStatus(base_), -1392);
  base_.index.zero = 0xFFFFFFFF00000000;
  EXPECT_EQ(OpenStatus(base_), 0);
}

TEST_F(KQImageFilesOpenTest, BytesBehindTheIndexPointerMustBeZero) {
  base_.index.pointerTail = Bytes(504);
  base_.index.pointerTail.back() = 1;
  EXPECT_EQ(OpenStatus(base_), -1392);
  base_.index.pointerTail.assign({1});
  EXPECT_EQ(OpenStatus(base_), -1392);
}

TEST_F(KQImageFilesOpenTest, IndexPointerInsideTheHeaderIsCorrupt) {
  base_.index.pointer = 511;
  EXPECT_EQ(OpenStatus(base_), -1392);
  base_.index.pointer = 0x8000000000000000;
  EXPECT_NE(OpenStatus(base_), 0);
}

TEST_F(KQImageFilesOpenTest, IndexPointerBeyondTheFileNeverOpens) {
  base_.index.pointer = 0x100000;
  EXPECT_NE(OpenStatus(base_), 0);
  // With a part behind it the chain is in order, and the pointer itself is found out.
  ImageSpec second = BaseSpec();
  second.header = kqtest::NextPartOf(base_.header);
  EXPECT_EQ(OpenStatus(folder_.Write("a", base_) + "|" + folder_.Write("b", second)), -1392);
}

TEST_F(KQImageFilesOpenTest, IndexLengthBeyondTheFileOpensIfTheListEnds) {
  for (const std::uint32_t length : {5000u, 0x7FFFFFFFu, 0xFFFFFFEFu, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
    base_.index.indexLength = length;
    const TestChain chain(folder_.Write("image", base_));
    ASSERT_EQ(chain.opened.status, 0) << length;
    ExpectRead(chain.handle, 0, PatternBytes(1, 4 * 512));
  }
}

TEST_F(KQImageFilesOpenTest, MisalignedIndexBeyondTheFileIsGeneralFailure) {
  // The index lies at an odd place: such a read must find all that it asks for.
  base_.gapBeforeIndex = Bytes(1);
  base_.index.indexLength = 5000;
  EXPECT_EQ(OpenStatus(base_), -31);
  base_.index.indexLength.reset();
  EXPECT_EQ(OpenStatus(base_), 0);
}

TEST_F(KQImageFilesOpenTest, IndexLengthCutsTheList) {
  base_.chunks.push_back(RawChunk({{0x10000, 1}}, PatternBytes(2, 512)));
  base_.index.indexLength = 12;  // the first entry
  const TestChain chain(folder_.Write("image", base_));
  ASSERT_EQ(chain.opened.status, 0);
  ExpectRead(chain.handle, 0, PatternBytes(1, 4 * 512));
  ExpectRead(chain.handle, 0x10000, Bytes(512));
}

TEST_F(KQImageFilesOpenTest, FileWithoutChunksReadsAsZero) {
  base_.chunks.clear();
  base_.index.payload = Bytes();
  const TestChain chain(folder_.Write("image", base_));
  ASSERT_EQ(chain.opened.status, 0);
  EXPECT_EQ(NewestOpenFile()->IndexEntries, nullptr);
  EXPECT_EQ(NewestOpenFile()->IndexLength, 0u);
  ExpectRead(chain.handle, 0, Bytes(4096));
}

TEST_F(KQImageFilesOpenTest, EmptyIndexListReadsAsZero) {
  base_.chunks.clear();
  const TestChain chain(folder_.Write("image", base_));
  ASSERT_EQ(chain.opened.status, 0);
  EXPECT_EQ(NewestOpenFile()->IndexEntries, nullptr);
  EXPECT_EQ(NewestOpenFile()->IndexLength, 1u);
  ExpectRead(chain.handle, 0, Bytes(4096));
}

TEST_F(KQImageFilesOpenTest, UnknownSparseHandleGivesTheStatusOfTheAcquire) {
  const std::string base = folder_.Write("a", base_);
  std::uint64_t handle = 7;
  const KQStatus status = KQImageFilesOpen(base.c_str(), nullptr, 0x7777777777, &handle);
  EXPECT_EQ(status.status, -87);
  EXPECT_STREQ(status.file, "objmgr");
  EXPECT_EQ(handle, 0u);
}

TEST_F(KQImageFilesOpenTest, FailureInALaterFileReleasesTheEarlierOnes) {
  ImageSpec second = Increment(base_, 2, 9);
  second.header.compressionType = 4;
  EXPECT_EQ(OpenStatus(folder_.Write("a", base_) + "|" + folder_.Write("b", second)), -1630);
  EXPECT_EQ(OpenFileCount(), 0u);
}

TEST_F(KQImageFilesOpenTest, EveryTruncationGivesAStatus) {
  base_.header.laterSectors = Bytes(512);
  base_.chunks.push_back(RawChunk({{0x10000, 3}}, PatternBytes(2, 3 * 512)));
  const Bytes whole = kqtest::BuildImage(base_);
  for (std::size_t size = 0; size < whole.size(); size += size < 1024 ? 19 : 256) {
    EXPECT_NE(OpenStatus(folder_.WriteBytes("image", Slice(whole, 0, size))), 0) << size;
  }
  for (const std::size_t size : {std::size_t{0}, std::size_t{113}, std::size_t{114}}) {
    EXPECT_NE(OpenStatus(folder_.WriteBytes("image", Slice(whole, 0, size))), 0) << size;
  }
  EXPECT_EQ(OpenStatus(folder_.WriteBytes("image", whole)), 0);
}

TEST_F(KQImageFilesOpenTest, HeaderFieldsAtTheirExtremesGiveAStatus) {
  const Bytes whole = kqtest::BuildImage(base_);
  for (std::size_t offset = 4; offset + 4 <= 116; offset += 4) {
    for (const std::uint32_t value : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
      Bytes image = whole;
      kqtest::Set32(&image, offset, value);
      const TestChain chain(folder_.WriteBytes("image", image));
      if (chain.opened.status == 0) ReadChain(chain.handle, 0, 5000);
    }
  }
}

TEST_F(KQImageFilesOpenTest, TypeSixHoldsTheSharedCompressorWhileOpen) {
  const auto users = [] {
    const MutexLock lock(compressorMutex);
    EXPECT_EQ(SharedCompressor != nullptr, compressorUsers != 0);
    return compressorUsers;
  };
  base_.header.compressionType = 6;
  const std::string a = folder_.Write("a", base_);
  const std::string b = folder_.Write("b", Increment(base_, 2, 9));
  ASSERT_EQ(users(), 0u);
  {
    const TestChain chain(a + "|" + b);
    EXPECT_EQ(users(), 2u);
    const TestChain again(a);
    EXPECT_EQ(users(), 2u) << "the file is open already";
  }
  EXPECT_EQ(users(), 0u);
  base_.index.zero = 1;
  EXPECT_EQ(OpenStatus(base_), -1392);
  EXPECT_EQ(users(), 0u) << "a failed open gives its use back";
}

}  // namespace
}  // namespace kq
