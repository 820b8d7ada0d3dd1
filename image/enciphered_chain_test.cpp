// Chains of enciphered images: key set-up and deciphered chunks.
#include <cstring>

#include "image/chain_test_support.h"
#include "image/chunk_cache.h"

namespace kq {
namespace {

class EncipheredChainTest : public ::testing::TestWithParam<std::uint32_t> {
 protected:
  ImageFolder folder_;

  static ImageSpec Spec(std::uint32_t type, const char* password = "password") {
    ImageSpec spec;
    spec.header.laterSectors = PatternBytes(7, 512);
    spec.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 2048)),
                   RawChunk({{0x10000, 1}, {0x20000, 3}}, PatternBytes(2, 2048))};
    kqtest::EncipherImage(&spec, type, password);
    return spec;
  }

  std::int32_t OpenStatus(const ImageSpec& spec, const char* password) {
    const TestChain chain(folder_.Write("image", spec), password);
    return chain.opened.status;
  }

  void TearDown() override { EXPECT_EQ(OpenFileCount(), 0u); }
};

TEST_P(EncipheredChainTest, ReadsWithTheRightPassword) {
  const TestChain chain(folder_.Write("image", Spec(GetParam(), "pässwörd")), "pässwörd");
  ASSERT_EQ(chain.opened.status, 0);
  ExpectRead(chain.handle, 0, PatternBytes(1, 2048));
  // Deciphered as the chunk that begins elsewhere, not as the run.
  ExpectRead(chain.handle, 0x20000, Slice(PatternBytes(2, 2048), 512, 1536));
}

TEST_P(EncipheredChainTest, ReadsCompressedChunks) {
  const Bytes data(64 * 512, 'x');
  for (const std::uint32_t compression : {5u, 6u}) {
    ImageSpec spec;
    spec.header.compressionType = compression;
    ChunkSpec stream = StreamChunk({{0, 64}}, kqtest::LzoFrame(data));
    spec.chunks = {stream, kqtest::ZeroChunk({{0x10000, 4}}),
                   RawChunk({{0x20000, 4}}, PatternBytes(2, 2048))};
    if (compression == 6) spec.chunks.erase(spec.chunks.begin());
    kqtest::EncipherImage(&spec, GetParam(), "password");
    const TestChain chain(folder_.Write("image", spec), "password");
    ASSERT_EQ(chain.opened.status, 0);
    if (compression == 5) ExpectRead(chain.handle, 0, data);
    ExpectRead(chain.handle, 0x10000, Bytes(2048));
    ExpectRead(chain.handle, 0x20000, PatternBytes(2, 2048));
  }
}

TEST_P(EncipheredChainTest, WrongPasswordIsNoticedByAllTypesButTheFirst) {
  EXPECT_EQ(OpenStatus(Spec(GetParam()), "wrong"), GetParam() == 1 ? 0 : -86);
  EXPECT_EQ(OpenStatus(Spec(GetParam()), ""), GetParam() == 1 ? 0 : -86);
  EXPECT_EQ(OpenStatus(Spec(GetParam(), ""), ""), 0) << "an empty password is one";
}

TEST_P(EncipheredChainTest, MissingPasswordOrBlobIsInvalidPassword) {
  EXPECT_EQ(OpenStatus(Spec(GetParam()), nullptr), -86);
  ImageSpec spec = Spec(GetParam());
  spec.header.keyBlob.clear();
  EXPECT_EQ(OpenStatus(spec, "password"), -86);
}

TEST_P(EncipheredChainTest, WhateverFailsInTheKeyIsInvalidPassword) {
  ImageSpec spec = Spec(GetParam());
  spec.header.keyBlob.push_back(0);
  EXPECT_EQ(OpenStatus(spec, "password"), -86) << "a blob of the wrong length";
  EXPECT_EQ(OpenStatus(Spec(GetParam()), "\xFF"), -86) << "a password that is no text";
}

TEST_P(EncipheredChainTest, BlobBeyondTheFirstSectorIsCorrupt) {
  ImageSpec spec = Spec(GetParam());
  spec.keyBlobLengthField = 512 - 114;
  EXPECT_EQ(OpenStatus(spec, "password"), -86) << "it just fits";
  spec.keyBlobLengthField = 512 - 114 + 1;
  EXPECT_EQ(OpenStatus(spec, "password"), -1392);
  EXPECT_EQ(OpenStatus(spec, nullptr), -86) << "the password comes first";
}

TEST_P(EncipheredChainTest, OpenFileKeepsThePasswordOfItsFirstOpen) {
  const std::string path = folder_.Write("image", Spec(GetParam()));
  {
    const TestChain first(path, "password");
    ASSERT_EQ(first.opened.status, 0);
    for (const char* password : {"wrong", static_cast<const char*>(nullptr)}) {
      const TestChain second(path, password);
      ASSERT_EQ(second.opened.status, 0);
      ExpectRead(second.handle, 0, PatternBytes(1, 2048));
      EXPECT_STREQ(NewestOpenFile()->Password.text(), "password");
    }
  }
  EXPECT_EQ(OpenStatus(Spec(GetParam()), nullptr), -86) << "the file has been closed meanwhile";
}

TEST_P(EncipheredChainTest, DecipheredRawChunkIsWhatIsCached) {
  const TestChain chain(folder_.Write("image", Spec(GetParam())), "password");
  ExpectRead(chain.handle, 0, PatternBytes(1, 2048));
  const MutexLock lock(chunkCacheMutex);
  const ExpandedChunk& chunk = chunkOrder.first()->Chunk;
  ASSERT_EQ(chunk.PresentBytes, 5 * 512u);
  EXPECT_EQ(std::memcmp(chunk.Data.data() + 512, PatternBytes(1, 2048).data(), 2048), 0);
}

INSTANTIATE_TEST_SUITE_P(EachType, EncipheredChainTest, ::testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace kq
