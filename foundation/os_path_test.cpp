#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "foundation/os_file.h"
#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "tests/support/temp_dir.h"

namespace {

using kq::HeapString;
using kqtest::Call;
using kqtest::ExpectOwnFailure;
using kqtest::ExpectSystemFailure;
using kqtest::FailingCall;

HeapString Occupied() { return HeapString(strdup("occupied")); }

class OSGetFullPathTest : public testing::Test {
 protected:
  OSGetFullPathTest() : real_(std::filesystem::canonical(dir_.Path())) {
    kqtest::WriteFile(dir_.Path("file"), {});
    std::filesystem::create_directory(dir_.Path("folder"));
  }

  std::string Full(const std::string& path) {
    HeapString full;
    EXPECT_EQ(kq::OSGetFullPath(path.c_str(), &full).status, 0) << path;
    return full ? full.get() : "";
  }

  kqtest::TempDir dir_;
  std::string real_;
};

TEST_F(OSGetFullPathTest, FileComesWithoutSlash) {
  EXPECT_EQ(Full(dir_.Path("file")), real_ + "/file");
  EXPECT_EQ(Full(dir_.Path("folder/../file")), real_ + "/file");
  EXPECT_EQ(Full("/dev/null"), "/dev/null");
}

TEST_F(OSGetFullPathTest, DirectoryEndsInASlash) {
  EXPECT_EQ(Full(dir_.Path("folder")), real_ + "/folder/");
  EXPECT_EQ(Full(dir_.Path("folder/")), real_ + "/folder/");
  EXPECT_EQ(Full(dir_.Path("folder/.")), real_ + "/folder/");
}

TEST_F(OSGetFullPathTest, RootDirectoryHasTwoSlashes) { EXPECT_EQ(Full("/"), "//"); }

TEST_F(OSGetFullPathTest, SymbolicLinkIsFollowed) {
  std::filesystem::create_symlink("file", dir_.Path("link"));
  std::filesystem::create_symlink("folder", dir_.Path("linked-folder"));
  EXPECT_EQ(Full(dir_.Path("link")), real_ + "/file");
  EXPECT_EQ(Full(dir_.Path("linked-folder")), real_ + "/folder/");
}

TEST_F(OSGetFullPathTest, RelativePathStartsAtTheWorkingFolder) {
  EXPECT_EQ(Full("."), std::filesystem::current_path().string() + "/");
}

TEST_F(OSGetFullPathTest, NullPathIsInvalid) {
  HeapString full = Occupied();
  ExpectOwnFailure(kq::OSGetFullPath(nullptr, &full), -87, "kqos_linux");
  EXPECT_EQ(full, nullptr);
}

TEST_F(OSGetFullPathTest, FailureIsMappedAndGivesNothing) {
  HeapString full = Occupied();
  ExpectSystemFailure(kq::OSGetFullPath(dir_.Path("none").c_str(), &full), -2, ENOENT);
  EXPECT_EQ(full, nullptr);
  full = Occupied();
  ExpectSystemFailure(kq::OSGetFullPath(dir_.Path("file/below").c_str(), &full), -31, ENOTDIR);
  EXPECT_EQ(full, nullptr);
  ExpectSystemFailure(kq::OSGetFullPath(std::string(5000, 'a').c_str(), &full), -123, ENAMETOOLONG);
  ExpectSystemFailure(kq::OSGetFullPath("", &full), -2, ENOENT);
}

TEST_F(OSGetFullPathTest, FailedLookUpOfTheResultIsMapped) {
  const FailingCall failing(Call::kStat, EACCES);
  HeapString full = Occupied();
  ExpectSystemFailure(kq::OSGetFullPath(dir_.Path("folder").c_str(), &full), -5, EACCES);
  EXPECT_EQ(full, nullptr);
}

TEST_F(OSGetFullPathTest, FailedAllocationForTheSlashIsOutOfMemory) {
  const std::string folder = dir_.Path("folder");
  const FailingCall failing(Call::kMalloc, ENOMEM);
  HeapString full;
  ExpectOwnFailure(kq::OSGetFullPath(folder.c_str(), &full), -8, "kqos_linux");
  EXPECT_EQ(full, nullptr);
}

TEST(OSDeleteFileEx, RemovesThePathAndLeavesTheRecordOpen) {
  const kqtest::TempDir dir;
  const std::string path = dir.Path("file");
  const std::vector<std::uint8_t> content = {1, 2, 3};
  kqtest::WriteFile(path, content);
  kq::OSFile* opened = nullptr;
  ASSERT_EQ(kq::OSFileOpen(path.c_str(), O_RDONLY, 0, &opened).status, 0);
  const kq::OSFileOwner file(opened);
  ASSERT_EQ(kq::OSDeleteFileEx(file.get()).status, 0);
  EXPECT_FALSE(std::filesystem::exists(path));
  std::uint8_t buffer[3] = {};
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileSeekRead(file.get(), 0, buffer, 3, &count).status, 0);
  EXPECT_EQ(count, 3U);
  EXPECT_EQ(buffer[2], 3);

  ExpectSystemFailure(kq::OSDeleteFileEx(file.get()), -2, ENOENT);
}

TEST(OSDeleteFileEx, RecordWithoutPathIsInvalid) {
  const kq::OSFile file{-1, 0, nullptr};
  ExpectOwnFailure(kq::OSDeleteFileEx(&file), -87, "kqos_linux");
  ExpectOwnFailure(kq::OSDeleteFileEx(nullptr), -87, "kqos_linux");
}

}  // namespace
