#include "foundation/configuration.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "foundation/system_calls_test.h"
#include "tests/support/temp_dir.h"

namespace {

using kq::Configuration;
using kq::ConfigurationValue;
using kqtest::Call;
using kqtest::CallCounter;
using kqtest::FailingCall;
using kqtest::ShortTransfers;

constexpr std::uint64_t kChunkDefault = 0x1E00000;
constexpr std::uint64_t kHeaderDefault = 0x200000;
constexpr char kChunkKey[] = "ChunkCache_MaxCachedBytes";
constexpr char kHeaderKey[] = "ChunkHeaderCache_MaxCachedBytes";

void ExpectLimits(const Configuration& configuration, std::uint64_t chunk, std::uint64_t header) {
  EXPECT_EQ(configuration.chunkCacheMaxBytes, chunk);
  EXPECT_EQ(configuration.chunkHeaderCacheMaxBytes, header);
}

std::uint64_t Value(const std::string& text) { return ConfigurationValue(text.c_str(), "Key", 77); }

TEST(ConfigurationValue, IsTheNumberBehindTheKey) {
  EXPECT_EQ(Value("Key=5"), 5U);
  EXPECT_EQ(Value("Key = 1234567890123\n"), 1234567890123U);
  EXPECT_EQ(Value("Key5"), 5U);
  EXPECT_EQ(Value("Key 5 6"), 5U);
  EXPECT_EQ(Value("Key=007"), 7U);
}

TEST(ConfigurationValue, IsTheDefaultWithoutTheKey) {
  EXPECT_EQ(Value(""), 77U);
  EXPECT_EQ(Value("5"), 77U);
  EXPECT_EQ(Value("Ke y=5"), 77U);
  EXPECT_EQ(Value("key=5"), 77U);
  EXPECT_EQ(Value("KEY=5"), 77U);
  EXPECT_EQ(Value("5 Key"), 77U);
}

TEST(ConfigurationValue, FindsTheKeyAnywhereInTheText) {
  EXPECT_EQ(Value("# Key=5"), 5U);
  EXPECT_EQ(Value("NotThisKeyEither=5"), 5U);
  EXPECT_EQ(Value("one\ntwo Key\tthree\n5"), 5U);
}

TEST(ConfigurationValue, FirstKeyWinsOverTheLaterOnes) {
  EXPECT_EQ(Value("# Key=5\nKey=6\n"), 5U);
  EXPECT_EQ(Value("Key\nKey=6\n"), 6U);
}

TEST(ConfigurationValue, AnythingBeforeTheFirstDigitIsPassedOver) {
  EXPECT_EQ(Value("Key is, as far as we know,\n\n[section]\nOther=12"), 12U);
  EXPECT_EQ(Value("Key=a1b2"), 1U);
  EXPECT_EQ(Value("Key=\xB2\xE9"
                  "9"),
            9U);
}

TEST(ConfigurationValue, SignAndHexadecimalPrefixMeanNothing) {
  EXPECT_EQ(Value("Key=-5"), 5U);
  EXPECT_EQ(Value("Key=+5"), 5U);
  EXPECT_EQ(Value("Key=0x100"), 77U);
  EXPECT_EQ(Value("Key=12KB"), 12U);
  EXPECT_EQ(Value("Key=1.9"), 1U);
}

TEST(ConfigurationValue, NoDigitInTheRestOfTheTextIsTheDefault) {
  EXPECT_EQ(Value("Key"), 77U);
  EXPECT_EQ(Value("9 Key=many"), 77U);
}

TEST(ConfigurationValue, ZeroIsTheDefault) {
  EXPECT_EQ(Value("Key=0"), 77U);
  EXPECT_EQ(Value("Key=000\nKey=5"), 77U);
}

TEST(ConfigurationValue, OverflowIsTheLargestNumber) {
  EXPECT_EQ(Value("Key=18446744073709551615"), ~std::uint64_t{0});
  EXPECT_EQ(Value("Key=18446744073709551614"), ~std::uint64_t{0} - 1);
  EXPECT_EQ(Value("Key=18446744073709551616"), ~std::uint64_t{0});
  EXPECT_EQ(Value("Key=" + std::string(1000, '9')), ~std::uint64_t{0});
}

class ConfigurationFileTest : public testing::Test {
 protected:
  void Write(const std::string& text) {
    kqtest::WriteFile(dir_.Path("kqimageapi.conf"),
                      {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  }
  Configuration Read(const std::string& text) {
    Write(text);
    return Read();
  }
  Configuration Read() { return kq::ReadConfigurationFile(dir_.Path("kqimageapi.conf").c_str()); }

  kqtest::TempDir dir_;
};

TEST_F(ConfigurationFileTest, BothKeysAreRead) {
  ExpectLimits(Read("ChunkCache_MaxCachedBytes=1000\nChunkHeaderCache_MaxCachedBytes=2000\n"), 1000,
               2000);
  ExpectLimits(Read("ChunkHeaderCache_MaxCachedBytes=2000\nChunkCache_MaxCachedBytes=1000\n"), 1000,
               2000);
  ExpectLimits(Read("ChunkHeaderCache_MaxCachedBytes=2000\n"), kChunkDefault, 2000);
  ExpectLimits(Read("ChunkCache_MaxCachedBytes=1000\n"), 1000, kHeaderDefault);
}

TEST_F(ConfigurationFileTest, SearchForANumberRunsIntoTheNextLine) {
  ExpectLimits(Read("ChunkCache_MaxCachedBytes\nChunkHeaderCache_MaxCachedBytes=4096\n"), 4096,
               4096);
}

TEST_F(ConfigurationFileTest, MissingOrEmptyFileGivesTheDefaultsSilently) {
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  ExpectLimits(Read(), kChunkDefault, kHeaderDefault);
  ExpectLimits(Read(""), kChunkDefault, kHeaderDefault);
  ExpectLimits(Read("nothing of use 12345"), kChunkDefault, kHeaderDefault);
  ExpectLimits(kq::ReadConfigurationFile(dir_.Path().c_str()), kChunkDefault, kHeaderDefault);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(ConfigurationFileTest, UnreadableFileGivesTheDefaults) {
  const std::string text = std::string(kChunkKey) + "=5";
  ExpectLimits(Read(text), 5, kHeaderDefault);
  {
    const FailingCall failing(Call::kOpen, EACCES);
    ExpectLimits(Read(), kChunkDefault, kHeaderDefault);
  }
  const FailingCall failing(Call::kRead, EIO);
  const CallCounter closes(Call::kClose);
  ExpectLimits(Read(), kChunkDefault, kHeaderDefault);
  EXPECT_EQ(closes.count(), 1U);
}

TEST_F(ConfigurationFileTest, FailedAllocationClosesTheFileAndGivesTheDefaults) {
  Write(std::string(kChunkKey) + "=5");
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  const CallCounter closes(Call::kClose);
  ExpectLimits(Read(), kChunkDefault, kHeaderDefault);
  EXPECT_EQ(failing.failures(), 1);
  EXPECT_EQ(closes.count(), 1U);
}

TEST_F(ConfigurationFileTest, ReadThatComesInPiecesIsJoinedAndTheFileClosed) {
  Write("ChunkCache_MaxCachedBytes=1000\nChunkHeaderCache_MaxCachedBytes=2000\n");
  const CallCounter closes(Call::kClose);
  const ShortTransfers limit(7);
  ExpectLimits(Read(), 1000, 2000);
  EXPECT_EQ(closes.count(), 1U);
}

TEST_F(ConfigurationFileTest, OnlyTheFirst32767BytesAreLookedAt) {
  const std::string key = std::string(kChunkKey) + "=";
  // The last digit is the last byte that counts.
  ExpectLimits(Read(std::string(32767 - key.size() - 2, '#') + key + "12"), 12, kHeaderDefault);
  // One further, and the number is cut.
  ExpectLimits(Read(std::string(32767 - key.size() - 1, '#') + key + "12"), 1, kHeaderDefault);
  ExpectLimits(Read(std::string(32767 - key.size(), '#') + key + "12"), kChunkDefault,
               kHeaderDefault);
  ExpectLimits(Read(std::string(32768, '#') + key + "12"), kChunkDefault, kHeaderDefault);
  ExpectLimits(Read(key + "12\n" + std::string(100000, '#') + kHeaderKey + "=5"), 12,
               kHeaderDefault);
}

TEST_F(ConfigurationFileTest, TextEndsAtANul) {
  const std::string text = std::string(kChunkKey) + "=5\n" + '\0' + kHeaderKey + "=6\n";
  ExpectLimits(Read(text), 5, kHeaderDefault);
}

TEST_F(ConfigurationFileTest, KeyInsideACommentCountsAndALaterLineDoesNot) {
  ExpectLimits(Read("# ChunkCache_MaxCachedBytes=5\nChunkCache_MaxCachedBytes=6\n"), 5,
               kHeaderDefault);
}

// A library in a folder of its own: a copy of one that every system has.
class ConfigurationBesideTest : public ConfigurationFileTest {
 protected:
  ConfigurationBesideTest() {
    void* installed = dlopen("libm.so.6", RTLD_NOW);
    void* symbol = installed != nullptr ? dlsym(installed, "frexp") : nullptr;
    Dl_info info{};
    if (symbol == nullptr || dladdr(symbol, &info) == 0) {
      ADD_FAILURE() << "no libm.so.6";
      return;
    }
    std::filesystem::copy_file(info.dli_fname, dir_.Path("copied.so"));
    dlclose(installed);
  }
  ~ConfigurationBesideTest() override {
    if (library_ != nullptr) dlclose(library_);
  }

  const void* AddressIn(const std::string& path) {
    library_ = dlopen(path.c_str(), RTLD_NOW);
    return library_ != nullptr ? dlsym(library_, "frexp") : nullptr;
  }

 private:
  void* library_ = nullptr;
};

TEST_F(ConfigurationBesideTest, FileIsTheOneInTheLibrarysFolder) {
  const void* address = AddressIn(dir_.Path("copied.so"));
  ASSERT_NE(address, nullptr);
  ExpectLimits(kq::ReadConfigurationBeside(address), kChunkDefault, kHeaderDefault);
  Write("ChunkCache_MaxCachedBytes=1000\nChunkHeaderCache_MaxCachedBytes=2000\n");
  ExpectLimits(kq::ReadConfigurationBeside(address), 1000, 2000);
}

TEST_F(ConfigurationBesideTest, RelativePathOfTheLibraryIsFollowed) {
  Write("ChunkCache_MaxCachedBytes=1000\n");
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.Path());
  const void* address = AddressIn("./copied.so");
  EXPECT_NE(address, nullptr);
  ExpectLimits(kq::ReadConfigurationBeside(address), 1000, kHeaderDefault);
  std::filesystem::current_path(before);
}

TEST_F(ConfigurationBesideTest, AddressInNoFileGivesTheDefaults) {
  const int onTheStack = 0;
  ExpectLimits(kq::ReadConfigurationBeside(&onTheStack), kChunkDefault, kHeaderDefault);
  ExpectLimits(kq::ReadConfigurationBeside(nullptr), kChunkDefault, kHeaderDefault);
}

TEST_F(ConfigurationBesideTest, FailedAllocationOfThePathGivesTheDefaults) {
  const void* address = AddressIn(dir_.Path("copied.so"));
  ASSERT_NE(address, nullptr);
  Write("ChunkCache_MaxCachedBytes=1000\n");
  const FailingCall failing(Call::kMalloc, ENOMEM);
  const CallCounter opens(Call::kOpen);
  ExpectLimits(kq::ReadConfigurationBeside(address), kChunkDefault, kHeaderDefault);
  EXPECT_EQ(opens.count(), 0U);
}

}  // namespace
