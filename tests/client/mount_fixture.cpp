#include "tests/client/mount_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace kqtest {

void MountTest::SetUp() {
  const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  ASSERT_GE(device, 0) << "these tests mount, and /dev/fuse can't be opened: "
                       << std::strerror(errno);
  close(device);
  volume_ = MakeVolume((3 << 20) + 777, 5);
  Put("volume", volume_);
  Create(Path("volume"), Path("a.twf"));
  std::filesystem::create_directory(Path("m"));
}

void MountTest::TearDown() {
  if (std::filesystem::exists("/proc/self/mountinfo")) {
    const Volume table = ReadFile("/proc/self/mountinfo");
    const std::string text(table.begin(), table.end());
    if (text.find(" " + Path("m") + " ") == std::string::npos) return;
    EXPECT_EQ(std::system(("fusermount3 -u -z " + Path("m")).c_str()), 0);
  }
}

MountTest::Arguments MountTest::MountArguments(const std::string& image,
                                               const Arguments& options) const {
  return Joined(Joined({"mount", "--foreground"}, options), {Path(image), Path("m")});
}

void MountTest::ExpectMounted(RunningClient& client) {
  ASSERT_TRUE(client.WaitForOutputLine()) << client.Finish().err;
}

void MountTest::WriteAt(std::uint64_t offset, const Volume& bytes) {
  const int file = open(VolumePath().c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(file, 0) << std::strerror(errno);
  EXPECT_EQ(pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
            static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(close(file), 0);
  std::copy(bytes.begin(), bytes.end(), volume_.begin() + static_cast<std::ptrdiff_t>(offset));
}

void MountTest::WriteHereAndThere(unsigned seed) {
  WriteAt(0, MakeNoise(1, seed));
  WriteAt(5000 + seed, MakeNoise(1, seed + 1));
  WriteAt(4096 * 10 - 3, MakeNoise(6, seed + 2));
  WriteAt(512 * 300 - 100, MakeNoise(512, seed + 3));
  WriteAt((1 << 20) - 4096, MakeNoise(8192, seed + 4));
  WriteAt((1 << 20) + 20001, MakeNoise(300000, seed + 5));
  WriteAt(volume_.size() - 5, MakeNoise(5, seed + 6));
}

void MountTest::Unmount() const {
  ASSERT_EQ(std::system(("fusermount3 -u " + Path("m")).c_str()), 0);
}

}  // namespace kqtest
