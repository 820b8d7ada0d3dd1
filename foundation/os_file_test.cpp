#include "foundation/os_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "tests/support/temp_dir.h"

namespace {

using kq::OSFile;
using kq::OSFileOwner;
using kqtest::BeforeCall;
using kqtest::Bytes;
using kqtest::Call;
using kqtest::CallCounter;
using kqtest::CallRecord;
using kqtest::ExpectOwnFailure;
using kqtest::ExpectSystemFailure;
using kqtest::FailingCall;
using kqtest::Pattern;
using kqtest::ShortTransfers;

constexpr std::uint64_t kUntouched = 0x7777;

class OSFileTest : public testing::Test {
 protected:
  std::string MakeFile(const Bytes& content) {
    const std::string path = dir_.Path("file");
    kqtest::WriteFile(path, content);
    return path;
  }

  OSFileOwner Open(const std::string& path, int flags = O_RDWR) {
    OSFile* file = nullptr;
    const KQStatus status = kq::OSFileOpen(path.c_str(), flags, 0, &file);
    EXPECT_EQ(status.status, 0) << path;
    return OSFileOwner(file);
  }

  // A pipe that can be read and written through one descriptor without waiting for a partner.
  OSFileOwner OpenPipe() {
    const std::string path = dir_.Path("pipe");
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return Open(path);
  }

  static std::int64_t Position(const OSFile& file) { return lseek(file.fd, 0, SEEK_CUR); }

  kqtest::TempDir dir_;
};

using OSFileOpenTest = OSFileTest;
using OSFileCloseTest = OSFileTest;
using OSFileReadTest = OSFileTest;
using OSFileSeekReadTest = OSFileTest;
using OSFileSeekWriteTest = OSFileTest;
using OSFileGetSizeTest = OSFileTest;
using OSFileGetBlockSizeTest = OSFileTest;

TEST_F(OSFileOpenTest, NullPathOrOutPointerIsInvalid) {
  OSFile* file = reinterpret_cast<OSFile*>(&file);
  ExpectOwnFailure(kq::OSFileOpen(nullptr, O_RDONLY, 0, &file), -87, "kqos_linux");
  EXPECT_EQ(file, nullptr);
  ExpectOwnFailure(kq::OSFileOpen("/dev/null", O_RDONLY, 0, nullptr), -87, "kqos_linux");
}

TEST_F(OSFileOpenTest, RecordAndPathAreOneAllocation) {
  const std::string path = MakeFile({1});
  const CallCounter allocations(Call::kMalloc);
  const OSFileOwner file = Open(path, O_RDONLY);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(allocations.count(), 1U);
  EXPECT_EQ(allocations.seen()[0].length, sizeof(OSFile) + path.size() + 1);
  EXPECT_STREQ(file->path, path.c_str());
  EXPECT_NE(file->path, path.c_str());
  EXPECT_GE(file->fd, 0);
  EXPECT_EQ(file->flags, 0U);
}

TEST_F(OSFileOpenTest, FlagsAndModeGoToTheSystemUnchanged) {
  const CallCounter opens(Call::kOpen);
  const std::string path = dir_.Path("new");
  OSFile* file = nullptr;
  ASSERT_EQ(kq::OSFileOpen(path.c_str(), 0x242, 0640, &file).status, 0);
  const OSFileOwner owner(file);
  ASSERT_EQ(opens.count(), 1U);
  EXPECT_EQ(opens.seen()[0].flags, 0x242U);
  EXPECT_EQ(opens.seen()[0].mode, 0640U);
  struct stat found;
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(found.st_mode & 0777, 0640 & ~mask);
}

TEST_F(OSFileOpenTest, CreationTruncatesAnExistingFile) {
  const std::string path = MakeFile(Pattern(100));
  OSFile* file = nullptr;
  ASSERT_EQ(kq::OSFileOpen(path.c_str(), 0x242, 0644, &file).status, 0);
  const OSFileOwner owner(file);
  EXPECT_TRUE(kqtest::ReadFile(path).empty());
}

TEST_F(OSFileOpenTest, MissingFileIsTheMappedErrno) {
  OSFile* file = reinterpret_cast<OSFile*>(&file);
  ExpectSystemFailure(kq::OSFileOpen(dir_.Path("none").c_str(), O_RDONLY, 0, &file), -2, ENOENT);
  EXPECT_EQ(file, nullptr);
}

TEST_F(OSFileOpenTest, FailedOpenKeepsTheErrnoOfTheOpen) {
  const FailingCall failing(Call::kOpen, EMFILE);
  const BeforeCall disturbance(Call::kFree, [](const CallRecord&) { errno = EIO; });
  OSFile* file = nullptr;
  ExpectSystemFailure(kq::OSFileOpen("/dev/null", O_RDONLY, 0, &file), -4, EMFILE);
}

TEST_F(OSFileOpenTest, FailedAllocationIsOutOfMemory) {
  const FailingCall failing(Call::kMalloc, ENOMEM);
  const CallCounter opens(Call::kOpen);
  OSFile* file = reinterpret_cast<OSFile*>(&file);
  ExpectOwnFailure(kq::OSFileOpen("/dev/null", O_RDONLY, 0, &file), -8, "kqos_linux");
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(opens.count(), 0U);
}

TEST_F(OSFileOpenTest, InterruptedOpenIsRestarted) {
  const std::string path = MakeFile({1});
  const FailingCall failing(Call::kOpen, EINTR, 5);
  const OSFileOwner file = Open(path);
  EXPECT_NE(file, nullptr);
  EXPECT_EQ(failing.failures(), 5);
}

TEST_F(OSFileCloseTest, UnlocksClosesAndFreesInThisOrder) {
  OSFileOwner file = Open(MakeFile({1}));
  const std::uint64_t record = reinterpret_cast<std::uintptr_t>(file.get());
  std::vector<std::string> order;
  const BeforeCall onUnlock(Call::kFlock, [&order](const CallRecord& call) {
    EXPECT_EQ(call.flags, static_cast<std::uint64_t>(LOCK_UN));
    order.emplace_back("flock");
  });
  const BeforeCall onClose(Call::kClose,
                           [&order](const CallRecord&) { order.emplace_back("close"); });
  const BeforeCall onFree(Call::kFree, [&order, record](const CallRecord& call) {
    if (call.address == record) order.emplace_back("free");
  });
  kq::OSFileClose(file.release());
  EXPECT_EQ(order, (std::vector<std::string>{"flock", "close", "free"}));
}

TEST_F(OSFileCloseTest, IgnoresFailuresOfBothCalls) {
  OSFileOwner file = Open(MakeFile({1}));
  const int fd = file->fd;
  {
    const FailingCall noUnlock(Call::kFlock, EIO);
    const FailingCall noClose(Call::kClose, EIO);
    const CallCounter closes(Call::kClose);
    kq::OSFileClose(file.release());
    EXPECT_EQ(closes.count(), 1U);
  }
  EXPECT_EQ(close(fd), 0);
}

TEST_F(OSFileCloseTest, NullIsAllowed) {
  const CallCounter closes(Call::kClose);
  kq::OSFileClose(nullptr);
  EXPECT_EQ(closes.count(), 0U);
}

TEST_F(OSFileReadTest, ReadsOnFromThePosition) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  Bytes buffer(60);
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer.data(), 60, &count).status, 0);
  EXPECT_EQ(count, 60U);
  EXPECT_EQ(buffer[59], Pattern(100)[59]);
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer.data(), 60, &count).status, 0);
  EXPECT_EQ(count, 40U);
  EXPECT_EQ(buffer[0], Pattern(100)[60]);
  EXPECT_EQ(buffer[39], Pattern(100)[99]);
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer.data(), 60, &count).status, 0);
  EXPECT_EQ(count, 0U);
}

TEST_F(OSFileReadTest, OrdinaryFileIsReadUntilTheWholeLengthHasCome) {
  const Bytes content = Pattern(100);
  const OSFileOwner file = Open(MakeFile(content));
  const ShortTransfers limit(7);
  Bytes buffer(100);
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer.data(), 100, &count).status, 0);
  EXPECT_EQ(count, 100U);
  EXPECT_EQ(buffer, content);
}

TEST_F(OSFileReadTest, InterruptedReadIsRestarted) {
  const Bytes content = Pattern(100);
  const OSFileOwner file = Open(MakeFile(content));
  const ShortTransfers limit(40);
  const FailingCall failing(Call::kRead, EINTR, 3, 1);
  Bytes buffer(100);
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer.data(), 100, &count).status, 0);
  EXPECT_EQ(failing.failures(), 3);
  EXPECT_EQ(count, 100U);
  EXPECT_EQ(buffer, content);
}

TEST_F(OSFileReadTest, FailureKeepsTheOldCountEvenAfterSomeBytes) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  const ShortTransfers limit(40);
  const FailingCall failing(Call::kRead, EIO, 1, 2);
  Bytes buffer(100);
  std::uint64_t count = kUntouched;
  ExpectSystemFailure(kq::OSFileRead(file.get(), buffer.data(), 100, &count), -23, EIO);
  EXPECT_EQ(count, kUntouched);
}

TEST_F(OSFileReadTest, LengthZeroOfAnOrdinaryFileReadsNothing) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  const CallCounter reads(Call::kRead);
  std::uint64_t count = kUntouched;
  ASSERT_EQ(kq::OSFileRead(file.get(), nullptr, 0, &count).status, 0);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(reads.count(), 0U);
}

TEST_F(OSFileReadTest, PipeGivesWhatOneReadGives) {
  const OSFileOwner file = OpenPipe();
  ASSERT_EQ(write(file->fd, "abcde", 5), 5);
  const CallCounter reads(Call::kRead);
  char buffer[100] = {};
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, sizeof buffer, &count).status, 0);
  EXPECT_EQ(count, 5U);
  EXPECT_STREQ(buffer, "abcde");
  ASSERT_EQ(reads.count(), 1U);
  EXPECT_EQ(reads.seen()[0].length, sizeof buffer);
  EXPECT_EQ(file->flags, 3U);
}

TEST_F(OSFileReadTest, InterruptedReadOfAPipeIsRestarted) {
  const OSFileOwner file = OpenPipe();
  ASSERT_EQ(write(file->fd, "abcde", 5), 5);
  const FailingCall failing(Call::kRead, EINTR, 2);
  char buffer[100] = {};
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, sizeof buffer, &count).status, 0);
  EXPECT_EQ(count, 5U);
  EXPECT_EQ(failing.failures(), 2);
}

TEST_F(OSFileReadTest, PipeAtItsEndGivesZeroBytes) {
  OSFileOwner writer = OpenPipe();
  const OSFileOwner reader = Open(dir_.Path("pipe"), O_RDONLY | O_NONBLOCK);
  writer.reset();
  char buffer[4];
  std::uint64_t count = kUntouched;
  ASSERT_EQ(kq::OSFileRead(reader.get(), buffer, sizeof buffer, &count).status, 0);
  EXPECT_EQ(count, 0U);
}

TEST_F(OSFileReadTest, FailedReadOfAPipeKeepsTheOldCount) {
  OSFileOwner writer = OpenPipe();
  const OSFileOwner reader = Open(dir_.Path("pipe"), O_RDONLY | O_NONBLOCK);
  char buffer[4];
  std::uint64_t count = kUntouched;
  ExpectSystemFailure(kq::OSFileRead(reader.get(), buffer, sizeof buffer, &count), -1237, EAGAIN);
  EXPECT_EQ(count, kUntouched);
}

TEST_F(OSFileReadTest, TypeIsLookedUpOnce) {
  const OSFileOwner file = Open(MakeFile(Pattern(10)));
  const CallCounter lookups(Call::kFstat);
  char buffer[4];
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, 4, &count).status, 0);
  EXPECT_EQ(file->flags, 1U);
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, 4, &count).status, 0);
  EXPECT_EQ(lookups.count(), 1U);
}

TEST_F(OSFileReadTest, FailedLookupReadsAsAnOrdinaryFileAndIsTriedAgain) {
  const OSFileOwner file = OpenPipe();
  ASSERT_EQ(write(file->fd, "abcdefgh", 8), 8);
  const ShortTransfers limit(3);
  const FailingCall failing(Call::kFstat, EIO);
  char buffer[9] = {};
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, 5, &count).status, 0);
  EXPECT_EQ(count, 5U);
  EXPECT_EQ(file->flags, 0U);
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, 8, &count).status, 0);
  EXPECT_EQ(count, 3U);
  EXPECT_STREQ(buffer, "fghde");
  EXPECT_EQ(file->flags, 3U);
}

TEST_F(OSFileReadTest, DirectoryIsGeneralFailure) {
  const OSFileOwner file = Open(dir_.Path(), O_RDONLY);
  char buffer[4];
  std::uint64_t count = kUntouched;
  ExpectSystemFailure(kq::OSFileRead(file.get(), buffer, 4, &count), -31, EISDIR);
  EXPECT_EQ(count, kUntouched);
}

TEST_F(OSFileSeekReadTest, ReadsFromTheOffset) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  Bytes buffer(10);
  std::uint64_t count = 0;
  ASSERT_EQ(kq::OSFileSeekRead(file.get(), 50, buffer.data(), 10, &count).status, 0);
  EXPECT_EQ(count, 10U);
  EXPECT_EQ(buffer[0], Pattern(100)[50]);
  ASSERT_EQ(kq::OSFileSeekRead(file.get(), 95, buffer.data(), 10, &count).status, 0);
  EXPECT_EQ(count, 5U);
  ASSERT_EQ(kq::OSFileSeekRead(file.get(), 0, buffer.data(), 10, nullptr).status, 0);
  EXPECT_EQ(buffer[9], Pattern(100)[9]);
}

TEST_F(OSFileSeekReadTest, AtOrBeyondTheEndGivesZeroBytes) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  Bytes buffer(10);
  for (const std::uint64_t offset :
       {std::uint64_t{100}, std::uint64_t{101}, std::uint64_t{1} << 40}) {
    std::uint64_t count = kUntouched;
    EXPECT_EQ(kq::OSFileSeekRead(file.get(), offset, buffer.data(), 10, &count).status, 0);
    EXPECT_EQ(count, 0U);
  }
}

TEST_F(OSFileSeekReadTest, FailedSeekIsMappedAndNothingIsRead) {
  const OSFileOwner file = OpenPipe();
  ASSERT_EQ(write(file->fd, "abc", 3), 3);
  char buffer[4];
  std::uint64_t count = kUntouched;
  ExpectSystemFailure(kq::OSFileSeekRead(file.get(), 0, buffer, 4, &count), -31, ESPIPE);
  EXPECT_EQ(count, kUntouched);
  ASSERT_EQ(kq::OSFileRead(file.get(), buffer, 4, &count).status, 0);
  EXPECT_EQ(count, 3U);
}

TEST_F(OSFileSeekReadTest, OffsetThatIsNegativeAsSignedIsInvalid) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  char buffer[4];
  std::uint64_t count = kUntouched;
  ExpectSystemFailure(kq::OSFileSeekRead(file.get(), ~std::uint64_t{0}, buffer, 4, &count), -87,
                      EINVAL);
  EXPECT_EQ(count, kUntouched);
}

TEST_F(OSFileSeekReadTest, FailedReadKeepsTheOldCount) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  const FailingCall failing(Call::kRead, EIO);
  char buffer[4];
  std::uint64_t count = kUntouched;
  ExpectSystemFailure(kq::OSFileSeekRead(file.get(), 0, buffer, 4, &count), -23, EIO);
  EXPECT_EQ(count, kUntouched);
}

TEST_F(OSFileSeekReadTest, SeekThatFailsWithErrnoZeroCountsAsDone) {
  const OSFileOwner file = Open(MakeFile(Pattern(100)));
  const FailingCall failing(Call::kSeek, 0);
  Bytes buffer(10);
  std::uint64_t count = 0;
  const KQStatus status = kq::OSFileSeekRead(file.get(), 50, buffer.data(), 10, &count);
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.detail2, 0U);
  EXPECT_STREQ(status.file, "");
  EXPECT_EQ(failing.failures(), 1);
  EXPECT_EQ(count, 10U);
  EXPECT_EQ(buffer[0], Pattern(100)[0]);
}

TEST_F(OSFileSeekWriteTest, WritesAtTheOffsetAndLeavesTheRest) {
  const std::string path = MakeFile(Pattern(20));
  const OSFileOwner file = Open(path);
  ASSERT_EQ(kq::OSFileSeekWrite(file.get(), 5, "XYZ", 3).status, 0);
  Bytes expected = Pattern(20);
  std::memcpy(expected.data() + 5, "XYZ", 3);
  EXPECT_EQ(kqtest::ReadFile(path), expected);
  ASSERT_EQ(kq::OSFileSeekWrite(file.get(), 25, "END", 3).status, 0);
  expected.resize(25);
  expected.insert(expected.end(), {'E', 'N', 'D'});
  EXPECT_EQ(kqtest::ReadFile(path), expected);
}

TEST_F(OSFileSeekWriteTest, PartialAndInterruptedWritesGoOnToTheEnd) {
  const std::string path = MakeFile({});
  const OSFileOwner file = Open(path);
  const Bytes content = Pattern(100);
  const ShortTransfers limit(7);
  const FailingCall failing(Call::kWrite, EINTR, 4, 3);
  ASSERT_EQ(kq::OSFileSeekWrite(file.get(), 0, content.data(), content.size()).status, 0);
  EXPECT_EQ(failing.failures(), 4);
  EXPECT_EQ(kqtest::ReadFile(path), content);
}

TEST_F(OSFileSeekWriteTest, FullDiskIsTheMappedErrno) {
  const OSFileOwner file = Open("/dev/full");
  ExpectSystemFailure(kq::OSFileSeekWrite(file.get(), 0, "abc", 3), -112, ENOSPC);
}

TEST_F(OSFileSeekWriteTest, FailureAfterPartOfTheBytesIsReported) {
  const OSFileOwner file = Open(MakeFile({}));
  const ShortTransfers limit(2);
  const FailingCall failing(Call::kWrite, EDQUOT, 1, 1);
  ExpectSystemFailure(kq::OSFileSeekWrite(file.get(), 0, "abcdef", 6), -112, EDQUOT);
}

TEST_F(OSFileSeekWriteTest, LengthZeroOnlySeeks) {
  const std::string path = MakeFile(Pattern(20));
  const OSFileOwner file = Open(path);
  const CallCounter writes(Call::kWrite);
  ASSERT_EQ(kq::OSFileSeekWrite(file.get(), 1000, nullptr, 0).status, 0);
  EXPECT_EQ(writes.count(), 0U);
  EXPECT_EQ(Position(*file), 1000);
  EXPECT_EQ(kqtest::ReadFile(path), Pattern(20));
}

TEST_F(OSFileSeekWriteTest, LengthZeroStillReportsAFailedSeek) {
  const OSFileOwner file = OpenPipe();
  ExpectSystemFailure(kq::OSFileSeekWrite(file.get(), 0, nullptr, 0), -31, ESPIPE);
}

TEST_F(OSFileSeekWriteTest, SeekThatFailsWithErrnoZeroCountsAsDone) {
  const std::string path = MakeFile(Pattern(20));
  const OSFileOwner file = Open(path);
  const FailingCall failing(Call::kSeek, 0);
  EXPECT_EQ(kq::OSFileSeekWrite(file.get(), 5, "XYZ", 3).status, 0);
  EXPECT_EQ(failing.failures(), 1);
  Bytes expected = Pattern(20);
  std::memcpy(expected.data(), "XYZ", 3);
  EXPECT_EQ(kqtest::ReadFile(path), expected);
}

TEST_F(OSFileSeekWriteTest, FileOpenedForReadingIsInvalid) {
  const OSFileOwner file = Open(MakeFile(Pattern(20)), O_RDONLY);
  ExpectSystemFailure(kq::OSFileSeekWrite(file.get(), 0, "abc", 3), -87, EBADF);
}

TEST_F(OSFileGetSizeTest, GivesTheSizeInBytes) {
  std::uint64_t size = kUntouched;
  OSFileOwner file = Open(MakeFile(Pattern(1234)));
  ASSERT_EQ(kq::OSFileGetSize(file.get(), &size).status, 0);
  EXPECT_EQ(size, 1234U);
  ASSERT_EQ(ftruncate(file->fd, off_t{5} << 30), 0);
  ASSERT_EQ(kq::OSFileGetSize(file.get(), &size).status, 0);
  EXPECT_EQ(size, std::uint64_t{5} << 30);
  file = Open("/dev/null");
  ASSERT_EQ(kq::OSFileGetSize(file.get(), &size).status, 0);
  EXPECT_EQ(size, 0U);
}

TEST_F(OSFileGetSizeTest, FailureIsMappedAndGivesZero) {
  const OSFileOwner file = Open(MakeFile(Pattern(10)));
  const FailingCall failing(Call::kFstat, EIO);
  std::uint64_t size = kUntouched;
  ExpectSystemFailure(kq::OSFileGetSize(file.get(), &size), -23, EIO);
  EXPECT_EQ(size, 0U);
}

TEST_F(OSFileGetBlockSizeTest, OrdinaryFileYieldsTheSmallest) {
  for (const std::size_t size : {0U, 1U, 128U, 200U, 10000U}) {
    const OSFileOwner file = Open(MakeFile(Pattern(size)));
    EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), 128) << size;
    EXPECT_EQ(Position(*file), 0);
  }
}

TEST_F(OSFileGetBlockSizeTest, SizeAtWhichTheReadFailsIsDoubled) {
  const OSFileOwner file = Open(MakeFile(Pattern(10000)));
  for (int failures = 0; failures < 6; ++failures) {
    const FailingCall failing(Call::kRead, EINVAL, failures);
    EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), 128 << failures);
    EXPECT_EQ(failing.failures(), failures);
    EXPECT_EQ(Position(*file), 0);
  }
}

TEST_F(OSFileGetBlockSizeTest, SizeAtWhichTheSeekFailsIsDoubled) {
  const OSFileOwner file = Open(MakeFile(Pattern(10000)));
  // The first seek goes to 0, the second to the first size.
  const FailingCall failing(Call::kSeek, EINVAL, 1, 1);
  const CallCounter reads(Call::kRead);
  EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), 256);
  EXPECT_EQ(failing.failures(), 1);
  EXPECT_EQ(reads.count(), 1U);
  EXPECT_EQ(Position(*file), 0);
}

TEST_F(OSFileGetBlockSizeTest, OffsetLengthAndAddressAreAlignedToTheSizeAndNoMore) {
  const OSFileOwner file = Open(MakeFile(Pattern(10000)));
  const FailingCall failing(Call::kRead, EINVAL, 6);
  std::vector<std::uint64_t> tried;
  std::int64_t lastSeek = -1;
  const BeforeCall onSeek(Call::kSeek,
                          [&lastSeek](const CallRecord& call) { lastSeek = call.offset; });
  const BeforeCall onRead(Call::kRead, [&](const CallRecord& call) {
    tried.push_back(call.length);
    EXPECT_EQ(static_cast<std::uint64_t>(lastSeek), call.length);
    EXPECT_EQ(call.address % 4096, call.length % 4096);
  });
  EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), -1);
  EXPECT_EQ(tried, (std::vector<std::uint64_t>{128, 256, 512, 1024, 2048, 4096}));
  EXPECT_EQ(lastSeek, 0);
}

TEST_F(OSFileGetBlockSizeTest, InterruptedReadIsRestartedAtTheSameSize) {
  const OSFileOwner file = Open(MakeFile(Pattern(10000)));
  const FailingCall failing(Call::kRead, EINTR, 7);
  EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), 128);
  EXPECT_EQ(failing.failures(), 7);
}

TEST_F(OSFileGetBlockSizeTest, PipeHasNone) {
  const OSFileOwner file = OpenPipe();
  ASSERT_EQ(write(file->fd, "abc", 3), 3);
  EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), -1);
}

TEST_F(OSFileGetBlockSizeTest, FailedAllocationGivesNoneWithErrnoSet) {
  const OSFileOwner file = Open(MakeFile(Pattern(10)));
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  const CallCounter seeks(Call::kSeek);
  errno = 0;
  EXPECT_EQ(kq::OSFileGetBlockSize(file.get()), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(seeks.count(), 0U);
}

TEST_F(OSFileGetBlockSizeTest, AlignedFileTakesFourKilobytesWhereThereIsNone) {
  const OSFileOwner file = Open(MakeFile(Pattern(10)));
  kq::OSAlignedFile aligned = kq::MakeAlignedFile(file.get());
  EXPECT_EQ(aligned.file, file.get());
  EXPECT_EQ(aligned.blockSize, 128U);
  {
    const FailingCall failing(Call::kRead, EINVAL, 2);
    aligned = kq::MakeAlignedFile(file.get());
    EXPECT_EQ(aligned.blockSize, 512U);
  }
  const FailingCall failing(Call::kRead, EINVAL, 6);
  aligned = kq::MakeAlignedFile(file.get());
  EXPECT_EQ(aligned.blockSize, 4096U);
}

}  // namespace
