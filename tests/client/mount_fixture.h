// A folder with an image and a place to mount it, for tests of mount and commit.
#ifndef KQ_TESTS_CLIENT_MOUNT_FIXTURE_H
#define KQ_TESTS_CLIENT_MOUNT_FIXTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/client/client_fixture.h"
#include "tests/client/running_client.h"

namespace kqtest {

class MountTest : public ClientTest {
 protected:
  using Arguments = std::vector<std::string>;

  // A volume that is no whole number of sectors, a.twf of it, and the folder m. Fails where nothing
  // can be mounted: such a machine can't tell whether mounts work.
  void SetUp() override;
  void TearDown() override;

  // The arguments of a mount that stays in the foreground.
  Arguments MountArguments(const std::string& image, const Arguments& options = {}) const;

  // Waits until the volume is there.
  static void ExpectMounted(RunningClient& client);

  std::string VolumePath() const { return Path("m/volume"); }

  // What the mounted file has.
  Volume Mounted() const { return ReadFile(VolumePath()); }

  // Writes to the mounted file and to volume_ alike.
  void WriteAt(std::uint64_t offset, const Volume& bytes);

  // Writes here and there: single bytes, over borders of sectors and pages, long, at both ends.
  void WriteHereAndThere(unsigned seed);

  // As an ordinary user would; fails the test if the mount is busy.
  void Unmount() const;

  Volume volume_;
};

}  // namespace kqtest

#endif
