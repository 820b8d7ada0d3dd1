// Restores of volumes that several threads share, and what becomes of them when something fails.

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "tests/client/client_fixture.h"
#include "tests/client/disk_fixture.h"
#include "tests/faults/small_disk.h"
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
  constexpr std::uint64_t kPiece = 2 * kMebibyte;
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

}  // namespace
}  // namespace kqtest
