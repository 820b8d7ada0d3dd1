// Restores of volumes that several threads share, and what becomes of them when something fails.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/client/client_fixture.h"
#include "tests/client/disk_fixture.h"
#include "tests/faults/small_disk.h"
#include "tests/support/image_builder.h"
#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

using NameSet = std::set<std::string>;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

// More than a thread takes at a time, several times over, and no multiple of anything.
constexpr std::size_t kLongVolume = 37 * kMebibyte + 4711;

class SharedRestoreTest : public ClientTest {
 protected:
  // Has the heads of some chunks claim sizes that can't be; gives the first one's place in the
  // volume.
  std::uint64_t DamageHeads(const std::string& path, const std::vector<std::size_t>& chunks) const {
    Volume image = ReadFile(path);
    const ParsedImage parsed = ParseImage(image);
    std::uint64_t first = UINT64_MAX;
    for (const std::size_t i : chunks) {
      const ParsedChunk& chunk = parsed.chunks.at(i);
      std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(chunk.fileOffset), 4,
                  std::uint8_t{0xFF});
      first = std::min(first, chunk.indexVolumeOffset);
    }
    WriteFile(path, image);
    return first;
  }
};

TEST_F(SharedRestoreTest, GivesBackALongVolumeFromAChain) {
  Volume volume = MakeVolume(kLongVolume, 1);
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  // Changes on both sides of the borders of what threads take.
  for (std::size_t at = 8 * kMebibyte; at < volume.size(); at += 8 * kMebibyte) {
    const Volume changed = MakeNoise(300000, static_cast<unsigned>(at));
    std::copy(changed.begin(), changed.end(),
              volume.begin() + static_cast<std::ptrdiff_t>(at - 100000));
  }
  Put("volume", volume);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(Restore({Path("b.twi")}) == volume);
}

// Whichever thread meets its one first.
TEST_F(SharedRestoreTest, OfSeveralChunksThatCantBeReadTheFirstIsNamed) {
  constexpr std::uint64_t kPiece = kMebibyte;
  Put("volume", MakeNoise(kLongVolume, 2));
  Create(Path("volume"), Path("a.twf"));
  const std::uint64_t first = DamageHeads(Path("a.twf"), {20, 6});
  for (int i = 0; i < 3; ++i) {
    const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("new")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.out, "");
    const std::string message = "kqimage: cannot read the image " + Path("a.twf") + " at byte " +
                                std::to_string(first / kPiece * kPiece) + " of the volume: ";
    EXPECT_TRUE(result.err.starts_with(message)) << result.err;
    EXPECT_EQ(Names(), (NameSet{"volume", "a.twf"}));
  }
}

TEST_F(SharedRestoreTest, AFullDiskFailsAndNothingIsLeft) {
  Put("volume", MakeNoise(kLongVolume, 3));
  Create(Path("volume"), Path("a.twf"));
  std::filesystem::create_directory(Path("disk"));
  InOwnProcess([this] {
    const SmallDisk disk(Path("disk"), 11 * kMebibyte);
    const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", Path("disk/new")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(Path("disk/new")), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(std::strerror(disk.errnoWhenFull())), std::string::npos)
        << result.err;
    EXPECT_TRUE(std::filesystem::is_empty(Path("disk")));
  });
}

// What a device held before must not shine through where the volume is zero.
TEST_F(SharedRestoreTest, ADeviceIsWrittenAsAWhole) {
  Volume volume = MakeVolume(12 * kMebibyte, 4);
  std::fill_n(volume.begin() + 3 * kMebibyte, 5 * kMebibyte, std::uint8_t{0});
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  const Volume before = MakeNoise(volume.size() + kMebibyte, 5);
  Put("disk", before);
  {
    const LoopDevice loop(Path("disk"));
    if (loop.Path().empty()) return;  // this machine gives no devices
    const ClientResult refused = RunClient({"restore", Path("a.twf"), "--to", loop.Path()});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(refused.err,
              "kqimage: " + loop.Path() + " is a block device; --force overwrites what is on it\n");
    const ClientResult result =
        RunClient({"restore", Path("a.twf"), "--to", loop.Path(), "--force"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
  }
  Volume expected = volume;
  expected.insert(expected.end(), before.begin() + static_cast<std::ptrdiff_t>(volume.size()),
                  before.end());
  EXPECT_TRUE(ReadFile(Path("disk")) == expected);
}

TEST_F(SharedRestoreTest, ADeviceThatIsLeftWithAPartIsNamed) {
  Put("volume", MakeNoise(kLongVolume, 6));
  Create(Path("volume"), Path("a.twf"));
  DamageHeads(Path("a.twf"), {20});
  Put("disk", Volume(40 * kMebibyte));
  const LoopDevice loop(Path("disk"));
  if (loop.Path().empty()) return;
  const ClientResult result = RunClient({"restore", Path("a.twf"), "--to", loop.Path(), "--force"});
  EXPECT_EQ(result.exitStatus, 1);
  const std::string end = "; " + loop.Path() + " is left with a part of the volume\n";
  EXPECT_TRUE(result.err.ends_with(end)) << result.err;
}

class HiddenDamageTest : public ClientTest {
 protected:
  // Words with stretches of zeros between them, some as long as what a restore reads at once, and
  // with an end that no chunk follows.
  static Volume TextWithHoles() {
    std::mt19937 random(7);
    std::vector<std::string> words(500);
    for (std::string& word : words) {
      for (std::size_t i = 0; i < 3 + random() % 7; ++i)
        word += static_cast<char>(random() % 26 + 'a');
    }
    Volume volume(11 * kMebibyte + 3 * 4096);
    const auto put = [&](std::size_t begin, std::size_t end) {
      while (begin < end) {
        const std::string word = words[random() % words.size()] + ' ';
        const std::size_t count = std::min(word.size(), end - begin);
        std::copy_n(word.begin(), count, volume.begin() + static_cast<std::ptrdiff_t>(begin));
        begin += count;
      }
    };
    put(0, 3 * kMebibyte);
    put(5 * kMebibyte, 5 * kMebibyte + 700'000);
    put(6 * kMebibyte + 4096, 6 * kMebibyte + 3 * 4096);
    put(8 * kMebibyte, 8 * kMebibyte + 300'000);
    put(10 * kMebibyte - 4096, volume.size());
    return volume;
  }

  static std::vector<ParsedChunk> StreamsOf(const Volume& image) {
    std::vector<ParsedChunk> chunks = ParseImage(image).chunks;
    std::erase_if(chunks, [](const ParsedChunk& each) {
      return each.storedSectors == 1 || each.storedSectors == each.expandedSectors;
    });
    return chunks;
  }

  // The image with noise in the place of the chunk's stream, but for its begin.
  static Volume Damaged(Volume image, const ParsedChunk& chunk) {
    const std::size_t sector = ParseImage(image).header.sectorSize;
    const std::size_t begin = chunk.fileOffset + sector + 32;
    const std::size_t end = chunk.fileOffset + chunk.storedSectors * sector;
    const Volume noise = MakeNoise(end - begin, 3);
    std::copy(noise.begin(), noise.end(), image.begin() + static_cast<std::ptrdiff_t>(begin));
    return image;
  }
};

// The library gives zeros for such a chunk and says nothing, whatever follows it.
TEST_F(HiddenDamageTest, NoChunkThatCantBeDecompressedIsRestoredAsZeros) {
  PutText("key", "password");
  const Volume volume = TextWithHoles();
  Put("volume", volume);
  for (const std::vector<std::string>& cipher :
       {std::vector<std::string>{}, std::vector<std::string>{"--encrypt", "aes256"}}) {
    const std::vector<std::string> password =
        cipher.empty() ? cipher : std::vector<std::string>{"--password-file", Path("key")};
    Create(Path("volume"), Path("a.twf"), Joined(Joined(cipher, password), {"--force"}));
    const Volume image = ReadFile(Path("a.twf"));
    const std::vector<ParsedChunk> chunks = StreamsOf(image);
    ASSERT_GT(chunks.size(), 4U);
    for (const ParsedChunk& chunk : chunks) {
      WriteFile(Path("b.twf"), Damaged(image, chunk));
      const ClientResult result =
          RunClient(Joined({"restore", Path("b.twf"), "--to", Path("new")}, password));
      EXPECT_EQ(result.exitStatus, 1) << chunk.indexVolumeOffset;
      EXPECT_NE(result.err.find("can't be decompressed"), std::string::npos) << result.err;
    }
    std::filesystem::remove(Path("b.twf"));
    EXPECT_TRUE(Restore({Path("a.twf")}, password) == volume);
  }
}

TEST_F(HiddenDamageTest, WhatANewerImageHoldsInsteadIsNotMissed) {
  const Volume volume = TextWithHoles();
  Put("volume", volume);
  Create(Path("volume"), Path("a.twf"));
  Volume changed = volume;
  for (std::uint8_t& byte : changed) byte = byte == 0 ? 1 : 0;
  Put("volume", changed);
  Increment(Path("volume"), Path("a.twf"), Path("b.twi"));
  Volume image = ReadFile(Path("a.twf"));
  for (const ParsedChunk& chunk : StreamsOf(image)) image = Damaged(image, chunk);
  WriteFile(Path("a.twf"), image);
  EXPECT_TRUE(Restore({Path("b.twi")}) == changed);
}

// To the library the rest of such a chunk is zero, and reading it no failure.
TEST_F(HiddenDamageTest, NorIsTheRestOfOneThatYieldsTooLittle) {
  constexpr std::uint64_t kSectors = 64;
  constexpr std::size_t kSector = 512;
  ImageSpec spec;
  spec.header.sourceSize = kSectors * kSector;
  spec.header.compressionType = 5;
  spec.header.record.emplace();
  for (const std::size_t yielded : {kSectors, kSectors - 16}) {
    const Bytes text(yielded * kSector, 'a');
    spec.chunks = {StreamChunk({{0, kSectors}}, LzoFrames(text, 0x8000))};
    WriteFile(Path("a.twf"), BuildImage(spec));
    const ClientResult result =
        RunClient({"restore", Path("a.twf"), "--to", Path("new"), "--force"});
    EXPECT_EQ(result.exitStatus, yielded == kSectors ? 0 : 1) << result.err;
  }
}

}  // namespace
}  // namespace kqtest
