// A folder with volumes and images for tests of the client.
#ifndef KQ_TESTS_CLIENT_CLIENT_FIXTURE_H
#define KQ_TESTS_CLIENT_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "tests/client/run_client.h"
#include "tests/support/temp_dir.h"

namespace kqtest {

using Volume = std::vector<std::uint8_t>;

// A volume like a used disk: stretches of text, of noise and of zeros, in turn, with odd borders.
// The same seed gives the same volume.
Volume MakeVolume(std::size_t size, unsigned seed);

// Bytes that no codec makes smaller, and without a zero block.
Volume MakeNoise(std::size_t size, unsigned seed);

// The arguments of both, in order.
std::vector<std::string> Joined(std::vector<std::string> first,
                                const std::vector<std::string>& second);

// An encryption as create's options name it.
struct Encryption {
  const char* option;
  const char* name;
  std::uint32_t type;
};
inline constexpr Encryption kUncheckedEncryption = {"--encrypt-legacy", "aes128-unchecked", 1};
inline constexpr Encryption kEncryptions[] = {kUncheckedEncryption,
                                              {"--encrypt", "aes128", 2},
                                              {"--encrypt-legacy", "rc4", 3},
                                              {"--encrypt", "aes256", 4}};
// For the names of tests.
std::string NameOfEncryption(const testing::TestParamInfo<Encryption>& test);
void PrintTo(const Encryption& encryption, std::ostream* out);

class ClientTest : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return folder_.Path(name); }

  // Writes a volume that stands in the folder.
  std::string Put(const std::string& name, const Volume& volume) const;

  void PutText(const std::string& name, const std::string& text) const;

  // The names in the folder, but for the .sha256 files of images, which sha256_test.cpp looks at.
  std::set<std::string> Names() const;

  // Whether NAME.sha256 is there, and sha256sum finds that it tells the truth.
  bool HasTrueSum(const std::string& image) const;

  // Run the command, expect success and silence on standard error.
  void Create(const std::string& source, const std::string& image,
              const std::vector<std::string>& options = {}) const;
  void Increment(const std::string& source, const std::string& image, const std::string& out,
                 const std::vector<std::string>& options = {}) const;

  // Restores from the files to a new file, which is removed, and returns its bytes.
  Volume Restore(const std::vector<std::string>& files,
                 const std::vector<std::string>& options = {}) const;

  TempDir folder_;
};

}  // namespace kqtest

#endif
