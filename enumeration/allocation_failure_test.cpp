// Every allocation of every operation fails once: the operation answers -8, the handle is given
// back, and the catalogue is as it was or holds whole files only. Leaks show under the address
// sanitizer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

#include "enumeration/enumeration_test_support.h"

namespace {

// Allocations to let through before one fails; negative: none fails.
thread_local int allocationsLeft = -1;
thread_local bool allocationFailed = false;

void* AllocateOrThrow(std::size_t size) {
  if (allocationsLeft >= 0 && allocationsLeft-- == 0) {
    allocationFailed = true;
    throw std::bad_alloc();
  }
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
// What asks for memory this way does without it; such a failure must not show.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return std::malloc(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace kq {
namespace {

using kqtest::Listed;

class EnumerationAllocationTest : public kqtest::EnumerationTest {
 protected:
  EnumerationAllocationTest() {
    Write("a-b001.twf", {.id = 1, .isLast = false, .snapshot = 5});
    Write("a-b001.TW1", {.id = 1, .part = 1});
    Write("a-b001-i001.twi", {.id = 2, .parent = 1, .snapshot = 5});
    Write("a-b001-i002.twi", {.id = 3, .parent = 2});
    Write("lost.twi", {.id = 4, .parent = 9});
  }

  // Calls with each allocation failing in turn, until none is left to fail.
  static void FailEachAllocation(
      const std::function<KQStatus()>& call, const std::function<void()>& afterFailure = [] {}) {
    int refused = 0;
    for (int before = 0;; ++before) {
      SCOPED_TRACE(before);
      allocationFailed = false;
      allocationsLeft = before;
      const KQStatus status = call();
      allocationsLeft = -1;
      if (!allocationFailed) {
        EXPECT_EQ(status.status, 0);
        break;
      }
      ++refused;
      EXPECT_EQ(status.status, -8);
      EXPECT_STREQ(status.file, kqtest::kModuleName);
      afterFailure();
    }
    EXPECT_GE(refused, 1);
  }
};

TEST_F(EnumerationAllocationTest, CreateLeavesHandleZero) {
  std::uint64_t handle = 77;
  FailEachAllocation([&] { return KQImageFilesEnumerationCreate(&handle, 0, 0); },
                     [&] {
                       EXPECT_EQ(handle, 0u);
                       handle = 77;
                     });
  EXPECT_EQ(KQImageFilesEnumerationClose(handle).status, 0);
}

TEST_F(EnumerationAllocationTest, AddDirectoryKeepsWholeFilesOnly) {
  std::uint64_t handle = 0;
  const std::string path = folder_;
  std::string files;
  FailEachAllocation(
      [&] {
        if (handle != 0) {
          EXPECT_EQ(KQImageFilesEnumerationClose(handle).status, 0);
        }
        const int left = std::exchange(allocationsLeft, -1);
        EXPECT_EQ(KQImageFilesEnumerationCreate(&handle, 0, 0).status, 0);
        allocationsLeft = left;
        return KQImageFilesEnumerationAddDirectory(handle, path.c_str(), 0, 0);
      },
      [&] {
        // Each file is fostered or an orphan, and linked with all that are there.
        std::swap(handle, handle_);
        const Listed fostered = Fostered();
        const Listed orphans = Orphans();
        EXPECT_TRUE(fostered.status == 0 || fostered.status == -18);
        EXPECT_TRUE(orphans.status == 0 || orphans.status == -18);
        if (Roots("a-b001-i002.twi").status == 0 && Roots("a-b001-i001.twi").status == 0) {
          const Listed below = Dependents("a-b001-i001.twi");
          EXPECT_EQ(below, Names("a-b001-i001.twi|a-b001-i002.twi"));
        }
        std::swap(handle, handle_);
      });
  EXPECT_EQ(KQImageFilesEnumerationClose(handle).status, 0);
}

TEST_F(EnumerationAllocationTest, AFailedAdmissionChangesNothing) {
  kqtest::MemoryCatalogue catalogue;
  const EnumeratedFile* parent = catalogue.Admit("parent", 1, 0);
  const EnumeratedFile* child = catalogue.Admit("child", 3, 2);
  for (int before = 0;; ++before) {
    SCOPED_TRACE(before);
    auto file = std::make_unique<EnumeratedFile>();
    file->name = "a name that is too long to stand in the string itself";
    file->imageId = kqtest::MakeId(2);
    file->parentImageId = kqtest::MakeId(1);
    file->directory = parent->directory;
    allocationFailed = false;
    allocationsLeft = before;
    bool isAdmitted = false;
    try {
      catalogue.enumeration.Admit(std::move(file));
      isAdmitted = true;
    } catch (const std::bad_alloc&) {
    }
    allocationsLeft = -1;
    EXPECT_NE(isAdmitted, allocationFailed);
    const std::size_t links = isAdmitted ? 1 : 0;
    EXPECT_EQ(parent->children.size(), links);
    EXPECT_EQ(child->parents.size(), links);
    EXPECT_EQ(catalogue.enumeration.filesByName.size(), 2 + links);
    EXPECT_EQ(catalogue.enumeration.filesByImageId.size(), 2 + links);
    EXPECT_EQ(catalogue.enumeration.filesByParentId.size(), 2 + links);
    EXPECT_EQ(catalogue.enumeration.basesByName.size(), 1u);
    EXPECT_EQ(catalogue.enumeration.basesBySetId.size(), 1u);
    if (isAdmitted) break;
  }
}

TEST_F(EnumerationAllocationTest, QueriesAnswerOutOfMemoryAndGiveTheHandleBack) {
  Add();
  const std::string path = Path("a-b001-i002.twi");
  const kqtest::Id snapshot = kqtest::MakeId(5);
  char buffer[5000];
  std::uint32_t size = sizeof buffer;
  std::uint8_t answer = 0;
  const std::function<KQStatus()> calls[] = {
      [&] {
        return KQImageFilesEnumerationQueryShortestPathToBase(handle_, path.c_str(), nullptr, 0,
                                                              buffer, &size);
      },
      [&] {
        return KQImageFilesEnumerationQueryImageHasDescendants(handle_, path.c_str(), &answer);
      },
      [&] {
        return KQImageFilesEnumerationQueryRoots(handle_, path.c_str(), nullptr, 0, buffer, &size);
      },
      [&] {
        return KQImageFilesEnumerationQueryAllPureDependents(handle_, path.c_str(), nullptr, 0,
                                                             buffer, &size);
      },
      [&] { return KQImageFilesEnumerationQueryAllOrphans(handle_, nullptr, 0, buffer, &size); },
      [&] { return KQImageFilesEnumerationQueryAllFostered(handle_, nullptr, 0, buffer, &size); },
      [&] {
        return KQImageFilesEnumerationQuerySnapshotSet(handle_, snapshot.data(), nullptr, 0, buffer,
                                                       &size);
      },
      [&] { return KQImageFilesEnumerationQueryImageKeyFileName(path.c_str(), buffer, &size); },
  };
  for (const auto& call : calls) {
    FailEachAllocation(call, [&] {
      EXPECT_EQ(size, sizeof buffer);
      // A handle that is still locked would make another thread wait for ever.
      Listed listed;
      std::thread([&] { listed = Orphans(); }).join();
      EXPECT_EQ(listed, Names("lost.twi"));
    });
  }
}

TEST_F(EnumerationAllocationTest, NextNamesAnswerOutOfMemory) {
  const std::string path = Path("a-b001-i001.twi");
  char buffer[5000];
  std::uint32_t size = sizeof buffer;
  FailEachAllocation(
      [&] {
        size = sizeof buffer;
        return KQImageGetNextAvailableImageFileName(path.c_str(), buffer, &size);
      },
      [&] { EXPECT_EQ(size, sizeof buffer); });
}

}  // namespace
}  // namespace kq
