// The exported functions of enumerations: arguments, handles, and how text reaches the client.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "enumeration/enumeration_test_support.h"
#include "enumeration/exported_frame.h"
#include "foundation/object_manager.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace kq {
namespace {

using kqtest::Listed;

constexpr std::uint64_t kUnknownHandle = 0xFFFFFFFFFFFFFFF0;

void ExpectRefused(const KQStatus& status) {
  EXPECT_EQ(status.status, -87);
  EXPECT_EQ(status.detail1, 0u);
  EXPECT_EQ(status.detail2, 0u);
  EXPECT_STREQ(status.file, "kqimageapi");
}

TEST(KQImageFilesEnumerationCreate, GivesANewHandleEachTime) {
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  ASSERT_EQ(KQImageFilesEnumerationCreate(&first, 0, 0).status, 0);
  ASSERT_EQ(KQImageFilesEnumerationCreate(&second, 0, 0).status, 0);
  EXPECT_NE(first, 0u);
  EXPECT_GT(second, first);
  EXPECT_EQ(KQImageFilesEnumerationClose(first).status, 0);
  EXPECT_EQ(KQImageFilesEnumerationClose(second).status, 0);
}

TEST(KQImageFilesEnumerationCreate, RefusesANullHandle) {
  ExpectRefused(KQImageFilesEnumerationCreate(nullptr, 0, 0));
}

TEST(KQImageFilesEnumerationCreate, ReservedArgumentsMustBeZeroAndLeaveTheHandleUntouched) {
  std::uint64_t handle = 0x1234;
  ExpectRefused(KQImageFilesEnumerationCreate(&handle, 1, 0));
  ExpectRefused(KQImageFilesEnumerationCreate(&handle, -1, 0));
  ExpectRefused(KQImageFilesEnumerationCreate(&handle, 0, 1));
  ExpectRefused(KQImageFilesEnumerationCreate(&handle, 0, 0x100000000));
  EXPECT_EQ(handle, 0x1234u);
}

TEST(KQImageFilesEnumerationClose, RefusesHandleZero) {
  ExpectRefused(KQImageFilesEnumerationClose(0));
}

TEST(KQImageFilesEnumerationClose, TheSecondTimeTheHandleIsUnknown) {
  std::uint64_t handle = 0;
  ASSERT_EQ(KQImageFilesEnumerationCreate(&handle, 0, 0).status, 0);
  EXPECT_EQ(KQImageFilesEnumerationClose(handle).status, 0);
  const KQStatus again = KQImageFilesEnumerationClose(handle);
  EXPECT_EQ(again.status, -87);
  EXPECT_STREQ(again.file, "objmgr");
}

TEST(KQImageFilesEnumerationClose, AHandleWithoutAnObjectIsNotFound) {
  std::uint64_t handle = 0;
  {
    // Nothing is released then, so the handle's record stays allocated with nobody to know it.
#ifdef __SANITIZE_ADDRESS__
    const __lsan::ScopedDisabler expected;
#endif
    ASSERT_EQ(ObjectCreate(nullptr, &handle).status, 0);
  }
  EXPECT_EQ(KQImageFilesEnumerationClose(handle).status, -2);
}

TEST(KQImageFilesEnumerationQueryAllFostered, AHandleWithoutAnObjectIsNotFound) {
  std::uint64_t handle = 0;
  ASSERT_EQ(ObjectCreate(nullptr, &handle).status, 0);
  std::uint32_t size = 0;
  EXPECT_EQ(KQImageFilesEnumerationQueryAllFostered(handle, nullptr, 0, nullptr, &size).status, -2);
}

// Calls with all arguments good but for the handle.
std::vector<std::function<KQStatus(std::uint64_t)>> CallsWithHandle() {
  static std::uint32_t size = 0;
  static std::uint8_t answer = 0;
  static const std::uint8_t identifier[16] = {1};
  return {
      [](std::uint64_t h) { return KQImageFilesEnumerationAddDirectory(h, "/", 0, 0); },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryShortestPathToBase(h, "/", "", 0, nullptr, &size);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryPathToOldestParent(h, "/", "", 0, nullptr, &size);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryImageHasDescendants(h, "/", &answer);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryRoots(h, "/", "", 0, nullptr, &size);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryAllPureDependents(h, "/", "", 0, nullptr, &size);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryAllOrphans(h, "", 0, nullptr, &size);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQueryAllFostered(h, "", 0, nullptr, &size);
      },
      [](std::uint64_t h) {
        return KQImageFilesEnumerationQuerySnapshotSet(h, identifier, "", 0, nullptr, &size);
      },
  };
}

TEST(EnumerationHandles, ZeroIsRefusedBeforeTheHandleIsLookedUp) {
  for (const auto& call : CallsWithHandle()) ExpectRefused(call(0));
}

TEST(EnumerationHandles, AnUnknownHandleIsRefusedByTheObjectManager) {
  for (const auto& call : CallsWithHandle()) {
    const KQStatus status = call(kUnknownHandle);
    EXPECT_EQ(status.status, -87);
    EXPECT_STREQ(status.file, "objmgr");
  }
}

TEST(EnumerationArguments, MissingOnesAreRefusedBeforeTheHandleIsLookedUp) {
  const std::uint64_t h = kUnknownHandle;
  std::uint32_t size = 0;
  std::uint8_t answer = 0;
  const std::uint8_t identifier[16] = {1};
  ExpectRefused(KQImageFilesEnumerationAddDirectory(h, nullptr, 0, 0));
  ExpectRefused(KQImageFilesEnumerationAddDirectory(h, "/", 1, 0));
  ExpectRefused(KQImageFilesEnumerationAddDirectory(h, "/", 0, 0x100000000));
  for (const auto query :
       {KQImageFilesEnumerationQueryShortestPathToBase,
        KQImageFilesEnumerationQueryPathToOldestParent, KQImageFilesEnumerationQueryRoots,
        KQImageFilesEnumerationQueryAllPureDependents}) {
    ExpectRefused(query(h, nullptr, "", 0, nullptr, &size));
    ExpectRefused(query(h, "/", "", 0, nullptr, nullptr));
  }
  ExpectRefused(KQImageFilesEnumerationQueryImageHasDescendants(h, nullptr, &answer));
  ExpectRefused(KQImageFilesEnumerationQueryImageHasDescendants(h, "/", nullptr));
  ExpectRefused(KQImageFilesEnumerationQueryAllOrphans(h, "", 0, nullptr, nullptr));
  ExpectRefused(KQImageFilesEnumerationQueryAllFostered(h, "", 0, nullptr, nullptr));
  ExpectRefused(KQImageFilesEnumerationQuerySnapshotSet(h, nullptr, "", 0, nullptr, &size));
  ExpectRefused(KQImageFilesEnumerationQuerySnapshotSet(h, identifier, "", 0, nullptr, nullptr));
  EXPECT_EQ(size, 0u);
}

class EnumerationInterfaceTest : public kqtest::EnumerationTest {};

TEST_F(EnumerationInterfaceTest, AnEmptyEnumerationAnswersNothingToList) {
  EXPECT_EQ(Fostered(), (Listed{-18, ""}));
  EXPECT_EQ(Orphans(), (Listed{-18, ""}));
  EXPECT_EQ(Snapshots(7), (Listed{-18, ""}));
}

TEST_F(EnumerationInterfaceTest, AnEmptyEnumerationKnowsNoPath) {
  Write("a.twf", {});
  EXPECT_EQ(Chain("a.twf"), (Listed{-2, ""}));
  EXPECT_EQ(Roots("a.twf"), (Listed{-2, ""}));
  EXPECT_EQ(Dependents("a.twf"), (Listed{-2, ""}));
}

TEST_F(EnumerationInterfaceTest, AFileThatIsGoneIsNotFoundAlthoughItIsCatalogued) {
  Write("a.twf", {.id = 1});
  Write("b.twi", {.id = 2, .parent = 1});
  Add();
  std::filesystem::remove(Path("b.twi"));
  const KQStatus status =
      KQImageFilesEnumerationQueryRoots(handle_, Path("b.twi").c_str(), "", 0, nullptr, nullptr);
  ExpectRefused(status);
  EXPECT_EQ(Roots("b.twi").status, -2);
  EXPECT_EQ(Dependents("a.twf"), Names("a.twf|b.twi"));
}

TEST_F(EnumerationInterfaceTest, AFileThatCameLaterIsNotFound) {
  Write("a.twf", {.id = 1});
  Add();
  Write("b.twi", {.id = 2, .parent = 1});
  EXPECT_EQ(Roots("b.twi").status, -2);
}

TEST_F(EnumerationInterfaceTest, AFileOfADirectoryThatWasNotAddedIsNotFound) {
  const std::string other = MakeFolder("other");
  Write("a.twf", {});
  kqtest::WriteImage(other + "/a.twf", {});
  Add(other);
  EXPECT_EQ(Roots("a.twf").status, -2);
  EXPECT_EQ(Roots("other/a.twf"), Names("other/a.twf"));
}

TEST_F(EnumerationInterfaceTest, ADirectoryIsNoFile) {
  Write("a.twf", {});
  Add();
  EXPECT_EQ(Roots(".").status, -2);
}

TEST_F(EnumerationInterfaceTest, CopiesAreToldApartByTheirDirectory) {
  const std::string one = MakeFolder("one");
  const std::string two = MakeFolder("two");
  kqtest::WriteImage(one + "/a.twf", {.id = 1});
  kqtest::WriteImage(two + "/a.twf", {.id = 2});
  Add(one);
  Add(two);
  EXPECT_EQ(Roots("one/a.twf"), Names("one/a.twf"));
  EXPECT_EQ(Roots("two/a.twf"), Names("two/a.twf"));
}

TEST_F(EnumerationInterfaceTest, ALinkLeadsToTheFileUnderItsRealPath) {
  const std::string real = MakeFolder("real");
  kqtest::WriteImage(real + "/a.twf", {});
  Add(real);
  std::filesystem::create_symlink(real + "/a.twf", Path("link"));
  std::filesystem::create_directory_symlink(real, Path("way"));
  EXPECT_EQ(Roots("link"), Names("real/a.twf"));
  EXPECT_EQ(Roots("way/a.twf"), Names("real/a.twf"));
  EXPECT_EQ(Roots("real/../way/./a.twf"), Names("real/a.twf"));
}

TEST_F(EnumerationInterfaceTest, HasDescendantsCountsDirectChildrenOfAnyState) {
  Write("a.twf", {.id = 1});
  Write("b.twi", {.id = 2, .parent = 1, .isLast = false});
  Write("c.twi", {.id = 3, .parent = 9});
  Write("d.twi", {.id = 4, .parent = 3});
  Add();
  const auto answer = [&](const char* name) {
    std::uint8_t value = 0xEE;
    EXPECT_EQ(
        KQImageFilesEnumerationQueryImageHasDescendants(handle_, Path(name).c_str(), &value).status,
        0);
    return value;
  };
  EXPECT_EQ(answer("a.twf"), 1);  // an incomplete child
  EXPECT_EQ(answer("b.twi"), 0);
  EXPECT_EQ(answer("c.twi"), 1);  // an orphan has descendants like any other
  EXPECT_EQ(answer("d.twi"), 0);
}

TEST_F(EnumerationInterfaceTest, HasDescendantsLeavesTheAnswerOnAFailure) {
  std::uint8_t value = 0xEE;
  EXPECT_EQ(
      KQImageFilesEnumerationQueryImageHasDescendants(handle_, Path("none").c_str(), &value).status,
      -2);
  EXPECT_EQ(value, 0xEE);
}

TEST_F(EnumerationInterfaceTest, PathToOldestParentIsNotSupported) {
  char buffer[8] = "#######";
  std::uint32_t size = 8;
  const KQStatus status = KQImageFilesEnumerationQueryPathToOldestParent(
      handle_, "/there/is/no/such/file", nullptr, 0, buffer, &size);
  EXPECT_EQ(status.status, -50);
  EXPECT_STREQ(status.file, "kqimageapi");
  EXPECT_EQ(size, 8u);
  EXPECT_STREQ(buffer, "#######");
  // The handle has been given back.
  EXPECT_EQ(Fostered().status, -18);
}

TEST_F(EnumerationInterfaceTest, ListsReachTheBufferByTheProtocol) {
  Write("a.twf", {});
  Add();
  const std::string text = "\"" + Path("a.twf") + "\"";
  const auto needed = static_cast<std::uint32_t>(text.size() + 1);
  std::vector<char> buffer(needed, '#');
  std::uint32_t size = needed - 1;
  const auto ask = [&](char* to) {
    return KQImageFilesEnumerationQueryAllFostered(handle_, nullptr, 0, to, &size).status;
  };
  EXPECT_EQ(ask(buffer.data()), -234);
  EXPECT_EQ(size, needed);
  EXPECT_EQ(buffer, std::vector<char>(needed, '#'));
  EXPECT_EQ(ask(buffer.data()), 0);
  EXPECT_EQ(size, needed);
  EXPECT_STREQ(buffer.data(), text.c_str());
  size = 0xFFFFFFFF;
  EXPECT_EQ(ask(nullptr), -234);
  EXPECT_EQ(size, needed);
}

TEST_F(EnumerationInterfaceTest, AFailureLeavesSizeAndBuffer) {
  char buffer[4] = "###";
  std::uint32_t size = 4;
  EXPECT_EQ(KQImageFilesEnumerationQueryAllFostered(handle_, nullptr, 0, buffer, &size).status,
            -18);
  EXPECT_EQ(
      KQImageFilesEnumerationQueryRoots(handle_, Path("none").c_str(), nullptr, 0, buffer, &size)
          .status,
      -2);
  EXPECT_EQ(size, 4u);
  EXPECT_STREQ(buffer, "###");
}

TEST_F(EnumerationInterfaceTest, QueriesRunBetweenAdditions) {
  const std::string one = MakeFolder("one");
  const std::string two = MakeFolder("two");
  kqtest::WriteImage(one + "/b.twi", {.id = 2, .parent = 1});
  kqtest::WriteImage(two + "/a.twf", {.id = 1});
  Add(one);
  EXPECT_EQ(Orphans(), Names("one/b.twi"));
  Add(two);
  EXPECT_EQ(Orphans().status, -18);
  EXPECT_EQ(Chain("one/b.twi"), Names("two/a.twf|b.twi"));
}

TEST_F(EnumerationInterfaceTest, ThreadsOnOneHandleTakeTurns) {
  constexpr int kFolders = 20;
  for (int i = 0; i < kFolders; ++i) {
    const std::string folder = MakeFolder(std::to_string(i));
    kqtest::WriteImage(folder + "/a.twf", {.id = static_cast<std::uint32_t>(i + 1)});
  }
  std::atomic<int> next = 0;
  std::atomic<int> wrong = 0;
  const auto work = [&] {
    for (int i = next++; i < kFolders; i = next++) {
      const std::string folder = Path(std::to_string(i));
      if (AddDirectory(folder).status != 0) ++wrong;
      const Listed chain = Ask(KQImageFilesEnumerationQueryShortestPathToBase, folder + "/a.twf");
      if (chain != Listed{0, folder + "/a.twf"}) ++wrong;
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(wrong, 0);
  const std::string all = Fostered().text;
  EXPECT_EQ(std::count(all.begin(), all.end(), '|'), kFolders - 1);
}

TEST(KQImageFilesEnumerationClose, WaitsForTheOperationThatIsRunning) {
  for (int round = 0; round < 50; ++round) {
    std::uint64_t handle = 0;
    ASSERT_EQ(KQImageFilesEnumerationCreate(&handle, 0, 0).status, 0);
    std::atomic<bool> isClosing = false;
    std::atomic<bool> isClosed = false;
    std::thread closer;
    const KQStatus status = WithEnumeration(handle, [&](ImageFilesEnumeration& enumeration) {
      closer = std::thread([&] {
        isClosing = true;
        EXPECT_EQ(KQImageFilesEnumerationClose(handle).status, 0);
        isClosed = true;
      });
      while (!isClosing) std::this_thread::yield();
      for (int i = 0; i < 100; ++i) {
        std::this_thread::yield();
        EXPECT_FALSE(isClosed);
        EXPECT_TRUE(enumeration.filesByName.empty());
      }
      return Success();
    });
    EXPECT_EQ(status.status, 0);
    closer.join();
    EXPECT_TRUE(isClosed);
  }
}

TEST_F(EnumerationInterfaceTest, ExceptionsBecomeStatusesAndGiveTheHandleBack) {
  const auto fail = [&](const auto& thrown) {
    const KQStatus status = WithEnumeration(
        handle_, [&](ImageFilesEnumeration& /*enumeration*/) -> KQStatus { throw thrown; });
    EXPECT_STREQ(status.file, kqtest::kModuleName);
    return status.status;
  };
  EXPECT_EQ(fail(std::bad_alloc()), -8);
  EXPECT_EQ(fail(std::bad_array_new_length()), -8);
  EXPECT_EQ(fail(std::length_error("x")), -1064);
  EXPECT_EQ(fail(7), -1064);
  Listed fromAnotherThread;
  std::thread([&] { fromAnotherThread = Fostered(); }).join();
  EXPECT_EQ(fromAnotherThread.status, -18);
}

}  // namespace
}  // namespace kq
