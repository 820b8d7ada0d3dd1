#include "sparse/sparse_transfer.h"

#include <algorithm>
#include <cstring>

#include "foundation/checked_math.h"
#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/os_file.h"
#include "kqsparseformat.h"
#include "sparse/sparse_file.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

constexpr int kAttempts = 100;

// The smallest buffer that a transfer goes through: nearly all are of this size then, and the
// allocator always has one at hand.
constexpr std::uint64_t SparseTransferMinBuffer = 0x10000;

bool IsWholeUnits(std::uint64_t value) { return value % KQ_SPARSE_UNIT == 0; }
bool IsAlignedAddress(const void* address) {
  return IsWholeUnits(reinterpret_cast<std::uintptr_t>(address));
}

HeapBuffer AllocateForTransfer(std::uint64_t size) {
  return HeapBuffer::AllocateAligned(KQ_SPARSE_UNIT, std::max(size, SparseTransferMinBuffer));
}

// The units around a range.
struct UnitRange {
  std::uint64_t lead = 0;  // bytes of the first unit in front of the range
  std::uint64_t size = 0;
};
bool UnitsAround(std::uint64_t position, std::uint64_t length, UnitRange* units) {
  units->lead = position % KQ_SPARSE_UNIT;
  return CheckedAdd(units->lead, length, &units->size) &&
         CheckedRoundUp(units->size, KQ_SPARSE_UNIT, &units->size);
}

template <class Transfer>
KQStatus Retry(const char* name, int line, Transfer transfer) {
  KQStatus status = transfer();
  int attempts = 1;
  while (Failed(status) && attempts < kAttempts) {
    status = transfer();
    ++attempts;
  }
  // The count is that of the attempt that worked, so a transfer that never worked shows one more
  // than were made.
  if (Failed(status)) ++attempts;
  if (attempts > 1) {
    KQLog("%s line=%d retries=%d status=0x%08X\n", name, line, attempts,
          static_cast<unsigned>(status.status));
  }
  return status;
}

KQStatus ReadUnits(SparseFile* file, std::uint64_t position, void* buffer, std::uint64_t length,
                   std::uint64_t* delivered) {
  *delivered = 0;
  return Retry("SparseFileReader", __LINE__, [&] {
    return OSFileSeekRead(file->File.get(), position, buffer, length, delivered);
  });
}

// Overwrites a range that begins inside the file.
KQStatus WriteInPlace(SparseFile* file, std::uint64_t position, const void* data,
                      std::uint64_t length) {
  if (IsWholeUnits(position) && IsWholeUnits(length)) {
    return SparseFileWriter_BufferAddressHelper(file, position, data, length);
  }
  UnitRange units;
  if (!UnitsAround(position, length, &units)) return KQ_FAIL(kNotEnoughMemory);
  HeapBuffer buffer = AllocateForTransfer(units.size);
  if (!buffer) return KQ_FAIL(kNotEnoughMemory);
  const std::uint64_t start = position - units.lead;
  std::uint64_t delivered = 0;
  KQ_RETURN_IF_FAILED(ReadUnits(file, start, buffer.data(), units.size, &delivered));
  // What stands around the new bytes must be there: nothing but it may be written back.
  if (delivered < units.size) return KQ_FAIL(kFileCorrupt);
  std::memcpy(buffer.data() + units.lead, data, length);
  return SparseFileWriter_BufferAddressHelper(file, start, buffer.data(), units.size);
}

KQStatus WriteAtEnd(SparseFile* file, std::uint64_t end, const void* data, std::uint64_t length) {
  if (IsWholeUnits(length)) return SparseFileWriter_BufferAddressHelper(file, end, data, length);
  std::uint64_t padded = 0;
  if (!CheckedRoundUp(length, KQ_SPARSE_UNIT, &padded)) return KQ_FAIL(kNotEnoughMemory);
  HeapBuffer buffer = AllocateForTransfer(padded);
  if (!buffer) return KQ_FAIL(kNotEnoughMemory);
  std::memcpy(buffer.data(), data, length);
  std::memset(buffer.data() + length, 0, padded - length);
  return SparseFileWriter_BufferAddressHelper(file, end, buffer.data(), padded);
}

}  // namespace

KQStatus SparseFileReader(SparseFile* file, std::uint64_t position, void* buffer,
                          std::uint64_t length, std::uint64_t* count) {
  std::uint64_t delivered = 0;
  KQ_RETURN_IF_FAILED(ReadWhatIsThere(file, position, buffer, length, &delivered));
  if (count != nullptr) *count = length;
  return Success();
}

KQStatus ReadWhatIsThere(SparseFile* file, std::uint64_t position, void* buffer,
                         std::uint64_t length, std::uint64_t* delivered) {
  if (IsWholeUnits(position) && IsWholeUnits(length) && IsAlignedAddress(buffer)) {
    return ReadUnits(file, position, buffer, length, delivered);
  }
  *delivered = 0;
  UnitRange units;
  if (!UnitsAround(position, length, &units)) return KQ_FAIL(kNotEnoughMemory);
  HeapBuffer bounce = AllocateForTransfer(units.size);
  if (!bounce) return KQ_FAIL(kNotEnoughMemory);
  std::uint64_t count = 0;
  KQ_RETURN_IF_FAILED(ReadUnits(file, position - units.lead, bounce.data(), units.size, &count));
  std::memset(bounce.data() + count, 0, units.size - count);
  std::memcpy(buffer, bounce.data() + units.lead, length);
  *delivered = std::min(length, count > units.lead ? count - units.lead : 0);
  return Success();
}

KQStatus SparseFileWriter_BufferAddressHelper(SparseFile* file, std::uint64_t position,
                                              const void* buffer, std::uint64_t length) {
  HeapBuffer aligned;
  if (!IsAlignedAddress(buffer)) {
    aligned = AllocateForTransfer(length);
    if (!aligned) return KQ_FAIL(kNotEnoughMemory);
    std::memcpy(aligned.data(), buffer, length);
    buffer = aligned.data();
  }
  return Retry("SparseFileWriter_BufferAddressHelper", __LINE__,
               [&] { return OSFileSeekWrite(file->File.get(), position, buffer, length); });
}

KQStatus SparseFileTransfer(SparseFile* file, std::uint64_t position, const void* data,
                            std::uint64_t length, TransferTo to, std::uint64_t* written) {
  std::uint64_t fileSize = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(file->File.get(), &fileSize));
  if (!IsWholeUnits(fileSize)) return KQ_FAIL(kFileCorrupt);
  if (to == TransferTo::kEnd) position = fileSize;
  if (position > fileSize) return KQ_FAIL(kFileCorrupt);
  KQ_RETURN_IF_FAILED(position < fileSize ? WriteInPlace(file, position, data, length)
                                          : WriteAtEnd(file, position, data, length));
  if (written != nullptr) *written = position;
  return Success();
}

KQStatus UpdateFileHeader(SparseFile* file, std::uint8_t inUse) {
  if (file->ReadOnly) return KQ_FAIL(kWriteProtect);
  HeapBuffer block = HeapBuffer::AllocateAlignedZeroed(KQ_SPARSE_UNIT, sizeof(SparseHeaderBlock));
  if (!block) return KQ_FAIL(kNotEnoughMemory);
  SparseHeaderBlock header{};
  std::memcpy(header.Magic, KQ_SPARSE_MAGIC, sizeof header.Magic);
  header.RootNode = file->RootNode;
  header.InUse = inUse;
  header.DataBytes = file->DataBytes;
  std::memcpy(block.data(), &header, sizeof header);
  return SparseFileWriter_BufferAddressHelper(file, 0, block.data(), block.size());
}

KQStatus MarkFileInUse(SparseFile* file) {
  if (file->HeaderInUse) return Success();
  KQ_RETURN_IF_FAILED(UpdateFileHeader(file, 1));
  file->HeaderInUse = true;
  return Success();
}

}  // namespace kq
