#include "kqimage/image/chunk_pipeline.h"

#include <gtest/gtest.h>
#include <kqimageformat.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <utility>
#include <vector>

#include "header/extended_record.h"
#include "kqimage/image/chain_reader.h"
#include "kqimage/image/header_template.h"
#include "kqimage/image/sha256_file.h"

namespace kqimage {
namespace {

using Bytes = std::vector<std::byte>;

constexpr std::uint64_t kVolumeSize = std::uint64_t{64} << 20;
constexpr char kImageId[] = "0123456789ABCDE";
constexpr char kPassword[] = "correct horse";

struct WriteCall {
  std::uint64_t offset = 0;
  Bytes bytes;
};

Bytes Random(std::size_t size, unsigned mask, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  const std::uint32_t masks = mask * 0x01010101U;
  for (std::size_t at = 0; at < size; at += sizeof masks) {
    const auto four = static_cast<std::uint32_t>(random()) & masks;
    std::memcpy(bytes.data() + at, &four, std::min(sizeof four, size - at));
  }
  return bytes;
}

// All that decides where chunks end and what form they take.
std::vector<WriteCall> AllKindsOfWrites(unsigned seed) {
  std::vector<WriteCall> calls;
  std::uint64_t at = 0;
  const auto add = [&](Bytes bytes, std::uint64_t gap) {
    calls.push_back({at, std::move(bytes)});
    at += calls.back().bytes.size() + gap;
  };
  add(Random(5 << 18, 0x0F, seed), 0);      // several chunks from one call, compressible
  add(Random(3 << 19, 0xFF, seed + 1), 0);  // incompressible
  add(Bytes(3 << 19), 4096);                // all zero
  for (unsigned i = 0; i < 700; ++i) {      // run lists that are full long before the buffers
    add(Random(4096, 0x3F, seed + 2 + i), 4096 * (1 + i * 7919 % 13));
  }
  for (unsigned i = 0; i < 300; ++i) add(Random(8192, 0x03, seed + i), 0);  // runs that merge
  at = 512;                                                                 // backwards
  add(Random(70000 / 512 * 512, 0x1F, seed), 0);
  return calls;
}

class ChunkPipelineTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kqimage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Path(const char* name) const { return (folder_ / name).string(); }

  static Bytes FileBytes(const std::string& path) {
    Bytes bytes(std::filesystem::file_size(path));
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
  }

  // Through the exported functions.
  void WriteWithLibrary(const std::string& path, const HeaderTemplate& header,
                        const std::vector<WriteCall>& calls, const char* password) const {
    std::uint64_t handle = 0;
    ASSERT_EQ(
        KQNewImageFileCreate2(header.bytes.data(), static_cast<std::uint32_t>(header.bytes.size()),
                              password, path.c_str(), &kVolumeSize, nullptr, nullptr,
                              reinterpret_cast<const std::uint8_t*>(kImageId), &handle)
            .status,
        0);
    for (const WriteCall& call : calls) {
      ASSERT_EQ(KQNewImageFileWrite(handle, call.bytes.data(),
                                    static_cast<std::uint32_t>(call.bytes.size()), call.offset)
                    .status,
                0);
    }
    ASSERT_EQ(KQNewImageFileClose(handle, "some words").status, 0);
  }

  void WriteWithPipeline(const std::string& path, const HeaderTemplate& header,
                         const std::vector<WriteCall>& calls, const char* password,
                         std::size_t threads) {
    ChunkPipeline pipeline;
    ASSERT_EQ(pipeline
                  .Open(path, header.bytes, password, kVolumeSize, "some words",
                        {.threads = threads, .withSum = true, .imageId = kImageId})
                  .status,
              0);
    for (const WriteCall& call : calls) {
      ASSERT_EQ(pipeline.Write(call.offset, call.bytes).status, 0);
    }
    ASSERT_EQ(pipeline.Flush().status, 0);
    ASSERT_EQ(pipeline.Finish().status, 0);
    ExpectTheEndOf(calls, pipeline.LastPieces());
    EXPECT_EQ(pipeline.Sum(), Sha256OfFile(path, [](std::uint64_t) {}));
  }

  // The pieces are what was written last, byte by byte and in the same order.
  static void ExpectTheEndOf(const std::vector<WriteCall>& calls,
                             const std::vector<WrittenPiece>& pieces) {
    std::size_t call = calls.size() - 1;
    std::size_t left = calls[call].bytes.size();  // of that call, from its begin
    ASSERT_FALSE(pieces.empty());
    for (std::size_t i = pieces.size(); i-- > 0;) {
      for (std::size_t end = pieces[i].bytes.size(); end > 0;) {
        if (left == 0) left = calls.at(--call).bytes.size();
        const std::size_t count = std::min(left, end);
        left -= count;
        end -= count;
        ASSERT_EQ(pieces[i].offset + end, calls[call].offset + left);
        ASSERT_EQ(std::memcmp(pieces[i].bytes.data() + end, calls[call].bytes.data() + left, count),
                  0);
      }
    }
  }

  // The moment of creation and the record's identifiers, with the checksum over all of it, are all
  // in which the files may differ.
  static void MaskOwnFields(Bytes& file, std::uint32_t sectorSize) {
    std::memset(file.data() + offsetof(ImageHeader, CreationTime), 0,
                sizeof ImageHeader::CreationTime);
    auto* sector = reinterpret_cast<std::uint8_t*>(file.data());
    const auto place = kq::FindExtendedRecord({sector, sectorSize}, kq::RecordLimit::kSectorEnd);
    ASSERT_TRUE(place);
    for (const auto& [field, size] :
         {std::pair(offsetof(ExtendedRecord, FileUuid), sizeof ExtendedRecord::FileUuid),
          std::pair(offsetof(ExtendedRecord, SecondUuid), sizeof ExtendedRecord::SecondUuid),
          std::pair(offsetof(ExtendedRecord, HeaderCrc), sizeof ExtendedRecord::HeaderCrc)}) {
      std::memset(sector + *place + field, 0, size);
    }
  }

  std::filesystem::path folder_;
};

TEST_F(ChunkPipelineTest, TheFileIsTheOneThatTheLibraryWrites) {
  unsigned seed = 1;
  for (const std::uint32_t sectorSize : {512u, 4096u}) {
    for (const std::uint32_t type :
         {KQ_COMPRESSION_NONE, KQ_COMPRESSION_LZW, KQ_COMPRESSION_LZSS, KQ_COMPRESSION_LZO}) {
      HeaderTemplate header = MakeBaseTemplate(sectorSize, type, KQ_ENCRYPTION_NONE);
      AddHeaderSectors(header, Random(sectorSize, 0xFF, seed), nullptr);
      std::vector<WriteCall> calls = AllKindsOfWrites(seed++);
      if (sectorSize == 4096) calls.back().offset = 4096, calls.back().bytes.resize(16 * 4096);
      WriteWithLibrary(Path("library"), header, calls, nullptr);
      Bytes expected = FileBytes(Path("library"));
      MaskOwnFields(expected, sectorSize);
      for (const std::size_t threads : {1U, 4U}) {
        WriteWithPipeline(Path("pipeline"), header, calls, nullptr, threads);
        Bytes written = FileBytes(Path("pipeline"));
        MaskOwnFields(written, sectorSize);
        ASSERT_TRUE(written == expected)
            << "sectors of " << sectorSize << ", type " << type << ", " << threads << " threads";
      }
    }
  }
}

// The library's own streams depend on what its codec did before.
TEST_F(ChunkPipelineTest, AFileOfType6DependsOnNoThread) {
  const HeaderTemplate header =
      MakeBaseTemplate(512, KQ_COMPRESSION_LZO_HUFFMAN, KQ_ENCRYPTION_NONE);
  for (unsigned seed = 50; seed < 53; ++seed) {
    std::vector<WriteCall> calls = AllKindsOfWrites(seed);
    calls.pop_back();  // what goes backwards is not found by a reader
    Bytes first;
    for (const std::size_t threads : {1U, 2U, 4U}) {
      WriteWithPipeline(Path("pipeline.twf"), header, calls, nullptr, threads);
      Bytes written = FileBytes(Path("pipeline.twf"));
      MaskOwnFields(written, 512);
      if (first.empty()) first = written;
      ASSERT_TRUE(written == first) << threads << " threads";
    }
    const ChainReader reader({ReadImageFile(Path("pipeline.twf"))}, nullptr);
    for (std::size_t i = 0; i < calls.size(); i += 20) {
      Bytes read(calls[i].bytes.size());
      reader.Read(calls[i].offset, read);
      ASSERT_TRUE(read == calls[i].bytes) << calls[i].offset;
    }
  }
}

// Each image has a random key of its own, so only what is not enciphered can be compared.
TEST_F(ChunkPipelineTest, AnEncipheredFileHoldsTheSameUnderAKeyOfItsOwn) {
  unsigned seed = 100;
  for (const std::uint32_t encryption : {KQ_ENCRYPTION_AES128_UNCHECKED, KQ_ENCRYPTION_AES128,
                                         KQ_ENCRYPTION_RC4, KQ_ENCRYPTION_AES256}) {
    for (const std::uint32_t type : {KQ_COMPRESSION_NONE, KQ_COMPRESSION_LZO}) {
      const HeaderTemplate header = MakeBaseTemplate(512, type, encryption);
      std::vector<WriteCall> calls = AllKindsOfWrites(seed++);
      calls.pop_back();  // what goes backwards is not found by a reader
      WriteWithLibrary(Path("library.twf"), header, calls, kPassword);
      WriteWithPipeline(Path("pipeline.twf"), header, calls, kPassword, 3);
      const Bytes expected = FileBytes(Path("library.twf"));
      const Bytes written = FileBytes(Path("pipeline.twf"));
      ASSERT_EQ(written.size(), expected.size());
      std::size_t at = 512;
      while (true) {
        ChunkHead head = {};
        std::memcpy(&head, expected.data() + at, sizeof head);
        ASSERT_EQ(std::memcmp(written.data() + at, expected.data() + at, 512), 0) << at;
        if (head.StoredSectors == 0) break;  // the chunk index
        if (head.StoredSectors > 1) {
          EXPECT_NE(std::memcmp(written.data() + at + 512, expected.data() + at + 512, 512), 0);
        }
        at += std::size_t{512} * head.StoredSectors;
      }
      EXPECT_TRUE(std::equal(written.begin() + static_cast<std::ptrdiff_t>(at), written.end(),
                             expected.begin() + static_cast<std::ptrdiff_t>(at)));
      const ChainReader reader({ReadImageFile(Path("pipeline.twf"))}, kPassword);
      for (std::size_t i = 0; i < calls.size(); i += 50) {
        Bytes read(calls[i].bytes.size());
        reader.Read(calls[i].offset, read);
        EXPECT_TRUE(read == calls[i].bytes) << calls[i].offset;
      }
    }
  }
}

TEST_F(ChunkPipelineTest, AFailureOfAnyThreadComesOutOfALaterCall) {
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto ignored = signal(SIGXFSZ, SIG_IGN);
  const Bytes noise = Random(8 << 20, 0xFF, 7);
  const HeaderTemplate header = MakeBaseTemplate(512, KQ_COMPRESSION_LZO, KQ_ENCRYPTION_NONE);
  for (const std::size_t threads : {1U, 4U}) {
    ChunkPipeline pipeline;
    ASSERT_EQ(pipeline.Open(Path("a"), header.bytes, nullptr, kVolumeSize, "", {.threads = threads})
                  .status,
              0);
    const rlimit limit = {3 << 20, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::int32_t status = 0;
    for (std::size_t at = 0; at < noise.size() && status == 0; at += 65536) {
      status = pipeline.Write(at, std::span(noise).subspan(at, 65536)).status;
    }
    if (status == 0) status = pipeline.Flush().status;
    const std::int32_t again = pipeline.Write(0, std::span(noise)).status;
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_LT(status, 0);
    EXPECT_EQ(again, status);
    EXPECT_EQ(std::memcmp(FileBytes(Path("a")).data() + offsetof(ImageHeader, Magic), KQ_MAGIC_OPEN,
                          sizeof ImageHeader::Magic),
              0);
  }
  signal(SIGXFSZ, ignored);
}

TEST_F(ChunkPipelineTest, CanBeGivenUpAtAnyMoment) {
  const Bytes noise = Random(5 << 20, 0x3F, 9);
  const HeaderTemplate header = MakeBaseTemplate(512, KQ_COMPRESSION_LZO, KQ_ENCRYPTION_NONE);
  for (std::size_t length = 0; length <= noise.size(); length += 1 << 19) {
    ChunkPipeline pipeline;
    ASSERT_EQ(
        pipeline.Open(Path("a"), header.bytes, nullptr, kVolumeSize, "", {.threads = 2}).status, 0);
    ASSERT_EQ(pipeline.Write(0, std::span(noise).first(length)).status, 0);
  }
}

TEST_F(ChunkPipelineTest, AFileThatCanNotBeCreatedIsRefusedAsTheLibraryDoes) {
  const HeaderTemplate header = MakeBaseTemplate(512, KQ_COMPRESSION_LZO, KQ_ENCRYPTION_AES128);
  std::uint64_t handle = 0;
  const auto size = static_cast<std::uint32_t>(header.bytes.size());
  const std::string nowhere = Path("none/a");
  for (const char* password : {static_cast<const char*>(nullptr), kPassword}) {
    const KQStatus expected =
        KQNewImageFileCreate2(header.bytes.data(), size, password, nowhere.c_str(), nullptr,
                              nullptr, nullptr, nullptr, &handle);
    EXPECT_NE(expected.status, 0);
    ChunkPipeline pipeline;
    EXPECT_EQ(pipeline.Open(nowhere, header.bytes, password, 1, "", {}).status, expected.status);
  }
}

}  // namespace
}  // namespace kqimage
