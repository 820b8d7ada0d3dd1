#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {
namespace {

constexpr char kMarkUsedFailed[] =
    "UtSparseFileClose call to UpdateFileHeader(pSparseFile, TRUE) failed with status=0xFFFFFF90\n";
constexpr char kNodeFailed[] =
    "UtSparseFileClose call to OSFileSeekWrite failed with status=0xFFFFFF90\n";
constexpr char kMarkCleanFailed[] =
    "UtSparseFileClose call to UpdateFileHeader(pSparseFile, FALSE) failed with "
    "status=0xFFFFFF90\n";
constexpr char kDeleteFailed[] =
    "UtSparseFileClose call to OSDeleteFileEx failed with status=0xFFFFFFFB\n";

std::string CloseFailed(const char* status) {
  return std::string("UtSparseFileClose failed with status=") + status + "\n";
}

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    count += entry.is_symlink() ? 1 : 0;
  }
  return count;
}

class SparseClose : public SparseTest {
 protected:
  // An existing file, opened clean, with one changed node in the cache.
  kq::SparseFileOwner OpenChanged() {
    kq::SparseFileOwner file = OpenModel(SparseModel());
    const std::uint8_t byte = 1;
    EXPECT_EQ(kq::SparseFileWriteFrom(file.get(), 0, &byte, 1).status, 0);
    EXPECT_FALSE(file->HeaderInUse);
    return file;
  }
  bool Exists() const { return std::filesystem::exists(path_); }
};

TEST_F(SparseClose, CleanCloseWritesTheNodesAndTheHeaderBlock) {
  const kq::SparseFileOwner file = OpenChanged();
  EXPECT_EQ(File()[12], 0);
  std::vector<std::int64_t> seeks;
  {
    const CallCounter counter(Call::kSeek);
    EXPECT_EQ(LogOf([&] { EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0); }), "");
    for (const CallRecord& record : counter.seen()) seeks.push_back(record.offset);
  }
  // In use, the node, clean again.
  EXPECT_EQ(seeks, (std::vector<std::int64_t>{0, 8192, 0}));
  EXPECT_EQ(file->File, nullptr);
  EXPECT_EQ(file->Gate, nullptr);
  EXPECT_FALSE(file->HeaderInUse);
  EXPECT_EQ(file->Nodes.CacheCount(), 0);
  SparseModel model;
  model.Write(0, Bytes{1});
  EXPECT_TRUE(File() == model.File());
}

TEST_F(SparseClose, NodesAreWrittenInTheOrderOfTheirUse) {
  const kq::SparseFileOwner file = Open(kq::SparseMode::kCreateNew);
  const std::uint8_t byte = 1;
  for (std::uint64_t i = 0; i < 292; ++i) {
    ASSERT_EQ(kq::SparseFileWriteFrom(file.get(), 2 * i, &byte, 1).status, 0);
  }
  std::vector<std::uint64_t> used;
  for (const kq::CachedNode* node = file->Nodes.first(); node != nullptr;
       node = node->orderLinks.next) {
    ASSERT_TRUE(node->Dirty);
    used.push_back(node->Position);
  }
  ASSERT_EQ(used.size(), 3U);
  used.push_back(0);
  const CallCounter seeks(Call::kSeek);
  ASSERT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
  std::vector<std::uint64_t> written;
  for (const CallRecord& record : seeks.seen()) {
    written.push_back(static_cast<std::uint64_t>(record.offset));
  }
  EXPECT_EQ(written, used);
}

TEST_F(SparseClose, UnchangedFileGetsItsHeaderBlockAgain) {
  WriteFile(path_, SparseModel().File());
  Patch(21, Bytes{1, 2, 3});  // zero in a block that the library writes
  const kq::SparseFileOwner file = Open(kq::SparseMode::kOpenExisting);
  const CallCounter writes(Call::kWrite);
  EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
  EXPECT_EQ(writes.count(), 1U);
  EXPECT_TRUE(File() == SparseModel().File());
}

TEST_F(SparseClose, ReadOnlyFileIsNotWritten) {
  const kq::SparseFileOwner file = OpenModel(SparseModel(), 10, true);
  std::uint8_t byte = 0;
  ASSERT_EQ(kq::SparseFileReadInto(file.get(), 0, &byte, 1).status, 0);
  const CallCounter writes(Call::kWrite);
  EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
  EXPECT_EQ(writes.count(), 0U);
}

TEST_F(SparseClose, DeleteRemovesTheFileAndWritesNothing) {
  const kq::SparseFileOwner file = OpenChanged();
  const CallCounter writes(Call::kWrite);
  EXPECT_EQ(kq::UtSparseFileClose(file.get(), true).status, 0);
  EXPECT_EQ(writes.count(), 0U);
  EXPECT_FALSE(Exists());
  EXPECT_EQ(file->File, nullptr);
  EXPECT_EQ(file->Gate, nullptr);
}

TEST_F(SparseClose, DeleteRemovesAReadOnlyFileToo) {
  const kq::SparseFileOwner file = OpenModel(SparseModel(), 10, true);
  EXPECT_EQ(kq::UtSparseFileClose(file.get(), true).status, 0);
  EXPECT_FALSE(Exists());
}

TEST_F(SparseClose, ClosedFileClosesAgainWithoutHarm) {
  const kq::SparseFileOwner file = OpenChanged();
  ASSERT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
  const Bytes before = File();
  EXPECT_EQ(kq::UtSparseFileClose(file.get(), true).status, 0);
  EXPECT_EQ(File(), before);
}

TEST_F(SparseClose, EachStepThatFailsIsLoggedAndEndsTheClose) {
  const std::string writer = WriterLine(101, "0xFFFFFF90");
  const std::string last = CloseFailed("0xFFFFFF90");
  const std::string logs[] = {writer + kMarkUsedFailed + last, writer + kNodeFailed + last,
                              writer + kMarkCleanFailed + last};
  for (int step = 0; step < 3; ++step) {
    SCOPED_TRACE(step);
    const kq::SparseFileOwner file = OpenChanged();
    KQStatus status;
    std::string log;
    {
      const FailingCall failing(Call::kWrite, ENOSPC, 1000, step);
      log = LogOf([&] { status = kq::UtSparseFileClose(file.get(), false); });
      EXPECT_EQ(failing.failures(), 100);
    }
    ExpectSystemFailure(status, -112, ENOSPC);
    EXPECT_EQ(WithoutLineNumbers(log), logs[step]);
    // What survives: the file, the gate, and what the file says of itself.
    EXPECT_NE(file->File, nullptr);
    ASSERT_NE(file->Gate, nullptr);
    EXPECT_EQ(file->Gate->Open, 1);
    EXPECT_EQ(file->HeaderInUse, step != 0);
    EXPECT_EQ(File()[12], step != 0 ? 1 : 0);
  }
}

TEST_F(SparseClose, FailedCloseKeepsTheNodesBehindTheFailedOne) {
  const kq::SparseFileOwner file = Open(kq::SparseMode::kCreateNew);
  const std::uint8_t byte = 1;
  for (std::uint64_t i = 0; i < 292; ++i) {
    ASSERT_EQ(kq::SparseFileWriteFrom(file.get(), 2 * i, &byte, 1).status, 0);
  }
  {
    const FailingCall failing(Call::kWrite, ENOSPC, 100, 1);
    LogOf([&] { EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, -112); });
  }
  EXPECT_EQ(file->Nodes.CacheCount(), 1);  // one written, one lost, one left
  EXPECT_EQ(File()[12], 1);
  EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
}

TEST_F(SparseClose, RetriedWriteThatWorksInTheEndIsNoFailure) {
  const kq::SparseFileOwner file = OpenChanged();
  const FailingCall failing(Call::kWrite, ENOSPC, 99);
  const std::string log =
      LogOf([&] { EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0); });
  EXPECT_EQ(WithoutLineNumbers(log), WriterLine(100, "0x00000000"));
}

TEST_F(SparseClose, FailedDeleteIsLoggedAndKeepsTheFile) {
  const kq::SparseFileOwner file = OpenChanged();
  const Bytes before = File();
  const FailingCall failing(Call::kUnlink, EACCES);
  KQStatus status;
  const std::string log = LogOf([&] { status = kq::UtSparseFileClose(file.get(), true); });
  ExpectSystemFailure(status, -5, EACCES);
  EXPECT_EQ(log, kDeleteFailed + CloseFailed("0xFFFFFFFB"));
  EXPECT_EQ(File(), before);
  EXPECT_NE(file->File, nullptr);
  EXPECT_NE(file->Gate, nullptr);
}

TEST_F(SparseClose, NoMemoryForTheHeaderBlockIsLogged) {
  const kq::SparseFileOwner file = OpenModel(SparseModel());
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  KQStatus status;
  const std::string log = LogOf([&] { status = kq::UtSparseFileClose(file.get(), false); });
  ExpectOwnFailure(status, -8, "utsparsefile");
  EXPECT_EQ(log,
            "UtSparseFileClose call to UpdateFileHeader(pSparseFile, FALSE) failed with "
            "status=0xFFFFFFF8\n" +
                CloseFailed("0xFFFFFFF8"));
}

TEST_F(SparseClose, HandleIsGoneAfterItsClose) {
  const std::uint64_t handle = OpenHandle();
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
  ExpectOwnFailure(KQSparseFileClose(handle, 0), -87, "objmgr");
  std::uint8_t byte = 0;
  EXPECT_EQ(KQSparseFileRead(handle, 0, &byte, 1, nullptr).status, -87);
}

TEST_F(SparseClose, DeleteThroughAHandleRemovesTheFile) {
  for (const std::uint8_t deleteFile : {std::uint8_t{1}, std::uint8_t{0x80}}) {
    const std::uint64_t handle = OpenHandle();
    EXPECT_EQ(KQSparseFileWrite(handle, 0, "x", 1, nullptr).status, 0);
    ASSERT_EQ(KQSparseFileClose(handle, deleteFile).status, 0);
    EXPECT_FALSE(Exists());
  }
}

TEST_F(SparseClose, FailedCloseAbandonsTheObjectAndTakesTheHandle) {
  const MayLeak leak;
  const std::size_t before = OpenDescriptors();
  const std::uint64_t handle = OpenHandle();
  KQStatus status;
  {
    const FailingCall failing(Call::kWrite, ENOSPC, 100);
    LogOf([&] { status = KQSparseFileClose(handle, 0); });
  }
  ExpectSystemFailure(status, -112, ENOSPC);
  EXPECT_EQ(OpenDescriptors(), before + 1);
  ExpectOwnFailure(KQSparseFileClose(handle, 0), -87, "objmgr");
  EXPECT_EQ(File()[12], 1);
}

TEST_F(SparseClose, ClosedFileHoldsNoDescriptor) {
  const std::size_t before = OpenDescriptors();
  const std::uint64_t handle = OpenHandle();
  EXPECT_EQ(OpenDescriptors(), before + 1);
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(SparseClose, ObjectThatIsDestroyedUnclosedStaysInUseOnTheDisk) {
  kq::SparseFileOwner file = Open(kq::SparseMode::kCreateNew);
  file.reset();
  std::uint64_t handle = 0;
  EXPECT_EQ(KQSparseFileOpen2(path_.c_str(), KQ_SPARSE_OPEN_EXISTING, 0, 1, &handle).status, -1392);
}

}  // namespace
}  // namespace kqtest
