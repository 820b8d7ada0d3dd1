#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {
namespace {

constexpr std::int32_t kAllModes[] = {KQ_SPARSE_CREATE_NEW, KQ_SPARSE_CREATE_ALWAYS,
                                      KQ_SPARSE_OPEN_EXISTING, KQ_SPARSE_OPEN_ALWAYS};

class SparseOpen : public SparseTest {
 protected:
  KQStatus TryOpen(std::int32_t mode, std::uint8_t readOnly = 0) {
    handle_ = 77;
    return KQSparseFileOpen2(path_.c_str(), mode, readOnly, 10, &handle_);
  }
  bool Exists() const { return std::filesystem::exists(path_); }
  static SparseModel SomeModel() {
    SparseModel model;
    model.Write(5000, PatternBytes(1, 10000));
    return model;
  }

  std::uint64_t handle_ = 0;
};

TEST_F(SparseOpen, NewFileIsAHeaderBlockInUseAndAnEmptyLeaf) {
  for (const std::int32_t mode :
       {KQ_SPARSE_CREATE_NEW, KQ_SPARSE_CREATE_ALWAYS, KQ_SPARSE_OPEN_ALWAYS}) {
    const std::uint64_t handle = OpenHandle(mode);
    Bytes expected(16384);
    SetBytes(&expected, 0, Bytes{'T', 'W', '4', 'K', 0, 0x20, 0, 0, 0, 0, 0, 0, 1});
    SetBytes(&expected, 8192, Bytes{'N', 'O', 'D', 'E'});
    expected[8192 + 8164] = 1;
    EXPECT_EQ(File(), expected);
    ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
    expected[12] = 0;
    EXPECT_EQ(File(), expected);
    std::filesystem::remove(path_);
  }
}

TEST_F(SparseOpen, NewFileGetsItsPermissions) {
  const mode_t before = umask(0);
  ASSERT_EQ(KQSparseFileClose(OpenHandle(KQ_SPARSE_CREATE_NEW), 0).status, 0);
  umask(before);
  struct stat found {};
  ASSERT_EQ(stat(path_.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0644U);
}

TEST_F(SparseOpen, FlagsFollowTheMode) {
  struct Case {
    std::int32_t mode;
    std::uint8_t readOnly;
    std::uint64_t flags;
    std::uint64_t creationMode;
  };
  const Case cases[] = {
      {KQ_SPARSE_CREATE_ALWAYS, 0, O_RDWR | O_CREAT | O_TRUNC, 0644},
      {KQ_SPARSE_CREATE_ALWAYS, 1, O_RDWR | O_CREAT | O_TRUNC, 0644},
      {KQ_SPARSE_OPEN_EXISTING, 0, O_RDWR, 0},
      {KQ_SPARSE_OPEN_EXISTING, 1, O_RDONLY, 0},
      {KQ_SPARSE_OPEN_EXISTING, 0xFF, O_RDONLY, 0},
      {KQ_SPARSE_OPEN_ALWAYS, 1, O_RDWR | O_CREAT, 0644},
      {KQ_SPARSE_CREATE_NEW, 1, O_RDWR | O_CREAT | O_EXCL, 0644},
  };
  for (const Case& c : cases) {
    if (c.mode == KQ_SPARSE_CREATE_NEW) std::filesystem::remove(path_);
    const CallCounter opens(Call::kOpen);
    const std::uint64_t handle = OpenHandle(c.mode, 10, c.readOnly);
    ASSERT_EQ(opens.count(), 2U);  // the first only asks whether the file is there
    EXPECT_EQ(opens.seen()[0].flags, std::uint64_t{O_RDONLY});
    EXPECT_EQ(opens.seen()[1].flags, c.flags);
    EXPECT_EQ(opens.seen()[1].mode, c.creationMode);
    ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
  }
}

TEST_F(SparseOpen, CreateNewRefusesAFileThatExists) {
  WriteFile(path_, Bytes{1, 2, 3});
  ExpectSystemFailure(TryOpen(KQ_SPARSE_CREATE_NEW), -80, EEXIST);
  EXPECT_EQ(handle_, 0U);
  EXPECT_EQ(File(), (Bytes{1, 2, 3}));
}

TEST_F(SparseOpen, CreateAlwaysTruncates) {
  WriteFile(path_, SomeModel().File());
  ASSERT_EQ(KQSparseFileClose(OpenHandle(KQ_SPARSE_CREATE_ALWAYS), 0).status, 0);
  EXPECT_TRUE(File() == SparseModel().File());
}

TEST_F(SparseOpen, OpenExistingNeedsAFile) {
  for (const std::uint8_t readOnly : {std::uint8_t{0}, std::uint8_t{1}}) {
    ExpectSystemFailure(TryOpen(KQ_SPARSE_OPEN_EXISTING, readOnly), -2, ENOENT);
    EXPECT_EQ(handle_, 0U);
    EXPECT_FALSE(Exists());
  }
}

TEST_F(SparseOpen, ExistingFileKeepsItsExtents) {
  const SparseModel model = SomeModel();
  WriteFile(path_, model.File());
  for (const std::int32_t mode : {KQ_SPARSE_OPEN_EXISTING, KQ_SPARSE_OPEN_ALWAYS}) {
    const std::uint64_t handle = OpenHandle(mode);
    EXPECT_TRUE(File() == model.File());  // opening changes nothing
    std::uint64_t dataBytes = 0;
    EXPECT_EQ(KQSparseFileGetNumDataBytes(handle, &dataBytes).status, 0);
    EXPECT_EQ(dataBytes, 10000U);
    const Placed buffer(10002, 0, 9);
    EXPECT_EQ(KQSparseFileRead(handle, 4999, buffer.data(), buffer.size(), nullptr).status, 0);
    EXPECT_EQ(buffer.bytes(), model.Read(4999, 10002, 9));
    ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
    EXPECT_TRUE(File() == model.File());
  }
}

TEST_F(SparseOpen, ShortFormCreatesOrOpens) {
  std::uint64_t handle = 0;
  WriteFile(path_, SomeModel().File());
  ASSERT_EQ(KQSparseFileOpen(path_.c_str(), 7, 0, 10, &handle).status, 0);
  std::uint64_t dataBytes = 0;
  EXPECT_EQ(KQSparseFileGetNumDataBytes(handle, &dataBytes).status, 0);
  EXPECT_EQ(dataBytes, 10000U);
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);

  ASSERT_EQ(KQSparseFileOpen(path_.c_str(), 1, 1, 10, &handle).status, 0);
  EXPECT_EQ(KQSparseFileWrite(handle, 0, "x", 1, nullptr).status, -19);
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);

  ASSERT_EQ(KQSparseFileOpen(path_.c_str(), 0, 1, 10, &handle).status, 0);
  EXPECT_EQ(KQSparseFileWrite(handle, 0, "x", 1, nullptr).status, 0);
  EXPECT_EQ(KQSparseFileGetNumDataBytes(handle, &dataBytes).status, 0);
  EXPECT_EQ(dataBytes, 1U);
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
}

TEST_F(SparseOpen, FileInUseIsRefusedAlsoForReading) {
  for (const std::uint8_t inUse : {std::uint8_t{1}, std::uint8_t{0x80}}) {
    const Bytes file = SomeModel().File(inUse);
    WriteFile(path_, file);
    ExpectOwnFailure(TryOpen(KQ_SPARSE_OPEN_EXISTING), -1392, "utsparsefile");
    EXPECT_EQ(handle_, 0U);
    ExpectOwnFailure(TryOpen(KQ_SPARSE_OPEN_EXISTING, 1), -1392, "utsparsefile");
    ExpectOwnFailure(TryOpen(KQ_SPARSE_OPEN_ALWAYS), -1392, "utsparsefile");
    EXPECT_TRUE(File() == file);
  }
}

TEST_F(SparseOpen, FileThatIsOpenInAnotherHandleIsRefusedOnceChanged) {
  const std::uint64_t handle = OpenHandle(KQ_SPARSE_CREATE_NEW);
  ExpectOwnFailure(TryOpen(KQ_SPARSE_OPEN_EXISTING, 1), -1392, "utsparsefile");
  ASSERT_EQ(KQSparseFileClose(handle, 0).status, 0);
}

TEST_F(SparseOpen, OtherMagicIsRefused) {
  const Bytes good = SomeModel().File();
  for (std::size_t i = 0; i < 4; ++i) {
    Bytes file = good;
    file[i] ^= 0x20;
    WriteFile(path_, file);
    for (const std::int32_t mode : {KQ_SPARSE_OPEN_EXISTING, KQ_SPARSE_OPEN_ALWAYS}) {
      ExpectOwnFailure(TryOpen(mode), -1392, "utsparsefile");
    }
    EXPECT_TRUE(File() == file);
  }
}

TEST_F(SparseOpen, EmptyFileIsNoSparseFile) {
  for (const std::int32_t mode : {KQ_SPARSE_OPEN_EXISTING, KQ_SPARSE_OPEN_ALWAYS}) {
    WriteFile(path_, Bytes());
    ExpectOwnFailure(TryOpen(mode), -1392, "utsparsefile");
    EXPECT_EQ(File(), Bytes());
  }
}

TEST_F(SparseOpen, FirstBytesOfTheHeaderBlockAreEnough) {
  // What a file lacks reads as zero, so that its root is the header block: a tree that leads
  // nowhere.
  WriteFile(path_, Bytes{'T', 'W', '4', 'K'});
  ASSERT_EQ(TryOpen(KQ_SPARSE_OPEN_EXISTING).status, 0);
  std::uint8_t byte = 0;
  ExpectOwnFailure(KQSparseFileRead(handle_, 0, &byte, 1, nullptr), -1392, "utsparsefile");
  ASSERT_EQ(KQSparseFileClose(handle_, 0).status, 0);
}

TEST_F(SparseOpen, ArgumentsAreChecked) {
  ExpectOwnFailure(KQSparseFileOpen2(path_.c_str(), 2, 0, 10, nullptr), -87, "kqimageapi");
  ExpectOwnFailure(KQSparseFileOpen(path_.c_str(), 0, 0, 10, nullptr), -87, "kqimageapi");
  std::uint64_t handle = 5;
  ExpectOwnFailure(KQSparseFileOpen2(nullptr, 2, 0, 10, &handle), -87, "kqimageapi");
  EXPECT_EQ(handle, 0U);
  for (const std::int32_t mode : {0, 5, -1, INT32_MIN, INT32_MAX}) {
    ExpectOwnFailure(TryOpen(mode), -87, "kqimageapi");
    EXPECT_EQ(handle_, 0U);
  }
  EXPECT_FALSE(Exists());
}

TEST_F(SparseOpen, NewFileThatCannotBeWrittenIsRemoved) {
  // The header block, then the leaf.
  for (const int after : {0, 1}) {
    for (const std::int32_t mode :
         {KQ_SPARSE_CREATE_NEW, KQ_SPARSE_CREATE_ALWAYS, KQ_SPARSE_OPEN_ALWAYS}) {
      const FailingCall failing(Call::kWrite, ENOSPC, 100, after);
      const std::string log = LogOf([&] { ExpectSystemFailure(TryOpen(mode), -112, ENOSPC); });
      EXPECT_EQ(WithoutLineNumbers(log), WriterLine(101, "0xFFFFFF90"));
      EXPECT_EQ(handle_, 0U);
      EXPECT_FALSE(Exists());
    }
  }
}

TEST_F(SparseOpen, FileThatWasThereStaysIfItCannotBeWritten) {
  WriteFile(path_, SomeModel().File());
  const FailingCall failing(Call::kWrite, ENOSPC, 100);
  LogOf([&] { ExpectSystemFailure(TryOpen(KQ_SPARSE_CREATE_ALWAYS), -112, ENOSPC); });
  EXPECT_EQ(File(), Bytes());  // truncated, all the same
}

TEST_F(SparseOpen, FullDeviceIsToldAfterItsAttempts) {
  std::uint64_t handle = 5;
  const std::string log = LogOf([&] {
    ExpectSystemFailure(KQSparseFileOpen2("/dev/full", KQ_SPARSE_CREATE_ALWAYS, 0, 1, &handle),
                        -112, ENOSPC);
  });
  EXPECT_EQ(WithoutLineNumbers(log), WriterLine(101, "0xFFFFFF90"));
  EXPECT_EQ(handle, 0U);
  EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

TEST_F(SparseOpen, HeaderBlockThatCannotBeReadIsTold) {
  WriteFile(path_, SomeModel().File());
  const FailingCall failing(Call::kRead, EIO, 100);
  const std::string log =
      LogOf([&] { ExpectSystemFailure(TryOpen(KQ_SPARSE_OPEN_EXISTING), -23, EIO); });
  EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFE9"));
  EXPECT_EQ(handle_, 0U);
}

TEST_F(SparseOpen, EachAllocationIsNeededAndAFailureLeavesNothing) {
  for (const std::int32_t mode : kAllModes) {
    for (const Call call : {Call::kMalloc, Call::kAlignedMalloc}) {
      int refused = 0;
      bool failed = true;
      for (int after = 0; failed; ++after) {
        SCOPED_TRACE(std::to_string(mode) + " " + std::to_string(after));
        std::filesystem::remove(path_);
        if (mode == KQ_SPARSE_OPEN_EXISTING) WriteFile(path_, SomeModel().File());
        KQStatus status;
        {
          const FailingCall failing(call, ENOMEM, 1, after);
          status = TryOpen(mode);
          failed = failing.failures() != 0;
        }
        if (status.status == 0) {
          // The look whether the file is there may fail without harm.
          EXPECT_EQ(KQSparseFileClose(handle_, 1).status, 0);
        } else {
          ++refused;
          EXPECT_EQ(status.status, -8);
          EXPECT_EQ(handle_, 0U);
          EXPECT_EQ(Exists(), mode == KQ_SPARSE_OPEN_EXISTING);
        }
      }
      EXPECT_GE(refused, call == Call::kMalloc ? 3 : 1);
    }
  }
}

TEST_F(SparseOpen, WithoutAHandleTheFileGoesUnlessItHadToExist) {
  // The last allocation of an open is the handle's.
  for (const std::int32_t mode : kAllModes) {
    if (mode == KQ_SPARSE_CREATE_NEW) {
      std::filesystem::remove(path_);
    } else {
      WriteFile(path_, SomeModel().File());
    }
    std::size_t allocations = 0;
    {
      const CallCounter counter(Call::kMalloc);
      ASSERT_EQ(TryOpen(mode).status, 0);
      allocations = counter.count();
    }
    ASSERT_EQ(KQSparseFileClose(handle_, mode == KQ_SPARSE_CREATE_NEW).status, 0);
    KQStatus status;
    {
      const FailingCall failing(Call::kMalloc, ENOMEM, 1, static_cast<int>(allocations) - 1);
      status = TryOpen(mode);
    }
    ExpectOwnFailure(status, -8, "objmgr");
    EXPECT_EQ(handle_, 0U);
    EXPECT_EQ(Exists(), mode == KQ_SPARSE_OPEN_EXISTING);
  }
}

TEST_F(SparseOpen, GateThatCannotBeMadeIsDoneWithout) {
  for (const Call part : {Call::kMutexInit, Call::kConditionInit}) {
    kq::SparseFileOwner file;
    {
      const FailingCall failing(part, ENOMEM);
      file = Open(kq::SparseMode::kCreateAlways);
      ASSERT_EQ(failing.failures(), 1);
    }
    EXPECT_EQ(file->Gate, nullptr);
    std::uint8_t byte = 5;
    EXPECT_EQ(kq::SparseFileWriteFrom(file.get(), 0, &byte, 1).status, 0);
    EXPECT_EQ(kq::SparseFileReadInto(file.get(), 0, &byte, 1).status, 0);
    EXPECT_EQ(kq::SparseFileDataBytes(file.get()), 1U);
    EXPECT_EQ(kq::UtSparseFileClose(file.get(), false).status, 0);
  }
}

TEST_F(SparseOpen, GateStandsOpen) {
  const kq::SparseFileOwner file = Open();
  ASSERT_NE(file->Gate, nullptr);
  EXPECT_EQ(file->Gate->Open, 1);
  const kq::SparseGatePass outer(file->Gate.get());
  const kq::SparseGatePass inner(file->Gate.get());  // excludes nobody
  EXPECT_EQ(file->Gate->Open, 1);
}

}  // namespace
}  // namespace kqtest
