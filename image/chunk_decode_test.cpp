// The forms of a chunk's body, and what damage to each of them reads as.
#include "image/chunk_decode.h"

#include <sys/resource.h>

#include <cstring>
#include <fstream>
#include <memory>

#include "codec/huffman_stage.h"
#include "image/chain_test_support.h"
#include "image/chunk_cache.h"

namespace kq {
namespace {

// Text-like bytes that compress.
Bytes Compressible(std::uint64_t seed, std::size_t count) {
  Bytes bytes = PatternBytes(seed, count);
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<std::uint8_t>('a' + (i % 64 == 0 ? bytes[i] % 26 : i / 7 % 13));
  }
  return bytes;
}

// A stream of type 6 over framed LZO bytes.
Bytes HuffmanStream(const Bytes& frames) {
  HeapBuffer work = HeapBuffer::AllocateAlignedZeroed(4096, kHuffmanWorkAreaBytes);
  std::memcpy(work.data() + kHuffmanInputOffset, frames.data(), frames.size());
  Bytes stream(frames.size() * 4 + 1000);
  std::uint64_t length = 0;
  EXPECT_TRUE(
      HuffmanStageEncode(work.data(), frames.size(), stream.data(), stream.size(), &length));
  stream.resize(length);
  return stream;
}

// Leaves the process so many more bytes of address space than it has, for its own life. Not under
// sanitizers, which need terabytes of it.
class AddressSpaceLimit {
 public:
  explicit AddressSpaceLimit(std::uint64_t spare) {
    getrlimit(RLIMIT_AS, &old_);
#ifndef KQ_SANITIZED
    std::uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit = old_;
    limit.rlim_cur = pages * 4096 + spare;
    EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
#else
    static_cast<void>(spare);
#endif
  }
  ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &old_); }

 private:
  rlimit old_{};
};

class ChunkDecodeTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kSectors = 64;
  static constexpr std::size_t kBytes = kSectors * std::size_t{512};

  ImageFolder folder_;
  ImageSpec spec_;
  Bytes data_ = Compressible(1, kBytes);
  std::unique_ptr<TestChain> chain_;

  void TearDown() override {
    chain_.reset();
    EXPECT_EQ(OpenFileCount(), 0u);
    const MutexLock lock(chunkCacheMutex);
    EXPECT_EQ(chunkCacheBytes, 0u);
  }

  // Opens an image of the given chunks; each one is tried under an identity of its own.
  std::uint64_t Open(std::uint32_t compressionType, std::vector<ChunkSpec> chunks) {
    chain_.reset();
    spec_.header.compressionType = compressionType;
    spec_.chunks = std::move(chunks);
    chain_ = std::make_unique<TestChain>(folder_.Write("image", spec_));
    EXPECT_EQ(chain_->opened.status, 0);
    return chain_->handle;
  }

  static std::uint64_t CachedBytes() {
    const MutexLock lock(chunkCacheMutex);
    return chunkCacheBytes;
  }
};

TEST_F(ChunkDecodeTest, StreamsOfTypeFiveExpand) {
  ExpectRead(Open(5, {StreamChunk({{0, kSectors}}, kqtest::LzoFrame(data_))}), 0, data_);
  ExpectRead(Open(5, {StreamChunk({{0, kSectors}}, kqtest::LzoFrames(data_, 5000))}), 0, data_);
}

TEST_F(ChunkDecodeTest, StreamsOfTypeSixExpand) {
  const Bytes stream = HuffmanStream(kqtest::LzoFrame(data_));
  ExpectRead(Open(6, {StreamChunk({{0, kSectors}}, stream)}), 0, data_);
}

TEST_F(ChunkDecodeTest, RawChunkOfACompressedImagePassesAsItIs) {
  for (const std::uint32_t type : {5u, 6u}) {
    ExpectRead(Open(type, {RawChunk({{0, kSectors}}, data_)}), 0, data_);
  }
}

TEST_F(ChunkDecodeTest, ChunkWithoutBodyIsItsHeadAndZeros) {
  const std::uint64_t handle = Open(5, {kqtest::ZeroChunk({{0, 2}})});
  ExpectRead(handle, 0, Bytes(1024));
  EXPECT_EQ(CachedBytes(), 1536u);
  const MutexLock lock(chunkCacheMutex);
  const ExpandedChunk& chunk = chunkOrder.first()->Chunk;
  EXPECT_EQ(chunk.Size, 1536u);
  EXPECT_EQ(kqtest::Get32({chunk.Data.data(), 8}, 0), 1u);
  EXPECT_EQ(kqtest::Get32({chunk.Data.data(), 8}, 4), 3u);
}

TEST_F(ChunkDecodeTest, ImpossibleCountsAreCorrupt) {
  struct Counts {
    std::uint32_t type, stored, expanded;
  };
  for (const Counts& counts :
       {Counts{0, 0, 2}, Counts{5, 0, 2}, Counts{5, 1, 1}, Counts{5, 1, 0}, Counts{5, 5, 4},
        Counts{0, 1, 2}, Counts{0, 2, 3}, Counts{0, 3, 2}, Counts{6, 0xFFFFFFFF, 0xFFFFFFFE}}) {
    ChunkSpec chunk = RawChunk({{0, 2}}, PatternBytes(1, 1024));
    chunk.storedSectors = counts.stored;
    chunk.expandedSectors = counts.expanded;
    const std::uint64_t handle = Open(counts.type, {chunk});
    EXPECT_STREQ(ExpectFailedRead(handle, 0, 10, -1392).file, "utimagefile")
        << counts.type << " " << counts.stored << " " << counts.expanded;
    EXPECT_EQ(CachedBytes(), 0u);
  }
}

TEST_F(ChunkDecodeTest, StreamLengthBeyondTheBodyIsInvalidData) {
  const Bytes stream = kqtest::LzoFrame(data_);
  const auto body = static_cast<std::uint32_t>((stream.size() + 4 + 511) / 512 * 512);
  for (const std::uint32_t length : {body - 3, body, 0xFFFFFFFFu, 0xFFFFFFFCu}) {
    ChunkSpec chunk = StreamChunk({{0, kSectors}}, stream);
    chunk.streamLength = length;
    ExpectFailedRead(Open(5, {chunk}), 0, 10, -13);
  }
  // One that just fits is another matter: a bad stream.
  ChunkSpec chunk = StreamChunk({{0, kSectors}}, stream);
  chunk.streamLength = body - 4;
  ExpectRead(Open(5, {chunk}), 0, Bytes(10));
}

TEST_F(ChunkDecodeTest, BadStreamEndsTheReadInSilence) {
  Bytes bad = kqtest::LzoFrame(data_);
  bad[0] = static_cast<std::uint8_t>(bad[0] + 1);  // a frame longer than the stream
  const Bytes first = PatternBytes(1, 1024);
  const Bytes last = PatternBytes(3, 1024);
  const std::uint64_t handle =
      Open(5, {RawChunk({{0, 2}}, first), StreamChunk({{1024, kSectors}}, bad),
               RawChunk({{1024 + kBytes, 2}}, last)});
  // What comes before it is there, and from it on everything is zero, good chunks included.
  ExpectRead(handle, 0, Join({first, Bytes(kBytes), Bytes(1024)}));
  EXPECT_EQ(CachedBytes(), 3 * 512u) << "a bad chunk is not cached";
  ExpectRead(handle, 1024 + kBytes, last);
  ExpectRead(handle, 1024, Bytes(kBytes));
}

TEST_F(ChunkDecodeTest, EveryKindOfBadStreamReadsAsZero) {
  const Bytes good = kqtest::LzoFrame(data_);
  std::vector<Bytes> streams;
  streams.push_back({});                      // nothing at all
  streams.push_back(Join({good, {1}}));       // left-over input
  streams.push_back(Join({good, Bytes(3)}));  // a frame of length 0
  streams.push_back(Slice(good, 0, good.size() - 1));
  streams.push_back(Join({good, good}));  // more than the chunk holds
  for (const Bytes& stream : streams) {
    ExpectRead(Open(5, {StreamChunk({{0, kSectors}}, stream)}), 0, Bytes(kBytes));
  }
  for (const Bytes& stream : {Bytes(), Bytes(3), HuffmanStream(streams[1]), good}) {
    ExpectRead(Open(6, {StreamChunk({{0, kSectors}}, stream)}), 0, Bytes(kBytes));
  }
}

TEST_F(ChunkDecodeTest, StreamThatYieldsLessLeavesZeros) {
  const Bytes half = Slice(data_, 0, kBytes / 2);
  for (const std::uint32_t type : {5u, 6u}) {
    Bytes stream = kqtest::LzoFrame(half);
    if (type == 6) stream = HuffmanStream(stream);
    ExpectRead(Open(type, {StreamChunk({{0, kSectors}}, stream)}), 0,
               Join({half, Bytes(kBytes / 2)}));
    EXPECT_EQ(CachedBytes(), kBytes + 512);
  }
}

// Counts that claim gigabytes take no memory, and read as what is there and zeros behind.
TEST_F(ChunkDecodeTest, HugeCountsTakeNoMemory) {
  constexpr std::uint32_t kLargest = 0x7FFFFF;  // times 512 just below 4 GiB
  const AddressSpaceLimit limit(256 << 20);

  ChunkSpec zero = kqtest::ZeroChunk({{0, kSectors}});
  zero.expandedSectors = kLargest;
  std::uint64_t handle = Open(5, {zero});
  ExpectRead(handle, 0, Bytes(kBytes));

  ChunkSpec raw = RawChunk({{0, kLargest - 1}}, {});
  raw.wholeBody = data_;
  raw.storedSectors = kLargest;
  handle = Open(0, {raw});
  ExpectRead(handle, 0, data_);
  ExpectRead(handle, 0x40000000, Bytes(5000));
  {
    const MutexLock lock(chunkCacheMutex);
    EXPECT_EQ(chunkCacheBytes, 0u) << "it is above the limit as soon as nobody uses it";
  }

  ChunkSpec stream = StreamChunk({{0, kSectors}}, kqtest::LzoFrame(data_));
  stream.expandedSectors = kLargest;
  handle = Open(5, {stream});
  ExpectRead(handle, 0, data_);

  // The body claims to be huge as well, and the stream ends long before.
  stream.storedSectors = kLargest - 1;
  handle = Open(5, {stream});
  ExpectRead(handle, 0, data_);
  stream.streamLength = 0xF0000000;
  handle = Open(5, {stream});
  ExpectRead(handle, 0, Bytes(kBytes));
}

TEST_F(ChunkDecodeTest, SizesBeyond32BitsAreMemoryThatCantBeHad) {
  ChunkSpec zero = kqtest::ZeroChunk({{0, kSectors}});
  zero.expandedSectors = 0x800000;
  ExpectFailedRead(Open(5, {zero}), 0, 10, -8);
  ChunkSpec raw = RawChunk({{0, kSectors}}, data_);
  raw.expandedSectors = 0xFFFFFFFF;
  raw.storedSectors = 0xFFFFFFFF;
  ExpectFailedRead(Open(0, {raw}), 0, 10, -8);
}

// A frame may end in bytes that nobody looks at. Where the file ends inside them, they are zero.
TEST_F(ChunkDecodeTest, StreamMayEndInZerosBehindTheFilesEnd) {
  Bytes frame = kqtest::LzoFrame(data_);
  const std::uint32_t spare = 100000;
  const auto length = static_cast<std::uint32_t>(frame.size() - 3 + spare);
  frame[0] = static_cast<std::uint8_t>(length);
  frame[1] = static_cast<std::uint8_t>(length >> 8);
  frame[2] = static_cast<std::uint8_t>(length >> 16);
  ChunkSpec chunk = StreamChunk({{0, 512}}, frame);
  chunk.streamLength = length + 3;
  chunk.storedSectors = (length + 3 + 4 + 511) / 512 + 1;
  Bytes expected = data_;
  expected.resize(512 * 512);
  ExpectRead(Open(5, {chunk}), 0, expected);
}

TEST_F(ChunkDecodeTest, MisalignedChunkBeyondTheFilesEndIsGeneralFailure) {
  ChunkSpec chunk = RawChunk({{0, 4}}, PatternBytes(1, 2048));
  chunk.indexFileOffset = 512 + 4096 * 4 + 1;
  ExpectFailedRead(Open(0, {chunk}), 0, 10, -31);
}

TEST_F(ChunkDecodeTest, ChunkAtAnOddPlaceReads) {
  ImageLayout layout;
  spec_.chunks = {RawChunk({{0, 4}}, PatternBytes(1, 2048))};
  Bytes image = kqtest::BuildImage(spec_, &layout);
  // The same chunk once more, 100 bytes behind a boundary, between chunk and index.
  spec_.chunks[0].indexFileOffset = layout.indexOffset + 100;
  spec_.gapBeforeIndex =
      Join({Bytes(100), Slice(image, layout.chunkOffsets[0], 5 * 512), Bytes(412)});
  ExpectRead(Open(0, spec_.chunks), 0, PatternBytes(1, 2048));
}

TEST_F(ChunkDecodeTest, ChunkThatTheFileCutsShortIsZeroBehindItsEnd) {
  ImageLayout layout;
  spec_.chunks = {RawChunk({{0, 64}}, {})};
  spec_.chunks[0].wholeBody = PatternBytes(1, 1024);
  spec_.chunks[0].storedSectors = 65;
  const Bytes image = kqtest::BuildImage(spec_, &layout);
  Bytes expected = Slice(image, layout.chunkOffsets[0] + 512, image.size() - 1024);
  expected.resize(64 * 512);
  ExpectRead(Open(0, spec_.chunks), 0, expected);
}

}  // namespace
}  // namespace kq
