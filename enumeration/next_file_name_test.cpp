#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "enumeration/directory_calls_test.h"
#include "kqimageapi.h"
#include "tests/support/temp_dir.h"

namespace {

using NameQuery = KQStatus(const char*, char*, std::uint32_t*);

class NextFileNameTest : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return folder_ + "/" + name; }
  void File(const std::string& name) const { kqtest::WriteFile(Path(name), {}); }

  // The name that follows, or the status; the file is made for the call alone.
  std::string Next(const std::string& name,
                   NameQuery* query = KQImageGetNextAvailableImageFileName) {
    File(name);
    const std::string next = NextOf(Path(name), query);
    std::filesystem::remove(Path(name));
    return next;
  }
  std::string NextMounted(const std::string& name) {
    return Next(name, KQImageGetNextAvailableMountGeneratedImageFileName);
  }
  std::string NextOf(const std::string& path,
                     NameQuery* query = KQImageGetNextAvailableImageFileName) {
    char buffer[5000];
    std::memset(buffer, '#', sizeof buffer);
    std::uint32_t size = sizeof buffer;
    const KQStatus status = query(path.c_str(), buffer, &size);
    if (status.status != 0) {
      EXPECT_EQ(size, sizeof buffer);
      EXPECT_EQ(buffer[0], '#');
      EXPECT_STREQ(status.file, status.detail2 == 2 ? "kqos_linux" : "ImageFilesEnumer");
      return std::to_string(status.status);
    }
    const std::string text = buffer;
    EXPECT_EQ(size, text.size() + 1);
    EXPECT_EQ(buffer[size], '#');
    EXPECT_EQ(text.substr(0, folder_.size() + 1), folder_ + "/");
    return text.substr(folder_.size() + 1);
  }

  kqtest::TempDir temporary_;
  std::string folder_ = std::filesystem::canonical(temporary_.Path()).string();
};

TEST_F(NextFileNameTest, FollowsTheSeries) {
  EXPECT_EQ(Next("a-b001.twf"), "a-b001-i001.twi");
  EXPECT_EQ(Next("a-b001-i001.twi"), "a-b001-i002.twi");
  EXPECT_EQ(Next("a-b001-i999.twi"), "a-b001-i1000.twi");
  EXPECT_EQ(Next("a-b001-i1000.twi"), "a-b001-i1001.twi");
  EXPECT_EQ(Next("a-b001-i998.twi"), "a-b001-i999.twi");
  EXPECT_EQ(NextMounted("a-b001-i002.twi"), "a-b001-i002-m001.twi");
  EXPECT_EQ(NextMounted("a-b001-i002-m001.twi"), "a-b001-i002-m002.twi");
  EXPECT_EQ(Next("a-b001-i002-m001.twi"), "a-b001-i003-m001.twi");
  EXPECT_EQ(Next("A-B001.TWF"), "A-B001-i001.TWi");
  EXPECT_EQ(Next("a-I7.twi"), "a-i008.twi");
  EXPECT_EQ(Next("s-i7-b001.twf"), "s-i008-b001.twi");
  EXPECT_EQ(Next("a-i12x.twi"), "a-i12x-i001.twi");
  EXPECT_EQ(Next("a.twf"), "a-i001.twi");
}

TEST_F(NextFileNameTest, TheGivenFileNeedNotBeTheNewest) {
  File("a-b001-i001.twi");
  File("a-b001-i002.twi");
  File("a-b001-i004.twi");
  EXPECT_EQ(Next("a-b001.twf"), "a-b001-i003.twi");
  EXPECT_EQ(NextOf(Path("a-b001-i001.twi")), "a-b001-i003.twi");
  EXPECT_EQ(NextOf(Path("a-b001-i004.twi")), "a-b001-i005.twi");
}

TEST_F(NextFileNameTest, ADirectoryUnderTheNameLeavesItAvailable) {
  std::filesystem::create_directory(Path("a-i001.twi"));
  EXPECT_EQ(Next("a.twf"), "a-i001.twi");
}

TEST_F(NextFileNameTest, ABlockDeviceUnderTheNameLeavesItAvailable) {
  const kqtest::FileOfKind device(Path("a-i001.twi"), S_IFBLK);
  EXPECT_EQ(Next("a.twf"), "a-i001.twi");
}

TEST_F(NextFileNameTest, ADanglingLinkUnderTheNameLeavesItAvailable) {
  std::filesystem::create_symlink("nowhere", Path("a-i001.twi"));
  EXPECT_EQ(Next("a.twf"), "a-i001.twi");
}

TEST_F(NextFileNameTest, PipesSocketsDevicesAndLinksToFilesAreSteppedOver) {
  ASSERT_EQ(mkfifo(Path("a-i001.twi").c_str(), 0600), 0);
  const int made = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, Path("a-i002.twi").c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(made);
  std::filesystem::create_symlink("/dev/null", Path("a-i003.twi"));
  File("other");
  std::filesystem::create_symlink("other", Path("a-i004.twi"));
  EXPECT_EQ(Next("a.twf"), "a-i005.twi");
}

TEST_F(NextFileNameTest, ANameTooLongForTheDiskIsAvailable) {
  const std::string stem(251, 'n');
  EXPECT_EQ(Next(stem + ".twf"), stem + "-i001.twi");
}

TEST_F(NextFileNameTest, TheExtensionIsTheLastThreeCharactersWhateverIsBeforeThem) {
  EXPECT_EQ(Next("abtwf"), "a-i001btwi");
  EXPECT_EQ(Next("ab-tWi"), "ab-i001-tWi");
  EXPECT_EQ(Next("a-i1-TWI"), "a-i002-TWi");
}

TEST_F(NextFileNameTest, OtherNamesAreRefused) {
  for (const char* name :
       {".twf", "twf", "a", "a.twk", "a.tw1", "a.twff", "a.twf.", "a.wf", "abcdefg"}) {
    EXPECT_EQ(Next(name), "-87") << name;
  }
}

TEST_F(NextFileNameTest, ADirectoryHasNoName) {
  std::filesystem::create_directory(Path("a.twf"));
  EXPECT_EQ(NextOf(Path("a.twf")), "-87");
}

TEST_F(NextFileNameTest, TheGivenFileMustExist) { EXPECT_EQ(NextOf(Path("a.twf")), "-2"); }

TEST_F(NextFileNameTest, ALinkIsFollowedFirst) {
  std::filesystem::create_directory(Path("real"));
  File("real/a-i004.twi");
  std::filesystem::create_symlink("real/a-i004.twi", Path("link"));
  EXPECT_EQ(NextOf(Path("link")), "real/a-i005.twi");
}

TEST_F(NextFileNameTest, NumbersBeyond31BitsAreWrittenAsTheyAreKept) {
  EXPECT_EQ(Next("a-i2147483646.twi"), "a-i2147483647.twi");
  EXPECT_EQ(Next("a-i2147483647.twi"), "a-i-2147483648.twi");
  EXPECT_EQ(Next("a-i4294967290.twi"), "a-i-5.twi");
  EXPECT_EQ(Next("a-i4294967295.twi"), "a-i000.twi");
  EXPECT_EQ(Next("a-i4294967296.twi"), "a-i001.twi");
}

TEST_F(NextFileNameTest, OddBytesAreKept) { EXPECT_EQ(Next("\xFF \n-i1.twi"), "\xFF \n-i002.twi"); }

TEST_F(NextFileNameTest, TheSizeNeededIsAlwaysStored) {
  File("a.twf");
  const std::string expected = Path("a-i001.twi");
  const auto needed = static_cast<std::uint32_t>(expected.size() + 1);
  for (NameQuery* query :
       {KQImageGetNextAvailableImageFileName, KQImageGetNextAvailableMountGeneratedImageFileName}) {
    std::vector<char> buffer(needed, '#');
    std::uint32_t size = 0xFFFFFFFF;
    EXPECT_EQ(query(Path("a.twf").c_str(), nullptr, &size).status, -234);
    EXPECT_EQ(size, needed);
    size = needed - 1;
    EXPECT_EQ(query(Path("a.twf").c_str(), buffer.data(), &size).status, -234);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(buffer, std::vector<char>(needed, '#'));
    EXPECT_EQ(query(Path("a.twf").c_str(), buffer.data(), &size).status, 0);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(buffer.back(), '\0');
  }
}

TEST_F(NextFileNameTest, NullArgumentsAreRefused) {
  File("a.twf");
  for (NameQuery* query :
       {KQImageGetNextAvailableImageFileName, KQImageGetNextAvailableMountGeneratedImageFileName,
        KQImageFilesEnumerationQueryImageKeyFileName}) {
    char buffer[4] = "###";
    std::uint32_t size = 4;
    EXPECT_EQ(query(nullptr, buffer, &size).status, -87);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(query(Path("a.twf").c_str(), buffer, nullptr).status, -87);
    EXPECT_STREQ(buffer, "###");
  }
}

class KeyFileNameTest : public NextFileNameTest {
 protected:
  // The key file's path, or the status.
  static std::string KeyOf(const std::string& path) {
    char buffer[5000];
    std::uint32_t size = sizeof buffer;
    const KQStatus status =
        KQImageFilesEnumerationQueryImageKeyFileName(path.c_str(), buffer, &size);
    EXPECT_EQ(size, sizeof buffer);  // unlike the next names
    return status.status == 0 ? buffer : std::to_string(status.status);
  }
  std::string Key(const std::string& name) const {
    File(name);
    const std::string key = KeyOf(Path(name));
    std::filesystem::remove(Path(name));
    return key;
  }
};

TEST_F(KeyFileNameTest, IsTheNameUpToTheBaseTag) {
  EXPECT_EQ(Key("a-b001.twf"), Path("a-b001.twk"));
  EXPECT_EQ(Key("a-b001-i002.twi"), Path("a-b001.twk"));
  EXPECT_EQ(Key("a-b001-i002-m001.twi"), Path("a-b001.twk"));
  EXPECT_EQ(Key("A-B7.TWF"), Path("A-B7.twk"));
  EXPECT_EQ(Key("my-b2-data-b001.twf"), Path("my-b2.twk"));
  EXPECT_EQ(Key("a-build-b001.twf"), Path("a-build-b001.twk"));
}

TEST_F(KeyFileNameTest, TheExtensionIsNotLookedAt) {
  EXPECT_EQ(Key("a-b1.txt"), Path("a-b1.twk"));
  EXPECT_EQ(Key("a-b1.twk"), Path("a-b1.twk"));
  EXPECT_EQ(Key("-b1-"), Path("-b1.twk"));
}

TEST_F(KeyFileNameTest, WithoutABaseTagThereIsNone) {
  for (const char* name : {"a.twf", "a-b.twf", "a-b001x.twf", "a-b001", "a-i001.twi"}) {
    EXPECT_EQ(Key(name), "-1392") << name;
  }
}

TEST_F(KeyFileNameTest, ADirectoryHasNoName) {
  std::filesystem::create_directory(Path("a-b001.twf"));
  EXPECT_EQ(KeyOf(Path("a-b001.twf")), "-1392");
}

TEST_F(KeyFileNameTest, ATagInTheDirectoryDoesNotCount) {
  std::filesystem::create_directory(Path("x-b1.d"));
  EXPECT_EQ(Key("x-b1.d/a.twf"), "-1392");
}

TEST_F(KeyFileNameTest, TheImageMustExist) {
  std::uint32_t size = 9;
  const KQStatus status =
      KQImageFilesEnumerationQueryImageKeyFileName(Path("a-b001.twf").c_str(), nullptr, &size);
  EXPECT_EQ(status.status, -2);
  EXPECT_STREQ(status.file, "kqos_linux");
  EXPECT_EQ(size, 9u);
}

TEST_F(KeyFileNameTest, ALinkIsFollowedIntoItsDirectory) {
  std::filesystem::create_directory(Path("real"));
  File("real/a-b001.twf");
  std::filesystem::create_symlink("real/a-b001.twf", Path("x-b9.twf"));
  EXPECT_EQ(KeyOf(Path("x-b9.twf")), Path("real/a-b001.twk"));
}

TEST_F(KeyFileNameTest, FollowsTheProtocolOfLists) {
  File("a-b001.twf");
  const std::string expected = Path("a-b001.twk");
  const auto needed = static_cast<std::uint32_t>(expected.size() + 1);
  std::vector<char> buffer(needed, '#');
  std::uint32_t size = needed - 1;
  const auto ask = [&](char* to) {
    return KQImageFilesEnumerationQueryImageKeyFileName(Path("a-b001.twf").c_str(), to, &size)
        .status;
  };
  EXPECT_EQ(ask(buffer.data()), -234);
  EXPECT_EQ(size, needed);
  EXPECT_EQ(buffer, std::vector<char>(needed, '#'));
  EXPECT_EQ(ask(buffer.data()), 0);
  EXPECT_EQ(size, needed);
  EXPECT_EQ(buffer.data(), expected);
  EXPECT_EQ(ask(nullptr), -234);
}

}  // namespace
