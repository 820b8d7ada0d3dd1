// That the start routine runs at load and reads the configuration, seen on a copy of the library in
// a folder of its own. What the settings do is tried in the rooms, and in library_load_test.cpp.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "kqimageapi.h"
#include "tests/support/temp_dir.h"

namespace {

struct LibraryCloser {
  void operator()(void* library) const { dlclose(library); }
};
using LoadedLibrary = std::unique_ptr<void, LibraryCloser>;

class StartUpTest : public testing::Test {
 protected:
  StartUpTest() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&KQImageFilesOpen), &info) == 0) {
      ADD_FAILURE() << "the library's file is unknown";
      return;
    }
    std::filesystem::copy_file(info.dli_fname, dir_.Path("copy.so"));
  }

  LoadedLibrary Load() {
    LoadedLibrary library(dlopen(dir_.Path("copy.so").c_str(), RTLD_NOW | RTLD_LOCAL));
    EXPECT_NE(library, nullptr) << dlerror();
    return library;
  }

  kqtest::TempDir dir_;
};

TEST_F(StartUpTest, ConfigurationBesideTheLibraryIsReadAtEachLoad) {
  // Through a pipe it shows who reads: what the load has taken is gone.
  const std::string path = dir_.Path("kqimageapi.conf");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_GE(fd, 0);
  const std::string text = "ChunkCache_MaxCachedBytes=1000000\n";
  char rest[100];
  for (int load = 0; load < 2; ++load) {
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    const LoadedLibrary library = Load();
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(read(fd, rest, sizeof rest), -1);
    EXPECT_EQ(errno, EAGAIN);
  }
  close(fd);
}

}  // namespace
