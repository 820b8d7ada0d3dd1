#include "sparse/sparse_transfer.h"

#include <cerrno>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {
namespace {

using kq::SparseFileReader;
using kq::SparseFileTransfer;
using kq::SparseFileWriter_BufferAddressHelper;
using kq::TransferTo;

// A new sparse file of 16384 bytes with two units of known bytes behind it, at 16384 and 20480.
class Transfers : public SparseTest {
 protected:
  kq::SparseFileOwner file_ = Open();
  Bytes units_ = PatternBytes(1, 8192);

  void SetUp() override {
    const Placed data(units_, 0);
    ASSERT_EQ(
        SparseFileTransfer(file_.get(), 0, data.data(), data.size(), TransferTo::kEnd, nullptr)
            .status,
        0);
    ASSERT_EQ(File().size(), 24576U);
  }

  Bytes FileFrom(std::ptrdiff_t offset) const {
    const Bytes file = File();
    return Bytes(file.begin() + offset, file.end());
  }
  Bytes Slice(std::size_t from, std::size_t size) const {
    return Bytes(units_.begin() + static_cast<std::ptrdiff_t>(from),
                 units_.begin() + static_cast<std::ptrdiff_t>(from + size));
  }
};

using SparseReader = Transfers;
using SparseWriter = Transfers;
using SparseTransfer = Transfers;
using SparseHeader = Transfers;

TEST_F(SparseReader, FirstAttemptThatWorksLogsNothing) {
  const Placed buffer(8192);
  const std::string log = LogOf([&] {
    EXPECT_EQ(SparseFileReader(file_.get(), 16384, buffer.data(), 8192, nullptr).status, 0);
  });
  EXPECT_EQ(log, "");
  EXPECT_EQ(buffer.bytes(), units_);
}

TEST_F(SparseReader, LogTellsWhichAttemptWorked) {
  for (const Call call : {Call::kRead, Call::kSeek}) {
    for (const int failures : {1, 2, 99}) {
      const Placed buffer(4096);
      const FailingCall failing(call, EIO, failures);
      const std::string log = LogOf([&] {
        EXPECT_EQ(SparseFileReader(file_.get(), 16384, buffer.data(), 4096, nullptr).status, 0);
      });
      EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(failures + 1, "0x00000000"));
      EXPECT_EQ(buffer.bytes(), Slice(0, 4096));
    }
  }
}

TEST_F(SparseReader, HundredFailedAttemptsAreToldAs101) {
  for (const Call call : {Call::kRead, Call::kSeek}) {
    const Placed buffer(4096, 0, 0xAA);
    std::uint64_t count = 5;
    const FailingCall failing(call, EIO, 1000);
    const std::string log = LogOf([&] {
      ExpectSystemFailure(SparseFileReader(file_.get(), 16384, buffer.data(), 4096, &count), -23,
                          EIO);
    });
    EXPECT_EQ(failing.failures(), 100);
    EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFE9"));
    EXPECT_EQ(count, 5U);
    EXPECT_EQ(buffer.bytes(), Bytes(4096, 0xAA));
  }
}

TEST_F(SparseReader, AlignedReadGoesStraightIntoTheBuffer) {
  const Placed buffer(8192);
  const CallCounter reads(Call::kRead);
  const CallCounter allocations(Call::kAlignedMalloc);
  EXPECT_EQ(SparseFileReader(file_.get(), 16384, buffer.data(), 8192, nullptr).status, 0);
  ASSERT_EQ(reads.count(), 1U);
  EXPECT_EQ(reads.seen()[0].address, reinterpret_cast<std::uintptr_t>(buffer.data()));
  EXPECT_EQ(reads.seen()[0].length, 8192U);
  EXPECT_EQ(allocations.count(), 0U);
}

TEST_F(SparseReader, AnythingUnalignedIsReadInWholeUnitsThroughABuffer) {
  struct Case {
    std::uint64_t position;
    std::uint32_t length;
    std::size_t distance;
    std::int64_t readAt;
    std::uint64_t readLength;
  };
  const Case cases[] = {
      {16384, 1, 0, 16384, 4096},     // the length
      {16385, 1, 0, 16384, 4096},     // the position
      {16384, 4096, 8, 16384, 4096},  // the address alone: just the range
      {16384, 8192, 1, 16384, 8192}, {20479, 2, 0, 16384, 8192},  // across a unit's end
      {20479, 4096, 3, 16384, 8192}, {20480, 4095, 0, 20480, 4096}, {16385, 4096, 0, 16384, 8192},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.position) + " " + std::to_string(c.length));
    const Placed buffer(c.length, c.distance);
    const CallCounter seeks(Call::kSeek);
    const CallCounter reads(Call::kRead);
    const CallCounter allocations(Call::kAlignedMalloc);
    std::uint64_t count = 0;
    EXPECT_EQ(SparseFileReader(file_.get(), c.position, buffer.data(), c.length, &count).status, 0);
    EXPECT_EQ(count, c.length);
    EXPECT_EQ(buffer.bytes(), Slice(c.position - 16384, c.length));
    ASSERT_EQ(seeks.count(), 1U);
    EXPECT_EQ(seeks.seen()[0].offset, c.readAt);
    ASSERT_EQ(reads.count(), 1U);
    EXPECT_EQ(reads.seen()[0].length, c.readLength);
    EXPECT_EQ(reads.seen()[0].address % 4096, 0U);
    ASSERT_EQ(allocations.count(), 1U);
    EXPECT_EQ(allocations.seen()[0].length, 0x10000U);
  }
}

TEST_F(SparseReader, BufferIsAsLargeAsTheUnitsNeedIt) {
  const Placed buffer(0x10000);
  const CallCounter allocations(Call::kAlignedMalloc);
  EXPECT_EQ(SparseFileReader(file_.get(), 1, buffer.data(), 0x10000, nullptr).status, 0);
  ASSERT_EQ(allocations.count(), 1U);
  EXPECT_EQ(allocations.seen()[0].length, 0x11000U);
}

TEST_F(SparseReader, ShortReadLeavesTheRestOfAnAlignedBufferAlone) {
  const Placed buffer(8192, 0, 0xAA);
  std::uint64_t count = 0;
  EXPECT_EQ(SparseFileReader(file_.get(), 20480, buffer.data(), 8192, &count).status, 0);
  EXPECT_EQ(count, 8192U);
  Bytes expected = Slice(4096, 4096);
  expected.resize(8192, 0xAA);
  EXPECT_EQ(buffer.bytes(), expected);
}

TEST_F(SparseReader, ShortReadThroughABufferGivesZero) {
  const Placed buffer(8192, 1, 0xAA);
  std::uint64_t count = 0;
  EXPECT_EQ(SparseFileReader(file_.get(), 20480, buffer.data(), 8192, &count).status, 0);
  EXPECT_EQ(count, 8192U);
  Bytes expected = Slice(4096, 4096);
  expected.resize(8192, 0);
  EXPECT_EQ(buffer.bytes(), expected);

  const Placed behind(10, 0, 0xAA);
  EXPECT_EQ(SparseFileReader(file_.get(), 1 << 30, behind.data(), 10, nullptr).status, 0);
  EXPECT_EQ(behind.bytes(), Bytes(10));
}

TEST_F(SparseReader, NoBufferIsOutOfMemory) {
  const Placed buffer(10);
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  const std::string log = LogOf([&] {
    ExpectOwnFailure(SparseFileReader(file_.get(), 16384, buffer.data(), 10, nullptr), -8,
                     "utsparsefile");
  });
  EXPECT_EQ(log, "");
}

TEST_F(SparseWriter, LogTellsWhichAttemptWorked) {
  for (const Call call : {Call::kWrite, Call::kSeek}) {
    for (const int failures : {1, 99}) {
      const Placed data(PatternBytes(2, 4096), 0);
      const FailingCall failing(call, ENOSPC, failures);
      const std::string log = LogOf([&] {
        EXPECT_EQ(
            SparseFileWriter_BufferAddressHelper(file_.get(), 20480, data.data(), 4096).status, 0);
      });
      EXPECT_EQ(WithoutLineNumbers(log), WriterLine(failures + 1, "0x00000000"));
      EXPECT_EQ(FileFrom(20480), data.bytes());
    }
  }
}

TEST_F(SparseWriter, HundredFailedAttemptsAreToldAs101) {
  const Placed data(4096);
  const FailingCall failing(Call::kWrite, ENOSPC, 1000);
  const std::string log = LogOf([&] {
    ExpectSystemFailure(SparseFileWriter_BufferAddressHelper(file_.get(), 20480, data.data(), 4096),
                        -112, ENOSPC);
  });
  EXPECT_EQ(failing.failures(), 100);
  EXPECT_EQ(WithoutLineNumbers(log), WriterLine(101, "0xFFFFFF90"));
}

TEST_F(SparseWriter, AlignedAddressIsWrittenFrom) {
  const Placed data(4096);
  const CallCounter writes(Call::kWrite);
  const CallCounter allocations(Call::kAlignedMalloc);
  EXPECT_EQ(SparseFileWriter_BufferAddressHelper(file_.get(), 20480, data.data(), 4096).status, 0);
  ASSERT_EQ(writes.count(), 1U);
  EXPECT_EQ(writes.seen()[0].address, reinterpret_cast<std::uintptr_t>(data.data()));
  EXPECT_EQ(allocations.count(), 0U);
}

TEST_F(SparseWriter, UnalignedAddressIsWrittenFromACopy) {
  const Placed data(PatternBytes(2, 4096), 16);
  const CallCounter writes(Call::kWrite);
  const CallCounter allocations(Call::kAlignedMalloc);
  EXPECT_EQ(SparseFileWriter_BufferAddressHelper(file_.get(), 20480, data.data(), 4096).status, 0);
  ASSERT_EQ(writes.count(), 1U);
  EXPECT_EQ(writes.seen()[0].address % 4096, 0U);
  EXPECT_EQ(writes.seen()[0].length, 4096U);
  ASSERT_EQ(allocations.count(), 1U);
  EXPECT_EQ(allocations.seen()[0].length, 0x10000U);
  EXPECT_EQ(FileFrom(20480), data.bytes());

  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  ExpectOwnFailure(SparseFileWriter_BufferAddressHelper(file_.get(), 20480, data.data(), 4096), -8,
                   "utsparsefile");
}

TEST_F(SparseTransfer, AppendsAtTheEndFilledUpWithZero) {
  for (const std::size_t distance : {std::size_t{0}, std::size_t{7}}) {
    for (const std::uint32_t length : {1U, 4095U, 4096U, 4097U, 0x10001U}) {
      Bytes expected = File();
      const std::uint64_t end = expected.size();
      const Placed data(PatternBytes(length, length), distance);
      Append(&expected, data.bytes());
      expected.resize((expected.size() + 4095) / 4096 * 4096);
      std::uint64_t position = 0;
      // The position that was given counts for nothing.
      EXPECT_EQ(
          SparseFileTransfer(file_.get(), 16384, data.data(), length, TransferTo::kEnd, &position)
              .status,
          0);
      EXPECT_EQ(position, end);
      EXPECT_EQ(File(), expected);
    }
  }
}

TEST_F(SparseTransfer, InPlaceKeepsWhatStandsAround) {
  for (const std::uint64_t position : {16384U, 16385U, 20000U, 20480U}) {
    for (const std::uint32_t length : {1U, 500U, 4096U}) {
      Bytes expected = File();
      const Placed data(PatternBytes(position + length, length), 0);
      SetBytes(&expected, position, data.bytes());
      EXPECT_EQ(SparseFileTransfer(file_.get(), position, data.data(), length,
                                   TransferTo::kPosition, nullptr)
                    .status,
                0);
      EXPECT_EQ(File(), expected);
    }
  }
}

TEST_F(SparseTransfer, WholeUnitsInPlaceNeedNoRead) {
  const Placed data(4096);
  const CallCounter reads(Call::kRead);
  EXPECT_EQ(
      SparseFileTransfer(file_.get(), 16384, data.data(), 4096, TransferTo::kPosition, nullptr)
          .status,
      0);
  EXPECT_EQ(reads.count(), 0U);
  EXPECT_EQ(
      SparseFileTransfer(file_.get(), 16384, data.data(), 4095, TransferTo::kPosition, nullptr)
          .status,
      0);
  EXPECT_EQ(reads.count(), 1U);
}

TEST_F(SparseTransfer, PositionAtTheEndAppends) {
  const Placed data(PatternBytes(3, 100), 0);
  Bytes expected = File();
  Append(&expected, data.bytes());
  expected.resize(28672);
  EXPECT_EQ(SparseFileTransfer(file_.get(), 24576, data.data(), 100, TransferTo::kPosition, nullptr)
                .status,
            0);
  EXPECT_EQ(File(), expected);
}

TEST_F(SparseTransfer, PositionBehindTheEndIsCorrupt) {
  const Bytes before = File();
  const Placed data(4096);
  for (const std::uint64_t position : {std::uint64_t{24577}, ~std::uint64_t{0}}) {
    ExpectOwnFailure(SparseFileTransfer(file_.get(), position, data.data(), 4096,
                                        TransferTo::kPosition, nullptr),
                     -1392, "utsparsefile");
  }
  EXPECT_EQ(File(), before);
}

TEST_F(SparseTransfer, EdgeThatIsNotThereToBeKeptIsCorrupt) {
  const Bytes before = File();
  const Placed data(4097);
  ExpectOwnFailure(
      SparseFileTransfer(file_.get(), 20480, data.data(), 4097, TransferTo::kPosition, nullptr),
      -1392, "utsparsefile");
  EXPECT_EQ(File(), before);
}

TEST_F(SparseTransfer, FileOfBrokenUnitsIsReadAndNotWritten) {
  Bytes broken = File();
  broken.push_back(9);
  WriteFile(path_, broken);
  const Placed data(4096);
  for (const TransferTo to : {TransferTo::kPosition, TransferTo::kEnd}) {
    std::uint64_t position = 77;
    ExpectOwnFailure(SparseFileTransfer(file_.get(), 16384, data.data(), 4096, to, &position),
                     -1392, "utsparsefile");
    EXPECT_EQ(position, 77U);
  }
  EXPECT_EQ(File(), broken);
  EXPECT_EQ(SparseFileReader(file_.get(), 16384, data.data(), 4096, nullptr).status, 0);
  EXPECT_EQ(data.bytes(), Slice(0, 4096));
}

TEST_F(SparseTransfer, UnknownSizeIsTold) {
  const Placed data(4096);
  const FailingCall failing(Call::kFstat, EIO);
  ExpectSystemFailure(
      SparseFileTransfer(file_.get(), 0, data.data(), 4096, TransferTo::kEnd, nullptr), -23, EIO);
}

TEST_F(SparseTransfer, EachAllocationIsNeeded) {
  const Placed data(100);
  for (const TransferTo to : {TransferTo::kPosition, TransferTo::kEnd}) {
    const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
    ExpectOwnFailure(SparseFileTransfer(file_.get(), 16384, data.data(), 100, to, nullptr), -8,
                     "utsparsefile");
  }
}

TEST_F(SparseHeader, HoldsTheValuesInMemory) {
  Bytes expected = File();
  file_->RootNode = 0x1122334455667788;
  file_->DataBytes = 0x99AABBCCDDEEFF00;
  for (const std::uint8_t inUse : {std::uint8_t{1}, std::uint8_t{0}}) {
    ASSERT_EQ(kq::UpdateFileHeader(file_.get(), inUse).status, 0);
    std::fill_n(expected.begin(), 8192, std::uint8_t{0});
    SetBytes(&expected, 0, Bytes{'T',  'W',   '4', 'K',  0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22,
                                 0x11, inUse, 0,   0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA, 0x99});
    EXPECT_EQ(File(), expected);
  }
}

TEST_F(SparseHeader, ReadOnlyFileIsWriteProtected) {
  ASSERT_EQ(kq::UtSparseFileClose(file_.get(), false).status, 0);
  const Bytes before = File();
  file_ = Open(kq::SparseMode::kOpenExisting, 10, true);
  ExpectOwnFailure(kq::UpdateFileHeader(file_.get(), 0), -19, "utsparsefile");
  EXPECT_EQ(File(), before);
}

TEST_F(SparseHeader, NoBlockIsOutOfMemory) {
  const FailingCall failing(Call::kAlignedMalloc, ENOMEM);
  ExpectOwnFailure(kq::UpdateFileHeader(file_.get(), 0), -8, "utsparsefile");
}

}  // namespace
}  // namespace kqtest
