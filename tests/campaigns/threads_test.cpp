// Many threads at once on the same chains, sparse files, chains under sparse files and catalogues
// of one loaded library: they open, read, write, query, convert and close them, also while another
// thread's call is running on the same handle. Every byte must be right, every status one that the
// moment allows, and locks must be taken in their order.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kqimageapi.h"
#include "tests/campaigns/lock_order.h"
#include "tests/campaigns/volume_model.h"
#include "tests/support/loaded_library.h"
#include "tests/support/test_seed.h"

namespace kqtest {
namespace {

#ifdef KQ_SHORT_CAMPAIGNS
constexpr int kOperations = 400;  // of each thread
#else
constexpr int kOperations = 800;
#endif
constexpr std::uint32_t kThreads = 8;
constexpr std::size_t kFamilies = 3;
constexpr std::size_t kGenerations = 3;
constexpr std::uint32_t kShare = kVolumeBytes / kThreads;  // of a sparse file, for each thread
constexpr std::uint8_t kUnheld = 0xA5;                     // what a read leaves where nothing is

// What the threads share is relaxed: it must not put their calls into an order that the library
// does not make by itself, or the thread sanitizer would not see where the library makes none.
constexpr auto kRelaxed = std::memory_order_relaxed;

class Counter {
 public:
  void Add() { count_.fetch_add(1, kRelaxed); }
  int value() const { return count_.load(kRelaxed); }

 private:
  std::atomic<int> count_{0};
};

// What a handle stands for, shared by all threads. 0 while one of them opens it anew.
struct Slot {
  std::atomic<std::uint64_t> handle{0};
};

struct ChainSlot : Slot {
  std::string files;
  const Bytes* volume = nullptr;
};

// A sparse file, alone or over a chain. Each thread writes and compares its own share.
struct SparseSlot : Slot {
  std::string path;
  std::string files;   // empty: no chain
  std::string parent;  // the newest of them
  Bytes content;       // as it should read
};

struct CatalogueSlot : Slot {
  std::string folder;
  std::string newest;
};

class ThreadsTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string limit = GetParam();
    if (!limit.empty()) {
      const std::string text = "ChunkCache_MaxCachedBytes=" + limit +
                               "\nChunkHeaderCache_MaxCachedBytes=" + limit + "\n";
      WriteFile(libraryFolder_.Path("kqimageapi.conf"),
                {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    }
    library_ = std::make_unique<LoadedLibrary>(KQ_LIBRARY_FILE, libraryFolder_.Path());
    Dice dice(TestSeed());
    for (std::size_t family = 0; family < kFamilies; ++family) MakeFamily(family, &dice);
    sparse_[kFamilies].path = folder_.Path("sparse");
    sparse_[kFamilies].content.assign(kVolumeBytes, kUnheld);
    MakeCatalogue();
    // All calls from here on are the loaded copy's.
    WatchLocks(reinterpret_cast<const void*>(KQ_FIND(*library_, KQSparseFileClose)), [this] {
      std::uint64_t count = 0;
      EXPECT_EQ(KQ_FIND(*library_, KQSparseFileGetNumDataBytes)(~0ull, &count).status, -87);
    });
    for (ChainSlot& slot : chains_) Open(&slot);
    for (SparseSlot& slot : sparse_) Open(&slot);
    for (CatalogueSlot& slot : catalogues_) Open(&slot);
  }

  // Three chains that share files, and a sparse file over the longest.
  void MakeFamily(std::size_t family, Dice* dice) {
    const std::string folder = folder_.Path("family" + std::to_string(family));
    std::filesystem::create_directory(folder);
    ModelChain chain(dice, folder);
    static constexpr std::uint32_t kCompressionTypes[kFamilies] = {0, 5, 6};
    chain.Restart(1, kCompressionTypes[family]);
    for (std::size_t generation = 0; generation < kGenerations; ++generation) {
      if (generation > 0) chain.AddWrittenImage(".twi");
      const std::size_t i = family * kGenerations + generation;
      volumes_[i] = chain.volume();
      chains_[i].files = chain.List();
      chains_[i].volume = &volumes_[i];
    }
    sparse_[family].files = chain.List();
    sparse_[family].parent = chain.files().back();
    sparse_[family].content = chain.volume();
    sparse_[family].path = folder + "/sparse";
  }

  // A chain under names that a catalogue looks at.
  void MakeCatalogue() {
    const std::string folder = folder_.Path("catalogue");
    std::filesystem::create_directory(folder);
    Dice dice(1);
    ModelChain chain(&dice, folder);
    chain.Restart(0);
    for (std::size_t i = 0; i < kGenerations; ++i) chain.AddWrittenImage(i == 0 ? ".twf" : ".twi");
    for (CatalogueSlot& slot : catalogues_) {
      slot.folder = folder;
      slot.newest = chain.files().back();
    }
    for (const std::string& file : chain.files()) {
      catalogueList_ += (catalogueList_.empty() ? "" : "|") + file;
    }
  }

  // --- what the threads do ---

  void Work(std::uint32_t thread, std::uint64_t seed) {
    Dice dice(seed);
    for (int i = 0; i < kOperations && !HasFailure(); ++i) {
      const std::uint32_t choice = dice.Below(100);
      if (choice < 40) {
        ReadChain(&dice);
      } else if (choice < 60) {
        WriteSparse(thread, &dice);
      } else if (choice < 78) {
        ReadSparse(thread, &dice);
      } else if (choice < 90) {
        Query(&dice);
      } else if (choice < 95) {
        Reopen(&chains_[dice.Below(chains_.size())]);
      } else if (choice < 97) {
        Reopen(&sparse_[dice.Below(sparse_.size())]);
      } else {
        Reopen(&catalogues_[dice.Below(catalogues_.size())]);
      }
    }
  }

  // A handle may be closed between the look at it and the call, and only then is it unknown.
  bool Met(const KQStatus& status, const Slot& slot, std::uint64_t handle) {
    if (status.status == 0) return true;
    EXPECT_EQ(status.status, -87);
    if (handle != 0) {
      EXPECT_NE(slot.handle.load(kRelaxed), handle) << "an open handle is unknown";
    }
    closedBefore_.Add();
    return false;
  }

  void ReadChain(Dice* dice) {
    const ChainSlot& slot = chains_[dice->Below(chains_.size())];
    const std::uint32_t offset = dice->Below(kVolumeBytes);
    const std::uint32_t size = 1 + dice->Below(std::min(kVolumeBytes - offset, 60000u));
    Bytes read(size, kUnheld);
    const std::uint64_t handle = slot.handle.load(kRelaxed);
    const KQStatus status =
        KQ_FIND(*library_, KQImageFilesRead)(handle, offset, read.data(), size, nullptr);
    if (!Met(status, slot, handle)) return;
    reads_.Add();
    EXPECT_EQ(std::memcmp(read.data(), slot.volume->data() + offset, size), 0)
        << "offset " << offset << " size " << size;
  }

  // A range of whole sectors of any chain.
  static Stretch RangeIn(std::uint32_t thread, Dice* dice) {
    constexpr std::uint32_t kSector = 4096;
    const std::uint32_t sectors = 1 + dice->Below(4);
    return {std::size_t{thread} * kShare + kSector * dice->Below(kShare / kSector - sectors),
            sectors * kSector};
  }

  void WriteSparse(std::uint32_t thread, Dice* dice) {
    SparseSlot& slot = sparse_[dice->Below(sparse_.size())];
    const Stretch range = RangeIn(thread, dice);
    Bytes data(range.size);
    dice->Fill(data.data(), data.size());
    const std::uint64_t handle = slot.handle.load(kRelaxed);
    const auto write = slot.files.empty() ? KQ_FIND(*library_, KQSparseFileWrite)
                                          : KQ_FIND(*library_, KQImageFilesWrite);
    if (!Met(write(handle, range.offset, data.data(), range.size, nullptr), slot, handle)) return;
    writes_.Add();
    std::copy(data.begin(), data.end(),
              slot.content.begin() + static_cast<std::ptrdiff_t>(range.offset));
  }

  void ReadSparse(std::uint32_t thread, Dice* dice) {
    const SparseSlot& slot = sparse_[dice->Below(sparse_.size())];
    const Stretch range = RangeIn(thread, dice);
    Bytes read(range.size, kUnheld);
    const std::uint64_t handle = slot.handle.load(kRelaxed);
    const auto call = slot.files.empty() ? KQ_FIND(*library_, KQSparseFileRead)
                                         : KQ_FIND(*library_, KQImageFilesRead);
    if (!Met(call(handle, range.offset, read.data(), range.size, nullptr), slot, handle)) return;
    reads_.Add();
    EXPECT_EQ(std::memcmp(read.data(), slot.content.data() + range.offset, range.size), 0)
        << "offset " << range.offset << " size " << range.size;
  }

  void Query(Dice* dice) {
    const CatalogueSlot& slot = catalogues_[dice->Below(catalogues_.size())];
    const std::uint64_t handle = slot.handle.load(kRelaxed);
    KQStatus status{};
    std::string list(catalogueList_.size() + 1, '\0');
    auto size = static_cast<std::uint32_t>(list.size());
    constexpr std::uint32_t kFlags = KQ_LIST_FULL_PATHS | KQ_LIST_NO_QUOTES;
    switch (dice->Below(4)) {
      case 0:
        status = KQ_FIND(*library_, KQImageFilesEnumerationQueryAllFostered)(handle, "|", kFlags,
                                                                             list.data(), &size);
        break;
      case 1:
        status = KQ_FIND(*library_, KQImageFilesEnumerationQueryShortestPathToBase)(
            handle, slot.newest.c_str(), "|", kFlags, list.data(), &size);
        break;
      case 2:
        // Added before: it succeeds, and reads nothing.
        status = KQ_FIND(*library_, KQImageFilesEnumerationAddDirectory)(handle,
                                                                         slot.folder.c_str(), 0, 0);
        list = catalogueList_ + '\0';
        break;
      default: {
        std::uint8_t answer = 2;
        status = KQ_FIND(*library_, KQImageFilesEnumerationQueryImageHasDescendants)(
            handle, slot.newest.c_str(), &answer);
        EXPECT_TRUE(status.status != 0 || answer == 0);
        list = catalogueList_ + '\0';
      }
    }
    if (!Met(status, slot, handle)) return;
    queries_.Add();
    EXPECT_EQ(list, catalogueList_ + '\0');
  }

  // Closes what other threads may be using, and opens it again.
  template <class OneSlot>
  void Reopen(OneSlot* slot) {
    const std::uint64_t handle = slot->handle.exchange(0, kRelaxed);
    if (handle == 0) return;  // another thread is at it
    closes_.Add();
    Close(*slot, handle);
    Open(slot);
  }

  void Open(ChainSlot* slot) {
    std::uint64_t handle = 0;
    EXPECT_EQ(KQ_FIND(*library_, KQImageFilesOpen)(slot->files.c_str(), kVolumePassword, 0, &handle)
                  .status,
              0);
    slot->handle.store(handle, kRelaxed);
  }
  void Open(SparseSlot* slot) {
    std::uint64_t handle = 0;
    EXPECT_EQ(KQ_FIND(*library_, KQSparseFileOpen2)(slot->path.c_str(), KQ_SPARSE_OPEN_ALWAYS, 0, 4,
                                                    &handle)
                  .status,
              0);
    if (!slot->files.empty()) {
      const std::uint64_t sparse = handle;
      EXPECT_EQ(KQ_FIND(*library_, KQImageFilesOpen)(slot->files.c_str(), kVolumePassword, sparse,
                                                     &handle)
                    .status,
                0);
    }
    slot->handle.store(handle, kRelaxed);
  }
  void Open(CatalogueSlot* slot) {
    std::uint64_t handle = 0;
    EXPECT_EQ(KQ_FIND(*library_, KQImageFilesEnumerationCreate)(&handle, 0, 0).status, 0);
    EXPECT_EQ(
        KQ_FIND(*library_, KQImageFilesEnumerationAddDirectory)(handle, slot->folder.c_str(), 0, 0)
            .status,
        0);
    slot->handle.store(handle, kRelaxed);
  }

  void Close(const ChainSlot& /*slot*/, std::uint64_t handle) {
    EXPECT_EQ(KQ_FIND(*library_, KQImageFilesClose)(handle, nullptr, nullptr, 0).status, 0);
  }
  void Close(const CatalogueSlot& /*slot*/, std::uint64_t handle) {
    EXPECT_EQ(KQ_FIND(*library_, KQImageFilesEnumerationClose)(handle).status, 0);
  }
  void Close(const SparseSlot& slot, std::uint64_t handle) {
    if (slot.files.empty()) {
      EXPECT_EQ(KQ_FIND(*library_, KQSparseFileClose)(handle, 0).status, 0);
      return;
    }
    EXPECT_EQ(KQ_FIND(*library_, KQImageFilesClose)(handle, nullptr, nullptr, 0).status, 0);
    // Nobody has the file open now: it becomes an image as well.
    const std::string image = slot.path + ".twi";
    EXPECT_EQ(KQ_FIND(*library_, KQConvertSparseToIncremental)(
                  slot.path.c_str(), slot.parent.c_str(), kVolumePassword, image.c_str(), nullptr)
                  .status,
              0);
  }

  TempDir libraryFolder_;
  TempDir folder_;
  std::unique_ptr<LoadedLibrary> library_;
  std::array<Bytes, kFamilies * kGenerations> volumes_;
  std::array<ChainSlot, kFamilies * kGenerations> chains_;
  std::array<SparseSlot, kFamilies + 1> sparse_;
  std::array<CatalogueSlot, 2> catalogues_;
  std::string catalogueList_;
  Counter reads_;
  Counter writes_;
  Counter queries_;
  Counter closes_;
  Counter closedBefore_;
};

TEST_P(ThreadsTest, EveryByteIsRightWhileHandlesComeAndGo) {
  const std::uint64_t seed = TestSeed();
  std::vector<std::thread> threads;
  for (std::uint32_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i, seed] { Work(i, (seed << 8) + i); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const ChainSlot& slot : chains_) Close(slot, slot.handle);
  for (const SparseSlot& slot : sparse_) Close(slot, slot.handle);
  for (const CatalogueSlot& slot : catalogues_) Close(slot, slot.handle);
  const LockReport report = EndOfWatch();
  std::printf(
      "%d reads, %d writes, %d queries, %d closes, %d calls behind a close; %zu locks nested\n",
      reads_.value(), writes_.value(), queries_.value(), closes_.value(), closedBefore_.value(),
      report.nested);
  EXPECT_GT(closedBefore_.value(), 0);
  EXPECT_EQ(report.libraryLocks, 6u) << "not all of the library's locks were taken";
  EXPECT_GT(report.nested, 0u);
  EXPECT_EQ(report.twoLibraryLocks, 0u);
  EXPECT_EQ(report.handleUnderLibrary, 0u);
  EXPECT_EQ(report.managerUnderHandle, 0u);
}

INSTANTIATE_TEST_SUITE_P(EachCacheLimit, ThreadsTest, ::testing::Values("1", "65536", ""),
                         [](const auto& instance) {
                           const std::string limit = instance.param;
                           return limit.empty() ? "Default" : "Limit" + limit;
                         });

}  // namespace
}  // namespace kqtest
