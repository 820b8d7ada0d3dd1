#include "tests/client/client_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace kqtest {

Volume MakeNoise(std::size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  Volume volume(size);
  for (std::uint8_t& byte : volume) byte = static_cast<std::uint8_t>(random() >> 32);
  return volume;
}

Volume MakeVolume(std::size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  Volume volume(size);
  std::size_t done = 0;
  for (unsigned kind = seed; done < size; ++kind) {
    const std::size_t length = std::min<std::size_t>(size - done, 1 + random() % (200 * 1024));
    for (std::size_t i = 0; i < length; ++i) {
      const auto noise = static_cast<std::uint8_t>(random() >> 32);
      volume[done + i] = kind % 3 == 0   ? static_cast<std::uint8_t>('a' + noise % 4)
                         : kind % 3 == 1 ? noise
                                         : std::uint8_t{0};
    }
    done += length;
  }
  return volume;
}

std::vector<std::string> Joined(std::vector<std::string> first,
                                const std::vector<std::string>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::string NameOfEncryption(const testing::TestParamInfo<Encryption>& test) {
  std::string name = test.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

void PrintTo(const Encryption& encryption, std::ostream* out) { *out << encryption.name; }

std::string ClientTest::Put(const std::string& name, const Volume& volume) const {
  WriteFile(Path(name), volume);
  return Path(name);
}

void ClientTest::PutText(const std::string& name, const std::string& text) const {
  Put(name, Volume(text.begin(), text.end()));
}

std::set<std::string> ClientTest::Names() const {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.Path())) {
    if (entry.path().extension() != ".sha256") names.insert(entry.path().filename().string());
  }
  return names;
}

bool ClientTest::HasTrueSum(const std::string& image) const {
  const std::string command =
      "cd '" + folder_.Path() + "' && sha256sum --strict --status -c '" + image + ".sha256'";
  return std::system(command.c_str()) == 0;
}

void ClientTest::Create(const std::string& source, const std::string& image,
                        const std::vector<std::string>& options) const {
  const ClientResult result = RunClient(Joined({"create", source, image}, options));
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.err, "");
}

void ClientTest::Increment(const std::string& source, const std::string& image,
                           const std::string& out, const std::vector<std::string>& options) const {
  const ClientResult result = RunClient(Joined({"increment", source, image, out}, options));
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.err, "");
}

Volume ClientTest::Restore(const std::vector<std::string>& files,
                           const std::vector<std::string>& options) const {
  const ClientResult result =
      RunClient(Joined(Joined({"restore", "--to", Path("restored")}, files), options));
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.err, "");
  if (result.exitStatus != 0) return {};
  Volume restored = ReadFile(Path("restored"));
  std::filesystem::remove(Path("restored"));
  return restored;
}

}  // namespace kqtest
