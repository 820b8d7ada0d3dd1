// Full images and back.

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <utility>
#include <vector>

#include "include/kqimageformat.h"
#include "tests/client/client_fixture.h"
#include "tests/support/expand_stream.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;

class RoundTripTest : public ClientTest,
                      public testing::WithParamInterface<std::tuple<const char*, const char*>> {};

TEST_P(RoundTripTest, GivesBackEveryByteOfVolumesOfAnySize) {
  const auto [compression, sectorSize] = GetParam();
  for (const std::size_t size :
       {1u, 511u, 512u, 513u, 4095u, 4096u, 4097u, 1048576u, 4194304u, 9000001u}) {
    SCOPED_TRACE(size);
    const Volume volume = MakeVolume(size, static_cast<unsigned>(size));
    Put("volume", volume);
    Create(Path("volume"), Path("a.twf"),
           {"--compress", compression, "--sector-size", sectorSize, "--force"});
    EXPECT_EQ(Restore({Path("a.twf")}), volume);
    EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
    EXPECT_EQ(ReadFile(Path("volume")), volume) << "the source is only read";
    // A reader that shares nothing with the library finds the same.
    const ParsedImage parsed = ParseImage(
        ReadFile(Path("a.twf")), {.decipher = {}, .expand = ExpandStream, .magic = "TWFI"});
    EXPECT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.ReadVolume(0, size), volume);
  }
}

INSTANTIATE_TEST_SUITE_P(, RoundTripTest,
                         testing::Combine(testing::Values("none", "lzo", "lzo-huffman"),
                                          testing::Values("512", "1024", "2048", "4096")),
                         [](const auto& tested) {
                           std::string name = std::string(std::get<0>(tested.param)) + "_" +
                                              std::get<1>(tested.param);
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

class CreateTest : public ClientTest {};
class RestoreTest : public ClientTest {};

ImageHeader HeaderOf(const std::string& path) {
  const Volume bytes = ReadFile(path);
  ImageHeader header = {};
  if (bytes.size() >= sizeof header) std::memcpy(&header, bytes.data(), sizeof header);
  return header;
}

TEST_F(CreateTest, HeaderTellsWhatWasAskedFor) {
  Put("volume", MakeNoise(70001, 1));
  Create(Path("volume"), Path("a.twf"), {"--compress", "lzo-huffman", "--sector-size", "2048"});
  Create(Path("volume"), Path("b.twf"));
  const ImageHeader a = HeaderOf(Path("a.twf"));
  const ImageHeader b = HeaderOf(Path("b.twf"));
  EXPECT_EQ(std::memcmp(a.Magic, KQ_MAGIC_FINISHED, 4), 0);
  EXPECT_EQ(a.SectorSize, 2048u);
  EXPECT_EQ(a.HeaderSectors, 1u);
  EXPECT_EQ(a.SourceSize, 70001u);
  EXPECT_EQ(a.CompressionType, KQ_COMPRESSION_LZO_HUFFMAN);
  EXPECT_EQ(a.EncryptionType, KQ_ENCRYPTION_NONE);
  EXPECT_EQ(a.Flags, KQ_FLAG_EXTENDED_RECORD);
  EXPECT_EQ(b.SectorSize, 512u);
  EXPECT_EQ(b.CompressionType, KQ_COMPRESSION_LZO);
  const std::uint8_t none[16] = {};
  EXPECT_EQ(std::memcmp(a.ParentImageId, none, 16), 0);
  EXPECT_NE(std::memcmp(a.ImageSetId, none, 16), 0);
  EXPECT_NE(std::memcmp(a.ImageSetId, b.ImageSetId, 16), 0) << "a set of its own each";
}

TEST_F(CreateTest, ATypeThatCantBeReadBackIsMadeAndNamed) {
  const Volume volume = MakeVolume(3 << 20, 3);
  Put("volume", volume);
  for (const auto& [name, type] :
       {std::pair{"lzw", KQ_COMPRESSION_LZW}, {"lzss", KQ_COMPRESSION_LZSS}}) {
    const ClientResult made =
        RunClient({"create", Path("volume"), Path("a.twf"), "--compress", name, "--force"});
    EXPECT_EQ(made.exitStatus, 0) << made.err;
    EXPECT_NE(made.out.find(Path("a.twf") + " is for other readers: this program can't read " +
                            name + " back\n"),
              std::string::npos)
        << made.out;
    EXPECT_EQ(HeaderOf(Path("a.twf")).CompressionType, type);
    EXPECT_LT(std::filesystem::file_size(Path("a.twf")), volume.size() * 3 / 4);
    const ClientResult info = RunClient({"info", Path("a.twf")});
    EXPECT_NE(info.out.find(std::string("Compression       ") + name +
                            ", which this program can't read back\n"),
              std::string::npos)
        << info.out;
    const ClientResult increment = RunClient({"increment", Path("volume"), Path("a.twf")});
    EXPECT_EQ(increment.exitStatus, 1);
    EXPECT_EQ(increment.err, "kqimage: " + Path("a.twf") + " is compressed as " + name +
                                 ", which can't be read back: nothing can be restored from it or "
                                 "compared with it\n");
  }
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

TEST_F(CreateTest, AnIncrementOfATypeThatCantBeReadBackEndsItsChain) {
  Volume volume = MakeVolume(1 << 20, 3);
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  std::fill_n(volume.begin(), 300000, std::uint8_t{'x'});
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"), {"--compress", "lzss"});
  EXPECT_EQ(HeaderOf(Path("b.twi")).CompressionType, KQ_COMPRESSION_LZSS);
  EXPECT_EQ(RunClient({"increment", Path("volume"), Path("b.twi")}).exitStatus, 1);
  Increment(Path("volume"), Path("a.twf"), Path("c.twi"));
  EXPECT_EQ(Restore({Path("c.twi")}), volume);
}

TEST_F(CreateTest, ZeroStretchesAreNotStoredEvenUncompressed) {
  Volume volume(8 << 20);
  std::fill_n(volume.begin() + (3 << 20), 4096, std::uint8_t{1});
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"), {"--compress", "none"});
  // Header, head and 8 sectors of the chunk, index, pointer.
  EXPECT_EQ(std::filesystem::file_size(Path("a.twf")), 12u * 512);
  EXPECT_EQ(Restore({Path("a.twf")}), volume);
}

TEST_F(CreateTest, AWhollyZeroVolumeStillGivesAnImage) {
  for (const std::size_t size : {1u, 512u, 100000u}) {
    Put("volume", Volume(size));
    Create(Path("volume"), Path("a.twf"), {"--force"});
    EXPECT_EQ(Restore({Path("a.twf")}), Volume(size));
  }
}

TEST_F(CreateTest, ALargeSparseVolumeIsReadByItsDataAlone) {
  const std::string path = Put("volume", MakeNoise(4096, 1));
  std::filesystem::resize_file(path, std::uintmax_t{1} << 40);
  Create(path, Path("a.twf"));
  EXPECT_LT(std::filesystem::file_size(Path("a.twf")), 8192u);
  EXPECT_EQ(HeaderOf(Path("a.twf")).SourceSize, std::uint64_t{1} << 40);
}

TEST_F(CreateTest, RefusesAnExistingFileAndForceReplacesIt) {
  const Volume volume = MakeVolume(100000, 1);
  Put("volume", volume);
  Put("a.twf", {'o', 'l', 'd'});
  const ClientResult refused = RunClient({"create", Path("volume"), Path("a.twf")});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_EQ(refused.err, "kqimage: " + Path("a.twf") + " exists already; --force replaces it\n");
  EXPECT_EQ(ReadFile(Path("a.twf")), (Volume{'o', 'l', 'd'}));
  Create(Path("volume"), Path("a.twf"), {"--force"});
  EXPECT_EQ(Restore({Path("a.twf")}), volume);
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

TEST_F(CreateTest, NeverWritesToItsOwnSource) {
  const Volume volume = MakeNoise(5000, 1);
  Put("v.twf", volume);
  std::filesystem::create_symlink("v.twf", Path("link.twf"));
  for (const char* image : {"v.twf", "link.twf"}) {
    EXPECT_EQ(RunClient({"create", Path("v.twf"), Path(image), "--force"}).exitStatus, 1);
  }
  EXPECT_EQ(ReadFile(Path("v.twf")), volume);
}

TEST_F(CreateTest, AFailedWriteNamesFileAndStatusAndLeavesNothing) {
  Put("volume", MakeNoise(3 << 20, 1));
  const ClientResult result = RunClient({"create", Path("volume"), Path("a.twf")},
                                        {.fileSizeLimit = std::uint64_t{1} << 20});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("cannot write the image " + Path("a.twf") + ": "), std::string::npos)
      << result.err;
  EXPECT_NE(result.err.find("(status -"), std::string::npos) << result.err;
  EXPECT_EQ(Names(), NameSet{"volume"});
}

TEST_F(CreateTest, AWriteThatFailsAtTheCloseIsNoticed) {
  // All data fit in one chunk, which is written at the close alone.
  Put("volume", MakeNoise(600000, 1));
  const ClientResult result =
      RunClient({"create", Path("volume"), Path("a.twf")}, {.fileSizeLimit = 300000});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(Names(), NameSet{"volume"});
}

TEST_F(CreateTest, AFailedReplacementKeepsTheOldFile) {
  const Volume old = MakeVolume(100000, 1);
  Put("volume", old);
  Create(Path("volume"), Path("a.twf"));
  const Volume image = ReadFile(Path("a.twf"));
  Put("volume", MakeNoise(3 << 20, 2));
  const ClientResult result = RunClient({"create", Path("volume"), Path("a.twf"), "--force"},
                                        {.fileSizeLimit = std::uint64_t{1} << 20});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(ReadFile(Path("a.twf")), image);
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

TEST_F(CreateTest, SourcesThatHaveNoBytesAreRefused) {
  Put("empty", {});
  for (const std::string& source :
       {Path("empty"), Path("missing"), Path(""), std::string("/dev/null")}) {
    const ClientResult result = RunClient({"create", source, Path("a.twf")});
    EXPECT_EQ(result.exitStatus, 1) << source;
    EXPECT_TRUE(result.err.starts_with("kqimage: ")) << result.err;
    EXPECT_NE(result.err.find(source), std::string::npos) << result.err;
  }
  EXPECT_EQ(Names(), NameSet{"empty"});
}

TEST_F(CreateTest, QuietPrintsNothing) {
  Put("volume", MakeNoise(5000, 1));
  const ClientResult result = RunClient({"create", "-q", Path("volume"), Path("a.twf")});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out + result.err, "");
}

TEST_F(CreateTest, NamesThatTheLibrarysListCantHoldWork) {
  std::filesystem::create_directory(Path("a|b"));
  const Volume volume = MakeVolume(300000, 1);
  Put("volume", volume);
  Create(Path("volume"), Path("a|b/c|d.twf"));
  Volume changed = volume;
  changed[100] ^= 1;
  Put("volume", changed);
  Increment(Path("volume"), Path("a|b/c|d.twf"), Path("a|b/e|.twi"));
  EXPECT_EQ(Restore({Path("a|b/c|d.twf")}), volume);
  EXPECT_EQ(Restore({Path("a|b/e|.twi")}), changed);
}

TEST_F(RestoreTest, WhatReadsAsZeroIsAHoleInANewFile) {
  Volume volume(16 << 20);
  std::fill_n(volume.begin() + (9 << 20), 4096, std::uint8_t{1});
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  ASSERT_EQ(RunClient({"restore", Path("a.twf"), "--to", Path("new")}).exitStatus, 0);
  struct stat status = {};
  ASSERT_EQ(stat(Path("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 16 << 20);
  EXPECT_LE(status.st_blocks * 512, 256 << 10);
  EXPECT_EQ(ReadFile(Path("new")), volume);
}

// Whoever reads or writes all of it takes hours.
TEST_F(RestoreTest, ALargeVolumeWithLittleInItTakesNoTime) {
  constexpr std::uint64_t kSize = std::uint64_t{1} << 40;
  constexpr std::uint64_t kCell = std::uint64_t{2} << 20;
  // Ends of the volume and of cells, a stretch over such an end, and more than one chunk.
  const std::vector<std::pair<std::uint64_t, Volume>> data = {
      {4096, MakeNoise(4096, 1)},
      {kSize / 3 / kCell * kCell - 4096, MakeNoise(8192, 2)},
      {kSize / 2, MakeNoise(5 << 20, 3)},
      {kSize - 512, MakeNoise(512, 4)}};
  {
    std::ofstream file(Path("volume"), std::ios::binary);
    for (const auto& [offset, bytes] : data) {
      file.seekp(static_cast<std::streamoff>(offset));
      file.write(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::streamsize>(bytes.size()));
    }
  }
  for (const char* compression : {"none", "lzo"}) {
    Create(Path("volume"), Path("a.twf"), {"--compress", compression, "--force"});
    ASSERT_EQ(RunClient({"restore", Path("a.twf"), "--to", Path("out"), "--force"}).exitStatus, 0);
    EXPECT_EQ(std::filesystem::file_size(Path("out")), kSize);
    struct stat status = {};
    ASSERT_EQ(stat(Path("out").c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, std::int64_t{8} << 20);
    std::ifstream file(Path("out"), std::ios::binary);
    for (const auto& [offset, bytes] : data) {
      Volume read(bytes.size());
      file.seekg(static_cast<std::streamoff>(offset));
      file.read(reinterpret_cast<char*>(read.data()), static_cast<std::streamsize>(read.size()));
      EXPECT_TRUE(read == bytes) << offset;
    }
  }
}

TEST_F(RestoreTest, RefusesAnExistingFileAndForceReplacesIt) {
  const Volume volume = MakeVolume(100000, 1);
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  // Longer than the volume, and without a zero: nothing of it may shine through.
  Put("target", MakeNoise(200000, 2));
  const ClientResult refused = RunClient({"restore", Path("a.twf"), "--to", Path("target")});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.err.find("exists already"), std::string::npos) << refused.err;
  EXPECT_EQ(ReadFile(Path("target")), MakeNoise(200000, 2));
  EXPECT_EQ(RunClient({"restore", Path("a.twf"), "--to", Path("target"), "--force"}).exitStatus, 0);
  EXPECT_EQ(ReadFile(Path("target")), volume);
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf", "target"}));
}

TEST_F(RestoreTest, NeverWritesToAnImageItReads) {
  Put("volume", MakeNoise(5000, 1));
  Create(Path("volume"), Path("a.twf"));
  const Volume image = ReadFile(Path("a.twf"));
  const ClientResult result =
      RunClient({"restore", Path("a.twf"), "--to", Path("a.twf"), "--force"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(ReadFile(Path("a.twf")), image);
}

TEST_F(RestoreTest, OtherKindsOfTargetsAreRefused) {
  Put("volume", MakeNoise(5000, 1));
  Create(Path("volume"), Path("a.twf"));
  for (const std::string& target : {std::string("/dev/null"), Path(""), Path("no/such/folder")}) {
    const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", target, "--force"});
    EXPECT_EQ(result.exitStatus, 1) << target;
  }
}

TEST_F(RestoreTest, AFailedWriteLeavesNothing) {
  Put("volume", MakeNoise(3 << 20, 1));
  Create(Path("volume"), Path("a.twf"));
  // The size of the file is within the limit of no step but the first.
  const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")},
                                        {.fileSizeLimit = std::uint64_t{1} << 20});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find(Path("new")), std::string::npos) << result.err;
  EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
}

// Makes the first compressed chunk of the image undecodable: its stream is told to be one byte
// shorter than it is.
void DamageFirstChunk(const std::string& path) {
  Volume image = ReadFile(path);
  const ImageHeader header = HeaderOf(path);
  const std::size_t body = std::size_t{header.SectorSize} * (header.HeaderSectors + 1);
  ASSERT_GT(image[body], 0);
  --image[body];
  WriteFile(path, image);
}

TEST_F(RestoreTest, AChunkThatCantBeDecompressedFailsInsteadOfGivingZeros) {
  for (const char* compression : {"lzo", "lzo-huffman"}) {
    const Volume volume(6 << 20, 'x');
    Put("volume", volume);
    Create(Path("volume"), Path("a.twf"), {"--compress", compression, "--force"});
    DamageFirstChunk(Path("a.twf"));
    const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "kqimage: the image " + Path("a.twf") +
                              " is damaged: a chunk at or behind byte 0 of the volume can't be "
                              "decompressed\n");
    EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
  }
}

}  // namespace
}  // namespace kqtest
