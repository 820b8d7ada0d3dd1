#include "enumeration/udirwalk_linux.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "enumeration/directory_calls_test.h"
#include "tests/support/temp_dir.h"

namespace kq {
namespace {

using kqtest::DirectoryCall;
using kqtest::FailingDirectoryCall;
using Names = std::vector<std::string>;

struct Seen {
  Names entries;
  Names parents;  // of the entry at the same place; "-" for none
  Names released;
  Names deferred;
  Names errors;
  std::map<std::string, DirWalkEntry> records;  // without their texts
  std::string failAt;                           // onEntry fails here
  std::string failDeferredAt;                   // onDeferredFile fails here

  std::size_t PlaceOf(const std::string& name) const {
    return static_cast<std::size_t>(std::find(entries.begin(), entries.end(), name) -
                                    entries.begin());
  }
};

KQStatus FailureOfTest() {
  KQStatus status{};
  status.status = -4711;
  return status;
}

Seen& SeenOf(void* cookie) { return *static_cast<Seen*>(cookie); }

KQStatus OnEntry(void* cookie, const DirWalkEntry* parent, const DirWalkEntry* entry) {
  Seen& seen = SeenOf(cookie);
  seen.entries.emplace_back(entry->relativePath);
  seen.parents.emplace_back(parent != nullptr ? parent->relativePath : "-");
  seen.records[entry->relativePath] = *entry;
  EXPECT_EQ(std::strlen(entry->path), entry->pathLength);
  EXPECT_STREQ(std::strrchr(entry->path, '/') + 1, entry->entryName);
  EXPECT_EQ(entry->reserved, 0u);
  if (seen.failAt == entry->relativePath) return FailureOfTest();
  return Success();
}
void OnRelease(void* cookie, const DirWalkEntry* entry) {
  SeenOf(cookie).released.emplace_back(entry->relativePath);
}
KQStatus OnDeferredFile(void* cookie, const DirWalkEntry* entry) {
  Seen& seen = SeenOf(cookie);
  seen.deferred.emplace_back(entry->relativePath);
  if (seen.failDeferredAt == entry->relativePath) return FailureOfTest();
  return Success();
}
void OnError(void* cookie, const char* path, DirWalkError kind, KQStatus status) {
  SeenOf(cookie).errors.push_back(std::string(path) + " " +
                                  std::to_string(static_cast<std::uint32_t>(kind)) + " " +
                                  std::to_string(status.status));
}

void ExpectErrno(const KQStatus& status, std::int32_t code, int error) {
  EXPECT_EQ(status.status, code);
  EXPECT_EQ(status.detail1, static_cast<std::uint32_t>(error));
  EXPECT_EQ(status.detail2, 2u);
  EXPECT_STREQ(status.file, "udirwalk_linux");
}

void ExpectPlain(const KQStatus& status, std::int32_t code) {
  EXPECT_EQ(status.status, code);
  EXPECT_EQ(status.detail1, 0u);
  EXPECT_EQ(status.detail2, 0u);
  EXPECT_STREQ(status.file, "udirwalk_linux");
}

Names Sorted(Names names) {
  std::sort(names.begin(), names.end());
  return names;
}

class DirWalkTest : public testing::Test {
 protected:
  ~DirWalkTest() override { EXPECT_EQ(kqtest::OpenDirectories(), 0); }

  std::string Path(const std::string& name) const { return root_ + "/" + name; }
  void File(const std::string& name, std::size_t bytes = 0) const {
    kqtest::WriteFile(Path(name), std::vector<std::uint8_t>(bytes));
  }
  void Folder(const std::string& name) const { std::filesystem::create_directory(Path(name)); }

  DirWalkOwner Create(std::uint32_t flags = 0, bool defers = false) {
    return DirWalkCreate(root_.c_str(), flags,
                         {OnEntry, OnRelease, defers ? OnDeferredFile : nullptr, OnError, &seen_});
  }
  KQStatus Walk(std::uint32_t flags = 0, bool defers = false) {
    const DirWalkOwner walk = Create(flags, defers);
    return DirWalkRun(walk.get());
  }

  kqtest::TempDir temporary_;
  std::string root_ = temporary_.Path();
  Seen seen_;
};

TEST_F(DirWalkTest, AnEmptyDirectoryGivesNothing) {
  EXPECT_EQ(Walk().status, 0);
  EXPECT_TRUE(seen_.entries.empty());
}

TEST_F(DirWalkTest, GivesEveryEntryOfEveryLevelWithItsParent) {
  Folder("d");
  Folder("d/e");
  File("f");
  File("d/g");
  File("d/e/h");
  EXPECT_EQ(Walk().status, 0);
  EXPECT_EQ(Sorted(seen_.entries), (Names{"d", "d/e", "d/e/h", "d/g", "f"}));
  EXPECT_EQ(seen_.parents[seen_.PlaceOf("d")], "-");
  EXPECT_EQ(seen_.parents[seen_.PlaceOf("f")], "-");
  EXPECT_EQ(seen_.parents[seen_.PlaceOf("d/e")], "d");
  EXPECT_EQ(seen_.parents[seen_.PlaceOf("d/e/h")], "d/e");
  EXPECT_EQ(Sorted(seen_.released), Sorted(seen_.entries));
  EXPECT_TRUE(seen_.errors.empty());
}

TEST_F(DirWalkTest, GoesDepthFirst) {
  for (const char* top : {"a", "b", "c"}) {
    Folder(top);
    for (const char* middle : {"/x", "/y"}) {
      Folder(std::string(top) + middle);
      File(std::string(top) + middle + "/deep");
    }
  }
  EXPECT_EQ(Walk().status, 0);
  // The levels below the root come subtree by subtree, in the order in which the root gave the
  // subtrees, and so again one level below.
  Names tops(seen_.entries.begin(), seen_.entries.begin() + 3);
  Names expected = tops;
  for (const std::string& top : tops) {
    const std::size_t first = expected.size();
    expected.push_back(seen_.entries[first]);
    expected.push_back(seen_.entries[first + 1]);
    for (std::size_t i = first; i < first + 2; ++i) {
      EXPECT_EQ(expected[i].substr(0, 2), top + "/");
      expected.push_back(expected[i] + "/deep");
    }
  }
  EXPECT_EQ(seen_.entries, expected);
}

TEST_F(DirWalkTest, OneLevelGivesDirectoriesButDoesNotEnterThem) {
  Folder("d");
  File("d/g");
  File("f");
  EXPECT_EQ(Walk(kDirWalkOneLevel).status, 0);
  EXPECT_EQ(Sorted(seen_.entries), (Names{"d", "f"}));
  EXPECT_EQ(Sorted(seen_.released), (Names{"d", "f"}));
}

TEST_F(DirWalkTest, OtherFlagsMeanNothing) {
  Folder("d");
  File("d/g");
  EXPECT_EQ(Walk(0xFFFFFFFE).status, 0);
  EXPECT_EQ(Sorted(seen_.entries), (Names{"d", "d/g"}));
}

TEST_F(DirWalkTest, TellsSizeAndTimesOfFiles) {
  File("f", 1234);
  // 2001-09-09 01:46:40 and 1969-12-31 23:59:59 UTC.
  const timespec times[2] = {{1000000000, 999}, {-1, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, Path("f").c_str(), times, 0), 0);
  struct stat found;
  ASSERT_EQ(stat(Path("f").c_str(), &found), 0);
  EXPECT_EQ(Walk().status, 0);
  const DirWalkEntry& entry = seen_.records["f"];
  EXPECT_FALSE(entry.isDirectory);
  EXPECT_EQ(entry.fileSize, 1234u);
  EXPECT_EQ(entry.accessTicks, 126444736000000000u);
  EXPECT_EQ(entry.writeTicks, 116444735990000000u);
  EXPECT_EQ(entry.creationTicks,
            static_cast<std::uint64_t>(found.st_ctime) * 10000000u + 116444736000000000u);
}

TEST_F(DirWalkTest, ADirectoryHasSizeZero) {
  Folder("d");
  EXPECT_EQ(Walk().status, 0);
  EXPECT_TRUE(seen_.records["d"].isDirectory);
  EXPECT_EQ(seen_.records["d"].fileSize, 0u);
}

TEST_F(DirWalkTest, FollowsLinks) {
  kqtest::TempDir elsewhere;
  kqtest::WriteFile(elsewhere.Path("g"), std::vector<std::uint8_t>(7));
  std::filesystem::create_symlink(elsewhere.Path("g"), Path("file"));
  std::filesystem::create_directory_symlink(elsewhere.Path(), Path("folder"));
  EXPECT_EQ(Walk().status, 0);
  EXPECT_EQ(Sorted(seen_.entries), (Names{"file", "folder", "folder/g"}));
  EXPECT_EQ(seen_.records["file"].fileSize, 7u);
  EXPECT_TRUE(seen_.records["folder"].isDirectory);
}

TEST_F(DirWalkTest, TrailingSlashesOfTheRootAreCut) {
  File("f");
  root_ += "///";
  const DirWalkOwner walk = Create();
  EXPECT_EQ(walk->rootPath, temporary_.Path());
  EXPECT_EQ(walk->rootLength, temporary_.Path().size());
  EXPECT_EQ(DirWalkRun(walk.get()).status, 0);
  EXPECT_EQ(seen_.entries, Names{"f"});
}

TEST_F(DirWalkTest, TheRootDirectoryKeepsOneSlash) {
  root_ = "//";
  const DirWalkOwner walk = Create(kDirWalkOneLevel);
  EXPECT_STREQ(walk->rootPath, "/");
  EXPECT_EQ(walk->rootLength, 1u);
  // Whatever is wrong with an entry there, those before it have names without slashes.
  DirWalkRun(walk.get());
  EXPECT_FALSE(seen_.entries.empty());
  for (const std::string& name : seen_.entries) EXPECT_EQ(name.find('/'), std::string::npos);
}

TEST_F(DirWalkTest, DeferredFilesComeAfterTheWholeWalk) {
  File("f");
  Folder("d");
  File("d/g");
  EXPECT_EQ(Walk(0, true).status, 0);
  EXPECT_EQ(Sorted(seen_.deferred), (Names{"d/g", "f"}));
  // In the order in which they were met.
  EXPECT_EQ(seen_.deferred[0], seen_.PlaceOf("f") < seen_.PlaceOf("d/g") ? "f" : "d/g");
  EXPECT_EQ(seen_.released[0], "d");
  EXPECT_EQ(Names(seen_.released.begin() + 1, seen_.released.end()), seen_.deferred);
}

TEST_F(DirWalkTest, NoDeferredFileIsCalledAfterOneFails) {
  File("f");
  File("g");
  File("h");
  EXPECT_EQ(Walk(0, true).status, 0);
  const Names order = seen_.deferred;
  seen_ = Seen();
  seen_.failDeferredAt = order[1];
  EXPECT_EQ(Walk(0, true).status, -4711);
  EXPECT_EQ(seen_.deferred, (Names{order[0], order[1]}));
  EXPECT_EQ(seen_.released, order);
}

TEST_F(DirWalkTest, AFailedWalkCallsNoDeferredFileButFreesThem) {
  File("f");
  Folder("d");
  File("d/g");
  seen_.failAt = "d/g";
  EXPECT_EQ(Walk(0, true).status, -4711);
  EXPECT_TRUE(seen_.deferred.empty());
  EXPECT_EQ(Sorted(seen_.released), (Names{"d", "f"}));
}

TEST_F(DirWalkTest, AFailureOfOnEntryEndsTheWalkAndOthersAreFreed) {
  for (const char* name : {"a", "b", "c", "d", "e"}) Folder(name);
  EXPECT_EQ(Walk(kDirWalkOneLevel).status, 0);
  const Names order = seen_.entries;
  seen_ = Seen();
  seen_.failAt = order[2];
  EXPECT_EQ(Walk().status, -4711);
  EXPECT_EQ(seen_.entries, Names(order.begin(), order.begin() + 3));
  // The directories kept aside are not entered, and the one refused is not seen again.
  EXPECT_EQ(seen_.released, Names(order.begin(), order.begin() + 2));
  EXPECT_TRUE(seen_.errors.empty());
}

TEST_F(DirWalkTest, FreeingAContextReleasesWhatIsQueued) {
  Folder("d");
  File("f");
  {
    const DirWalkOwner walk = Create(0, true);
    EXPECT_EQ(DirWalkList(walk.get(), nullptr).status, 0);
    EXPECT_TRUE(seen_.released.empty());
    ASSERT_NE(walk->pendingDirectories.first, nullptr);
    EXPECT_STREQ(walk->pendingDirectories.first->relativePath, "d");
    EXPECT_STREQ(walk->deferredFiles.first->relativePath, "f");
  }
  EXPECT_EQ(seen_.released, (Names{"d", "f"}));
}

TEST_F(DirWalkTest, NewDirectoriesGoToTheFrontInTheOrderRead) {
  for (const char* name : {"a", "b", "a/x", "a/y", "b/z"}) Folder(name);
  const DirWalkOwner walk = Create();
  EXPECT_EQ(DirWalkList(walk.get(), nullptr).status, 0);
  Names pending;
  const auto read = [&] {
    pending.clear();
    for (const DirWalkEntry* entry = walk->pendingDirectories.first; entry != nullptr;
         entry = entry->next) {
      pending.emplace_back(entry->relativePath);
    }
  };
  read();
  const Names top = pending;
  EXPECT_EQ(Sorted(top), (Names{"a", "b"}));
  const std::size_t before = seen_.entries.size();
  const DirWalkEntry* second = walk->pendingDirectories.first->next;
  EXPECT_EQ(DirWalkList(walk.get(), second).status, 0);
  Names expected(seen_.entries.begin() + static_cast<std::ptrdiff_t>(before), seen_.entries.end());
  expected.insert(expected.end(), top.begin(), top.end());
  read();
  EXPECT_EQ(pending, expected);
}

TEST_F(DirWalkTest, AllCallbacksCanBeNull) {
  Folder("d");
  File("d/f");
  const DirWalkOwner walk = DirWalkCreate(root_.c_str(), 0, {});
  EXPECT_EQ(DirWalkRun(walk.get()).status, 0);
  std::filesystem::create_symlink("nowhere", Path("dangling"));
  EXPECT_EQ(DirWalkRun(walk.get()).status, -2);
}

TEST_F(DirWalkTest, AMissingDirectoryIsAnErrorOfKind2) {
  root_ += "/none";
  ExpectErrno(Walk(), -2, ENOENT);
  EXPECT_EQ(seen_.errors, Names{root_ + " 2 -2"});
}

TEST_F(DirWalkTest, ADirectoryThatCannotBeOpenedEndsTheWalk) {
  Folder("d");
  FailingDirectoryCall failing(DirectoryCall::kOpendir, EACCES, 1);
  ExpectErrno(Walk(), -5, EACCES);
  EXPECT_EQ(seen_.errors, Names{Path("d") + " 2 -5"});
  EXPECT_EQ(seen_.released, Names{"d"});
}

TEST_F(DirWalkTest, AnEntryThatCannotBeLookedAtIsAnErrorOfKind3) {
  std::filesystem::create_symlink("nowhere", Path("dangling"));
  ExpectErrno(Walk(), -2, ENOENT);
  EXPECT_EQ(seen_.errors, Names{Path("dangling") + " 3 -2"});
  EXPECT_TRUE(seen_.entries.empty());
}

TEST_F(DirWalkTest, ASecondLookThatFailsIsAnErrorOfKind4) {
  File("f");
  FailingDirectoryCall failing(DirectoryCall::kStat, EIO, 1);
  ExpectErrno(Walk(), -23, EIO);
  EXPECT_EQ(seen_.errors, Names{Path("f") + " 4 -23"});
  EXPECT_TRUE(seen_.entries.empty());
}

TEST_F(DirWalkTest, ADirectoryIsLookedAtOnce) {
  Folder("d");
  FailingDirectoryCall failing(DirectoryCall::kStat, EIO, 1);
  EXPECT_EQ(Walk().status, 0);
  EXPECT_FALSE(failing.HasFailed());
}

TEST_F(DirWalkTest, ADirectoryThatCannotBeReadOnIsAnErrorOfKind3) {
  File("f");
  FailingDirectoryCall failing(DirectoryCall::kReaddir, EBADF, 3);  // behind ".", ".." and the file
  ExpectErrno(Walk(), -87, EBADF);
  EXPECT_EQ(seen_.errors, Names{root_ + " 3 -87"});
  EXPECT_EQ(seen_.entries, Names{"f"});
}

TEST_F(DirWalkTest, ADirectoryThatGivesNothingAtAllIsEmpty) {
  File("f");
  FailingDirectoryCall failing(DirectoryCall::kReaddir, EIO);
  EXPECT_EQ(Walk().status, 0);
  EXPECT_TRUE(failing.HasFailed());
  EXPECT_TRUE(seen_.entries.empty());
  EXPECT_TRUE(seen_.errors.empty());
}

TEST_F(DirWalkTest, AnErrnoFromBeforeIsNoFailureOfTheRead) {
  File("f");
  errno = EIO;
  EXPECT_EQ(Walk().status, 0);
}

TEST_F(DirWalkTest, ANameOf256BytesIsAnErrorOfKind6) {
  const std::string name(256, 'n');
  const kqtest::NameFromReaddir forced(name);
  ExpectPlain(Walk(), -1392);
  EXPECT_EQ(seen_.errors, Names{Path(name) + " 6 -1392"});
  EXPECT_TRUE(seen_.entries.empty());
}

TEST_F(DirWalkTest, ANameOf255BytesIsFine) {
  File(std::string(255, 'n'));
  EXPECT_EQ(Walk().status, 0);
  EXPECT_EQ(seen_.entries, Names{std::string(255, 'n')});
}

TEST_F(DirWalkTest, NoMemoryForAnEntryIsAnErrorOfKind1) {
  File("f");
  const DirWalkOwner walk = Create();
  FailingDirectoryCall failing(DirectoryCall::kMalloc, ENOMEM);
  ExpectPlain(DirWalkList(walk.get(), nullptr), -8);
  EXPECT_EQ(seen_.errors, Names{Path("f") + " 1 -8"});
}

TEST_F(DirWalkTest, NoMemoryForTheContextLeavesTheOwnerEmpty) {
  FailingDirectoryCall failing(DirectoryCall::kMalloc, ENOMEM);
  EXPECT_FALSE(Create());
}

TEST_F(DirWalkTest, DotsAreSkippedAndOtherNamesThatBeginSoAreNot) {
  File("...");
  File(".hidden");
  File("..x");
  EXPECT_EQ(Walk().status, 0);
  EXPECT_EQ(Sorted(seen_.entries), (Names{"...", "..x", ".hidden"}));
}

}  // namespace
}  // namespace kq
