// Reading and writing through handles: what a range gives and leaves, the counts, the statuses.
#include <cerrno>
#include <thread>
#include <vector>

#include "foundation/os_layer_test.h"
#include "foundation/system_calls_test.h"
#include "image/chain_test_support.h"
#include "sparse/sparse_support_test.h"

namespace kqtest {
namespace {

class SparseOperations : public SparseTest {
 protected:
  std::uint64_t handle_ = 0;

  void SetUp() override { handle_ = OpenHandle(KQ_SPARSE_CREATE_NEW); }
  void TearDown() override {
    if (handle_ != 0) CloseHandle();
  }
  void CloseHandle() {
    EXPECT_EQ(KQSparseFileClose(handle_, 0).status, 0);
    handle_ = 0;
  }

  KQStatus Write(std::uint64_t offset, const Bytes& data) {
    std::uint32_t count = 77;
    const KQStatus status = KQSparseFileWrite(handle_, offset, data.data(),
                                              static_cast<std::uint32_t>(data.size()), &count);
    EXPECT_EQ(count, status.status == 0 ? data.size() : 0U);
    return status;
  }
  KQStatus Read(std::uint64_t offset, Bytes* buffer) {
    std::uint32_t count = 77;
    const KQStatus status = KQSparseFileRead(handle_, offset, buffer->data(),
                                             static_cast<std::uint32_t>(buffer->size()), &count);
    EXPECT_EQ(count, status.status == 0 ? buffer->size() : 0U);
    return status;
  }
  Bytes ReadOver(std::uint64_t offset, std::size_t size, std::uint8_t fill) {
    Bytes buffer(size, fill);
    EXPECT_EQ(Read(offset, &buffer).status, 0);
    return buffer;
  }
  std::uint64_t DataBytes() const {
    std::uint64_t count = 77;
    EXPECT_EQ(KQSparseFileGetNumDataBytes(handle_, &count).status, 0);
    return count;
  }
  // Closes, and takes the file apart.
  std::map<std::int64_t, ModelExtent> ClosedExtents() {
    CloseHandle();
    return SparseModel(File()).extents();
  }
};

using Extents = std::map<std::int64_t, ModelExtent>;

TEST_F(SparseOperations, ReadOfNothingSucceedsAndLeavesTheBuffer) {
  EXPECT_EQ(ReadOver(0, 5000, 0xA5), Bytes(5000, 0xA5));
  ASSERT_EQ(Write(10000, Bytes(100, 1)).status, 0);
  EXPECT_EQ(ReadOver(5000, 5000, 0xA5), Bytes(5000, 0xA5));
  EXPECT_EQ(ReadOver(10100, 5000, 0xA5), Bytes(5000, 0xA5));
}

TEST_F(SparseOperations, ReadLeavesTheGapsInTheBuffer) {
  SparseModel model;
  for (const auto& [offset, size] : {std::pair{100, 50}, {300, 5000}, {5300, 10}, {9000, 8192}}) {
    const Bytes data =
        PatternBytes(static_cast<std::uint64_t>(offset), static_cast<std::size_t>(size));
    ASSERT_EQ(Write(static_cast<std::uint64_t>(offset), data).status, 0);
    model.Write(offset, data);
  }
  EXPECT_EQ(ReadOver(0, 20000, 0xA5), model.Read(0, 20000, 0xA5));
  EXPECT_EQ(ReadOver(120, 200, 0xA5), model.Read(120, 200, 0xA5));
  EXPECT_EQ(ReadOver(149, 1, 0xA5), model.Read(149, 1, 0xA5));
  EXPECT_EQ(ReadOver(5299, 2, 0xA5), model.Read(5299, 2, 0xA5));
}

TEST_F(SparseOperations, NeighboursInTheFileAreReadAtOnce) {
  const Bytes data = PatternBytes(1, 8 * 4096);
  for (std::size_t i = 0; i < 8; ++i) {
    ASSERT_EQ(Write(4096 * i, Bytes(data.begin() + static_cast<std::ptrdiff_t>(4096 * i),
                                    data.begin() + static_cast<std::ptrdiff_t>(4096 * (i + 1))))
                  .status,
              0);
  }
  const CallCounter reads(Call::kRead);
  EXPECT_EQ(ReadOver(100, 30000, 0), Bytes(data.begin() + 100, data.begin() + 30100));
  EXPECT_EQ(reads.count(), 1U);
}

TEST_F(SparseOperations, OneByteIsReadAsAUnit) {
  ASSERT_EQ(Write(0, PatternBytes(1, 8192)).status, 0);
  const CallCounter reads(Call::kRead);
  EXPECT_EQ(ReadOver(4097, 1, 0)[0], PatternBytes(1, 8192)[4097]);
  ASSERT_EQ(reads.count(), 1U);
  EXPECT_EQ(reads.seen()[0].length, 4096U);
}

TEST_F(SparseOperations, WriteInsideAnExtentAddsNothing) {
  ASSERT_EQ(Write(1000, PatternBytes(1, 9000)).status, 0);
  const std::size_t size = File().size();
  for (const auto& [offset, length] : {std::pair{1000, 9000}, {1000, 1}, {9999, 1}, {3000, 4096}}) {
    ASSERT_EQ(Write(static_cast<std::uint64_t>(offset), Bytes(static_cast<std::size_t>(length), 7))
                  .status,
              0);
  }
  EXPECT_EQ(DataBytes(), 9000U);
  EXPECT_EQ(File().size(), size);
  EXPECT_EQ(ClosedExtents(), (Extents{{1000, {1000, 9000, 16384}}}));
}

TEST_F(SparseOperations, WriteOverAGapAndBothEdgesAddsTheGapAlone) {
  ASSERT_EQ(Write(0, Bytes(1000, 1)).status, 0);
  ASSERT_EQ(Write(3000, Bytes(1000, 2)).status, 0);
  ASSERT_EQ(Write(500, Bytes(3000, 3)).status, 0);
  EXPECT_EQ(DataBytes(), 4000U);
  Bytes expected(4000, 3);
  std::fill_n(expected.begin(), 500, std::uint8_t{1});
  std::fill_n(expected.begin() + 3500, 500, std::uint8_t{2});
  EXPECT_EQ(ReadOver(0, 4000, 0), expected);
  EXPECT_EQ(
      ClosedExtents(),
      (Extents{{0, {0, 1000, 16384}}, {1000, {1000, 2000, 24576}}, {3000, {3000, 1000, 20480}}}));
}

TEST_F(SparseOperations, WriteOverAnExtentAddsBothSides) {
  ASSERT_EQ(Write(5000, Bytes(10, 1)).status, 0);
  ASSERT_EQ(Write(4000, PatternBytes(2, 3000)).status, 0);
  EXPECT_EQ(DataBytes(), 3000U);
  EXPECT_EQ(ReadOver(4000, 3000, 0), PatternBytes(2, 3000));
  EXPECT_EQ(ClosedExtents(), (Extents{{4000, {4000, 1000, 20480}},
                                      {5000, {5000, 10, 16384}},
                                      {5010, {5010, 1990, 24576}}}));
}

TEST_F(SparseOperations, NeighboursAreNotMerged) {
  ASSERT_EQ(Write(0, Bytes(4096, 1)).status, 0);
  ASSERT_EQ(Write(4096, Bytes(4096, 2)).status, 0);
  EXPECT_EQ(ClosedExtents(), (Extents{{0, {0, 4096, 16384}}, {4096, {4096, 4096, 20480}}}));
}

TEST_F(SparseOperations, DataBytesCountsLengthsAndNotUnits) {
  EXPECT_EQ(DataBytes(), 0U);
  ASSERT_EQ(Write(0, Bytes(1, 1)).status, 0);
  EXPECT_EQ(DataBytes(), 1U);
  ASSERT_EQ(Write(0, Bytes(3, 1)).status, 0);
  EXPECT_EQ(DataBytes(), 3U);
  CloseHandle();
  EXPECT_EQ(Get64(File(), 13), 3U);
}

TEST_F(SparseOperations, DataIsInTheFileWhenAWriteReturns) {
  ASSERT_EQ(Write(0, PatternBytes(1, 4096)).status, 0);
  const Bytes file = File();
  ASSERT_EQ(file.size(), 20480U);
  EXPECT_EQ(Bytes(file.begin() + 16384, file.end()), PatternBytes(1, 4096));
}

TEST_F(SparseOperations, ArgumentsAreCheckedBeforeTheHandle) {
  std::uint8_t byte = 9;
  const auto read = [&](std::uint64_t handle, void* buffer, std::uint32_t size) {
    std::uint32_t count = 77;
    ExpectOwnFailure(KQSparseFileRead(handle, 0, buffer, size, &count), -87, "kqimageapi");
    EXPECT_EQ(count, 0U);
    count = 77;
    ExpectOwnFailure(KQSparseFileWrite(handle, 0, buffer, size, &count), -87, "kqimageapi");
    EXPECT_EQ(count, 0U);
    count = 77;
    ExpectOwnFailure(KQImageFilesWrite(handle, 0, buffer, size, &count), -87, "kqimageapi");
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(KQSparseFileRead(handle, 0, buffer, size, nullptr).status, -87);
  };
  read(handle_, &byte, 0);
  read(handle_, nullptr, 1);
  read(0, &byte, 1);
  EXPECT_EQ(byte, 9);
}

TEST_F(SparseOperations, UnknownHandleIsRefused) {
  std::uint8_t byte = 9;
  std::uint32_t count = 77;
  const std::uint64_t unknown = handle_ + 1000;
  ExpectOwnFailure(KQSparseFileRead(unknown, 0, &byte, 1, &count), -87, "objmgr");
  EXPECT_EQ(count, 0U);
  count = 77;
  ExpectOwnFailure(KQSparseFileWrite(unknown, 0, &byte, 1, &count), -87, "objmgr");
  EXPECT_EQ(count, 0U);
  ExpectOwnFailure(KQImageFilesWrite(unknown, 0, &byte, 1, &count), -87, "objmgr");
  std::uint64_t dataBytes = 77;
  for (const std::uint64_t handle : {unknown, std::uint64_t{0}}) {
    ExpectOwnFailure(KQSparseFileGetNumDataBytes(handle, &dataBytes), -87, "objmgr");
    EXPECT_EQ(dataBytes, 0U);
    ExpectOwnFailure(KQSparseFileClose(handle, 0), -87, "objmgr");
  }
  ExpectOwnFailure(KQSparseFileGetNumDataBytes(handle_, nullptr), -87, "kqimageapi");
}

TEST_F(SparseOperations, CountsMayBeLeftOut) {
  std::uint8_t byte = 9;
  EXPECT_EQ(KQSparseFileWrite(handle_, 5, &byte, 1, nullptr).status, 0);
  byte = 0;
  EXPECT_EQ(KQSparseFileRead(handle_, 5, &byte, 1, nullptr).status, 0);
  EXPECT_EQ(byte, 9);
}

TEST_F(SparseOperations, ReadOnlyFileIsReadAndNotWritten) {
  ASSERT_EQ(Write(0, PatternBytes(1, 5000)).status, 0);
  CloseHandle();
  const Bytes before = File();
  handle_ = OpenHandle(KQ_SPARSE_OPEN_EXISTING, 10, 1);
  EXPECT_EQ(ReadOver(0, 5000, 0), PatternBytes(1, 5000));
  ExpectOwnFailure(Write(0, Bytes(1)), -19, "utsparsefile");
  ExpectOwnFailure(Write(1 << 30, Bytes(1)), -19, "utsparsefile");
  CloseHandle();
  EXPECT_EQ(File(), before);
}

TEST_F(SparseOperations, RangesMayLieAtEitherEndOfTheNumbers) {
  const Bytes data = PatternBytes(1, 100);
  const std::uint64_t top = 0x7FFFFFFFFFFFFFFF;
  ASSERT_EQ(Write(top - 100, data).status, 0);
  ASSERT_EQ(Write(top + 1, data).status, 0);
  ASSERT_EQ(Write(~std::uint64_t{0} - 49, data).status, 0);  // from -50 to 49
  EXPECT_EQ(ReadOver(top - 100, 100, 0), data);
  EXPECT_EQ(ReadOver(top + 1, 100, 0), data);
  EXPECT_EQ(ReadOver(0, 50, 0), Bytes(data.begin() + 50, data.end()));
  EXPECT_EQ(DataBytes(), 300U);
  const Extents extents = ClosedExtents();
  ASSERT_EQ(extents.size(), 3U);
  EXPECT_EQ(extents.begin()->first, INT64_MIN);
  EXPECT_EQ(extents.rbegin()->first, INT64_MAX - 100);
}

TEST_F(SparseOperations, RangeBeyondTheNumbersIsNotWrittenAndReadsWhatIsThere) {
  const std::uint64_t top = 0x7FFFFFFFFFFFFFFF;
  ASSERT_EQ(Write(top - 10, Bytes(10, 5)).status, 0);
  ExpectOwnFailure(Write(top - 10, Bytes(11)), -87, "utsparsefile");
  EXPECT_EQ(DataBytes(), 10U);
  Bytes expected(30, 0xA5);
  std::fill_n(expected.begin(), 10, std::uint8_t{5});
  EXPECT_EQ(ReadOver(top - 10, 30, 0xA5), expected);
  EXPECT_EQ(ReadOver(top, 30, 0xA5), Bytes(30, 0xA5));
}

TEST_F(SparseOperations, FileOfBrokenUnitsIsReadAndNotWritten) {
  ASSERT_EQ(Write(0, PatternBytes(1, 5000)).status, 0);
  CloseHandle();
  Bytes broken = File();
  broken.push_back(1);
  WriteFile(path_, broken);
  handle_ = OpenHandle(KQ_SPARSE_OPEN_EXISTING);
  EXPECT_EQ(ReadOver(0, 5000, 0), PatternBytes(1, 5000));
  ExpectOwnFailure(Write(0, Bytes(1)), -1392, "utsparsefile");
  ExpectOwnFailure(Write(1 << 20, Bytes(1)), -1392, "utsparsefile");
  EXPECT_EQ(DataBytes(), 5000U);
}

TEST_F(SparseOperations, ExtentBehindTheEndOfTheFile) {
  CloseHandle();
  SparseModel model;
  ModelNode& root = model.NodeAt(model.root());
  root.count = 1;
  root.extents[0] = {0, 8192, 1 << 20};
  WriteFile(path_, model.File());
  handle_ = OpenHandle(KQ_SPARSE_OPEN_EXISTING);
  EXPECT_EQ(ReadOver(1, 10, 0xA5), Bytes(10));  // missing bytes are zero
  ExpectOwnFailure(Write(0, Bytes(8192)), -1392, "utsparsefile");
}

TEST_F(SparseOperations, NodesThatAreReachedAtTheWrongPlaceAreUsedAsTheyAre) {
  CloseHandle();
  SparseModel model;
  ModelNode leaf;
  leaf.count = 1;
  leaf.extents[0] = {0, 4096, model.AppendData(Bytes(4096, 7))};
  ModelNode root;
  root.leaf = false;
  root.count = 1;
  root.extents[0] = {8192, 4096, model.AppendData(Bytes(4096, 8))};
  root.children[0] = model.AppendNode(leaf);
  root.children[1] = root.children[0];
  model.SetRoot(model.AppendNode(root));
  WriteFile(path_, model.File());
  handle_ = OpenHandle(KQ_SPARSE_OPEN_EXISTING);

  Bytes expected(20480, 0xA5);
  std::fill_n(expected.begin(), 4096, std::uint8_t{7});
  std::fill_n(expected.begin() + 8192, 4096, std::uint8_t{8});
  EXPECT_EQ(ReadOver(0, 20480, 0xA5), expected);
  EXPECT_EQ(ReadOver(12288, 100, 0xA5), Bytes(100, 0xA5));

  // The leaf's extent is found twice, in front of the root's and behind it, and written twice; only
  // what no extent covers is new.
  const std::uint64_t before = DataBytes();
  ASSERT_EQ(Write(0, Bytes(20480, 9)).status, 0);
  EXPECT_EQ(DataBytes() - before, 20480U - 2 * 4096U);
}

TEST_F(SparseOperations, FailedReadEndsTheOperation) {
  ASSERT_EQ(Write(0, Bytes(10, 1)).status, 0);
  ASSERT_EQ(Write(20, Bytes(10, 2)).status, 0);
  Bytes buffer(30, 0xA5);
  const FailingCall failing(Call::kRead, EIO, 100, 1);
  const std::string log = LogOf([&] { ExpectSystemFailure(Read(0, &buffer), -23, EIO); });
  EXPECT_EQ(WithoutLineNumbers(log), ReaderLine(101, "0xFFFFFFE9"));
  EXPECT_EQ(Bytes(buffer.begin() + 10, buffer.end()), Bytes(20, 0xA5));
}

TEST_F(SparseOperations, FailedAppendAddsNothing) {
  const Placed data(4096, 0, 1);
  {
    const FailingCall failing(Call::kWrite, ENOSPC, 100);
    const std::string log = LogOf([&] {
      std::uint32_t count = 77;
      ExpectSystemFailure(KQSparseFileWrite(handle_, 0, data.data(), 4096, &count), -112, ENOSPC);
      EXPECT_EQ(count, 0U);
    });
    EXPECT_EQ(WithoutLineNumbers(log), WriterLine(101, "0xFFFFFF90"));
  }
  EXPECT_EQ(DataBytes(), 0U);
  EXPECT_EQ(ReadOver(0, 10, 0xA5), Bytes(10, 0xA5));
  EXPECT_EQ(Write(0, Bytes(10, 3)).status, 0);
}

TEST_F(SparseOperations, FailureInTheMiddleKeepsWhatWasWritten) {
  ASSERT_EQ(Write(4096, Bytes(4096, 1)).status, 0);
  {
    // The gap in front goes through, and the extent behind it does not.
    const FailingCall failing(Call::kWrite, EIO, 100, 1);
    LogOf([&] { ExpectSystemFailure(Write(0, Bytes(12288, 2)), -23, EIO); });
  }
  EXPECT_EQ(DataBytes(), 8192U);
  Bytes expected(12288, 0xA5);
  std::fill_n(expected.begin(), 4096, std::uint8_t{2});
  std::fill_n(expected.begin() + 4096, 4096, std::uint8_t{1});
  EXPECT_EQ(ReadOver(0, 12288, 0xA5), expected);
}

TEST_F(SparseOperations, EachAllocationIsNeeded) {
  ASSERT_EQ(Write(1000, Bytes(10, 1)).status, 0);
  for (const Call call : {Call::kMalloc, Call::kAlignedMalloc}) {
    int refused = 0;
    for (int after = 0;; ++after) {
      Bytes buffer(2000);
      const FailingCall failing(call, ENOMEM, 1, after);
      // The first write fills the gaps, so that each failure has a new range.
      const std::uint64_t offset = 10000U * static_cast<std::uint64_t>(after + 1);
      const KQStatus written = Write(offset, buffer);
      const KQStatus read = written.status == 0 ? Read(1000, &buffer) : written;
      if (failing.failures() == 0) break;
      ++refused;
      EXPECT_EQ(read.status, -8);
      EXPECT_STREQ(read.file, "utsparsefile");
    }
    EXPECT_EQ(refused, call == Call::kMalloc ? 1 : 2);
  }
}

TEST_F(SparseOperations, CallsOnOneHandleRunOneAfterTheOther) {
  constexpr int kThreads = 4;
  constexpr int kWrites = 200;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this, thread] {
      const Bytes data(100, static_cast<std::uint8_t>(thread + 1));
      for (int i = 0; i < kWrites; ++i) {
        const auto offset = static_cast<std::uint64_t>(100 * (i * kThreads + thread));
        EXPECT_EQ(KQSparseFileWrite(handle_, offset, data.data(), 100, nullptr).status, 0);
        Bytes read(100);
        EXPECT_EQ(KQSparseFileRead(handle_, offset, read.data(), 100, nullptr).status, 0);
        EXPECT_EQ(read, data);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(DataBytes(), 100U * kThreads * kWrites);
  const Extents extents = ClosedExtents();
  EXPECT_EQ(extents.size(), std::size_t{kThreads * kWrites});
  handle_ = OpenHandle(KQ_SPARSE_OPEN_EXISTING);
  for (const auto& [offset, extent] : extents) {
    EXPECT_EQ(ReadOver(static_cast<std::uint64_t>(offset), 100, 0),
              Bytes(100, static_cast<std::uint8_t>(offset / 100 % kThreads + 1)));
  }
}

TEST_F(SparseOperations, ChainWithoutASparseFileIsWriteProtected) {
  kq::ImageFolder images;
  ImageSpec spec;
  std::uint64_t chain = 0;
  ASSERT_EQ(KQImageFilesOpen(images.Write("base", spec).c_str(), nullptr, 0, &chain).status, 0);
  std::uint32_t count = 77;
  ExpectOwnFailure(KQImageFilesWrite(chain, 0, "x", 1, &count), -19, "kqimageapi");
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(KQImageFilesClose(chain, nullptr, nullptr, 0).status, 0);
}

}  // namespace
}  // namespace kqtest
